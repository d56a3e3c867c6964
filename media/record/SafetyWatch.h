#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// The service manager's watchdog of a recording: fed only while pictures become safe, so that one
// that records nothing is started again, and the log says why. Does nothing where no manager
// watches.
class TARN_API SafetyWatch {
 public:
  // `limitUs`: after so long without being fed the manager restarts the service; 0: it never does.
  SafetyWatch(int64_t limitUs, int64_t nowUs);
  // The limit that the manager told this process, 0 without one.
  static int64_t limitOfManager();

  enum class Verdict { kNothing, kFeed, kWarn };
  // `safe`: pictures of all channels that are safe by now. kFeed once more are, at most four times
  // in the limit; kWarn once when none became safe for half of it.
  Verdict look(uint64_t safe, int64_t nowUs);

 private:
  const int64_t limitUs_;
  uint64_t safe_ = 0;
  int64_t grewUs_;  // when more became safe
  int64_t fedUs_;
  bool warned_ = false;
};

}  // namespace tarn
