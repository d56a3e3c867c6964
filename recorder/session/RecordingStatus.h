#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "fat/FlushTimes.h"

namespace tarn {

// What a process that records tells whoever looks on, which nobody can see from outside it: what it
// has given to the card since it began, and how long the card took.
struct RecordingStatus {
  struct Cause {
    std::string name;  // as of wearCauses()
    uint64_t bytes = 0;
    uint64_t flushes = 0;
  };

  int32_t process = 0;
  std::vector<Cause> causes;
  FlushTimes flushes;   // of the process itself; the management server's are not among them
  uint32_t failed = 0;  // channels whose recording ended with an error
};

// Of all processes that tell theirs.
TARN_API std::vector<RecordingStatus> toldStatuses();
// The file's text at a moment of the monotonic clock, and back. False for a text that is none or
// older than ten seconds.
TARN_API std::string statusText(const RecordingStatus& status, int64_t nowMs);
TARN_API bool readStatus(const std::string& text, int64_t nowMs, RecordingStatus* status);

}  // namespace tarn
