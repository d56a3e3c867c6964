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

// Tells this process's status: in a file below /tmp that is exchanged as a whole, so that nobody
// reads half of it, and that goes with this object. One of a killed process is not believed once it
// is old. That the file cannot be written is no reason not to record. Used by one thread.
class TARN_API StatusTeller {
 public:
  StatusTeller() = default;
  ~StatusTeller();
  StatusTeller(const StatusTeller&) = delete;
  StatusTeller& operator=(const StatusTeller&) = delete;

  // To be called often: writes at most once a second. `failed`: as in the status.
  void tell(uint32_t failed);

 private:
  int64_t toldMs_ = -1;
};

// Of all processes that tell theirs.
TARN_API std::vector<RecordingStatus> toldStatuses();
// The file's text at a moment of the monotonic clock, and back. False for a text that is none or
// older than ten seconds.
TARN_API std::string statusText(const RecordingStatus& status, int64_t nowMs);
TARN_API bool readStatus(const std::string& text, int64_t nowMs, RecordingStatus* status);

}  // namespace tarn
