#pragma once

#include <cstdint>
#include <vector>

#include "db/DbRecords.h"

namespace tarn {

// What a record of the log would take back.
struct RedatingPlan {
  // As they are now. The first one is a recording that tells the correction.
  std::vector<DB_STREAM> recordings;
  std::vector<DB_EVENT> events;
  uint32_t unreadable = 0;  // re-dated ones whose correction cannot be read: they stay as they are
  uint32_t others = 0;      // that are there with other times, as once it was taken back
  bool empty() const { return recordings.empty(); }
};

}  // namespace tarn
