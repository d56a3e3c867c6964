#pragma once

#include <unistd.h>

#include <cstdint>
#include <ctime>

namespace tarn {

// How long a recorder puts up with a management server that does not answer: a restart takes less.
inline constexpr int64_t kServerPatienceMs = 5000;

inline int64_t monotonicMs() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Repeats `attempt` until it gives true or `patienceMs` have passed; it is made once in any case.
template <class Attempt>
bool retryFor(int64_t patienceMs, Attempt&& attempt) {
  if (attempt()) return true;
  const int64_t end = monotonicMs() + patienceMs;
  while (monotonicMs() < end) {
    usleep(50000);
    if (attempt()) return true;
  }
  return false;
}

}  // namespace tarn
