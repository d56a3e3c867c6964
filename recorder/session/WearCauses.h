#pragma once

#include <vector>

#include "base/Export.h"
#include "fat/CardWear.h"

namespace tarn {

// What a recording gives to the card, by what it is for.
struct WearCause {
  const char* name;
  CardWear::Share share;
};

// Data, entries, headers, journal, management and log; together they are all of it. The management
// server is another process: its part is what it writes for each save that it was asked for.
TARN_API std::vector<WearCause> wearCauses(const CardWear& wear);

}  // namespace tarn
