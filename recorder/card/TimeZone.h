#pragma once

#include <string>

#include "base/Export.h"

namespace tarn {

// The zone in which this process understands and shows times: the machine's unless one is chosen.
class TARN_API TimeZone {
 public:
  // Chooses a zone for the whole process, before it has a second thread: by its name in the zone
  // database ("Europe/Berlin"), by an offset that it always has ("+05:30"), or "UTC". False with a
  // sentence in *error when there is no such zone; the zone stays then.
  static bool choose(const std::string& name, std::string* error);
};

}  // namespace tarn
