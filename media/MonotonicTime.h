#pragma once

#include <cstdint>
#include <ctime>

namespace tarn {

// Microseconds of the clock that nobody sets.
inline int64_t monotonicUs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

}  // namespace tarn
