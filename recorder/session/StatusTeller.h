#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

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

}  // namespace tarn
