#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// Makes way for whoever records on the same card: rests as long as it has worked, and while the
// device takes longer over writes than it does otherwise. Used by one thread.
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
  // Of a line of it: whether writes are slow now, by the ones since the last call. Told apart for
  // tests.
  bool areWritesSlow(const std::string& line);

 private:
  bool areWritesSlow();

  const std::string statistics_;
  int64_t sinceUs_;       // monotonic, when work began
  int64_t lookedUs_ = 0;  // when the device was asked last
  uint64_t writes_ = 0;   // that it had done then
  uint64_t writeMs_ = 0;  // and how long they took, all together
  bool known_ = false;    // both are
  double usualMs_ = 0;    // a write takes, when it is not disturbed; 0: not known
};

}  // namespace tarn
