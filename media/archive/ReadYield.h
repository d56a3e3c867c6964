#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// Makes way for whoever records on the same card: rests as long as it has worked, and while the
// device has enough to do without it, or takes longer over writes than it does otherwise. Used by
// one thread.
class TARN_API ReadYield {
 public:
  // `statistics`: the device's file of the kernel's, see statisticsOf(); "" where there is none,
  // and then it only rests. Neither the processor nor the device is asked for before all others
  // from now on, in this thread.
  explicit ReadYield(const std::string& statistics);

  // Between two pieces of work of a few milliseconds. Returns when it is to go on.
  void rest();

  // What the kernel counts of a block device, and of what is no device "".
  static std::string statisticsOf(const std::string& device);
  // Of two lines of it, in front of a pause of so many microseconds and behind it: whether the
  // device belongs to others just now. Told apart for tests.
  bool isTaken(const std::string& before, const std::string& behind, int64_t pausedUs);

 private:
  bool isTaken();
  std::string look() const;

  const std::string statistics_;
  int64_t sinceUs_;       // monotonic, when work began
  int64_t lookedUs_ = 0;  // when the device was asked last
  uint64_t writes_ = 0;   // that it had done then
  uint64_t writeMs_ = 0;  // and how long they took, all together
  bool known_ = false;    // both are
  double usualMs_ = 0;    // a write takes, when it is not disturbed; 0: not known
};

}  // namespace tarn
