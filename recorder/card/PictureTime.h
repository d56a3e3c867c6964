#pragma once

#include <cstdint>

namespace tarn {

// A moment on the clock of time(): seconds since 1970 and microseconds (0 to 999,999).
struct PictureTime {
  uint32_t seconds = 0;
  uint32_t micros = 0;

  int64_t totalMicros() const { return int64_t{seconds} * 1000000 + micros; }
  // A moment before 1970 becomes 0, one that 32 bits cannot hold the last that they can.
  static PictureTime fromMicros(int64_t total) {
    constexpr int64_t kLast = int64_t{0xFFFFFFFF} * 1000000 + 999999;
    if (total < 0) total = 0;
    if (total > kLast) total = kLast;
    return {static_cast<uint32_t>(total / 1000000), static_cast<uint32_t>(total % 1000000)};
  }
  uint16_t milliseconds() const { return static_cast<uint16_t>(micros / 1000); }
};

inline bool operator==(PictureTime a, PictureTime b) {
  return a.seconds == b.seconds && a.micros == b.micros;
}
inline bool operator<(PictureTime a, PictureTime b) { return a.totalMicros() < b.totalMicros(); }

}  // namespace tarn
