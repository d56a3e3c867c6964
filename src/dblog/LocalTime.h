#pragma once

#include <cstdint>
#include <ctime>

namespace tarn {

// Seconds of a local time, or -1 for what a 32-bit clock cannot hold: the same on every machine.
inline int32_t localSeconds(tm* time) {
  const int64_t seconds = mktime(time);
  return seconds < INT32_MIN || seconds > INT32_MAX ? -1 : static_cast<int32_t>(seconds);
}

}  // namespace tarn
