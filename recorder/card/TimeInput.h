#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

// A time as a person types it:
//   2026-03-01T08:00:00.25   in this process's zone; a blank may stand for the T, the seconds and
//                            their fraction may be left out
//   ...Z, ...+02:00          in another zone
//   2026-03-01               a day
//   08:00, 08:00:30.5        a time of today
//   @1772352000.25           seconds since 1970
//   now, -1h30m              now, or so long ago, of units s, m, h, d (24 hours) and w
// A time that clocks skip in spring, and one without offset that they show twice in autumn, are
// refused: the words say which two there are. So is what lies outside of 1970 to 2106.
class TARN_API TimeInput {
 public:
  // A second and a day last for a while: a period from them begins with their first microsecond,
  // one to them ends with their last. What has a fraction is that very moment.
  enum class Edge : uint8_t { kStart, kEnd };

  // False with a sentence for the person in *error.
  static bool parse(const std::string& text, Edge edge, PictureTime* time, std::string* error);
  // The same with another present.
  static bool parse(const std::string& text, Edge edge, PictureTime now, PictureTime* time,
                    std::string* error);
};

}  // namespace tarn
