#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// How long flushes of chunks by this process took since it began: counted by classes, as a
// histogram is.
struct TARN_API FlushTimes {
  static constexpr int kClasses = 13;
  // The longest time of each class in microseconds; the last one has the rest.
  static constexpr int64_t kLongest[kClasses - 1] = {
      1000, 2000, 5000, 10000, 20000, 50000, 100000, 200000, 500000, 1000000, 2000000, 5000000};

  uint64_t counts[kClasses] = {};
  int64_t allUs = 0;

  void add(int64_t us);
};

// May be called by any thread.
TARN_API FlushTimes cardFlushTimes();

// Runs from where it is made.
class FlushTimer {
 public:
  FlushTimer();
  int64_t micros() const;

 private:
  int64_t beganUs_;
};

}  // namespace tarn
