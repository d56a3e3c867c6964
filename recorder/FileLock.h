#pragma once

#include "base/UniqueFd.h"

namespace tarn {

// An exclusive lock among the recorder's processes and threads, on a file of its own in /tmp. The
// kernel lets it go when its owner dies.
class FileLock {
 public:
  // Waits for the lock, or with `wait` false gives up at once when somebody else holds it.
  bool lock(const char* path, bool wait);
  void unlock() { fd_.reset(); }
  bool held() const { return fd_.valid(); }

 private:
  UniqueFd fd_;
};

}  // namespace tarn
