#pragma once

#include "base/Export.h"
#include "base/UniqueFd.h"

namespace tarn {

// An exclusive lock among the recorder's processes and threads, on a file of its own in /tmp. The
// kernel lets it go when its owner dies. A path that is a symbolic link is not followed: in a
// folder that everybody writes to it might point at anything.
class TARN_API FileLock {
 public:
  enum class Outcome {
    kTaken,
    kHeldByOther,  // somebody else holds it: only without waiting
    kCannotOpen,   // no such lock can be taken here; errno says why
  };

  // Waits for the lock, or with `wait` false gives up at once when somebody else holds it.
  Outcome take(const char* path, bool wait);
  // The same, true for kTaken.
  bool lock(const char* path, bool wait) { return take(path, wait) == Outcome::kTaken; }
  void unlock() { fd_.reset(); }
  bool held() const { return fd_.valid(); }

 private:
  UniqueFd fd_;
};

}  // namespace tarn
