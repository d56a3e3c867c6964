#include "fat/FlushTimes.h"

#include <ctime>

namespace tarn {
namespace {

int64_t nowUs() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

void FlushTimes::add(int64_t us) {
  int place = 0;
  while (place < kClasses - 1 && us > kLongest[place]) ++place;
  ++counts[place];
  allUs += us;
}

FlushTimer::FlushTimer() : beganUs_(nowUs()) {}
int64_t FlushTimer::micros() const { return nowUs() - beganUs_; }

}  // namespace tarn
