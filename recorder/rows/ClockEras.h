#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// Which recordings and events of this start were made by the clock as it is now, in a file on the
// RAM disk: a recorder whose clock becomes known re-dates no others, whichever process made them.
// What cannot be read or written makes fewer be re-dated, never more. Not part of the interface.
// Used with the allocation lock held.
class TARN_API ClockEras {
 public:
  // The first keys that recordings of a family (see Redating), and events, can have in the present
  // era; 0 when nothing is known.
  struct Keys {
    uint32_t stream = 0;
    uint32_t event = 0;
  };
  static Keys keys(int family);
  // The era begins with these keys, unless it has begun.
  static bool enter(int family, const Keys& next);
  // A new one begins with these.
  static bool begin(int family, const Keys& next);
  // There is none any more: the start-up recovery begins everything anew.
  static void forget();
};

}  // namespace tarn
