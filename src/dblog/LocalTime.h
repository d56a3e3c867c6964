#pragma once

#include <cstdint>
#include <ctime>

namespace tarn {

// Seconds of a local time, or -1 for what a 32-bit clock cannot hold: the same on every machine.
inline int32_t localSeconds(tm* time) {
  const int64_t seconds = mktime(time);
  return seconds < INT32_MIN || seconds > INT32_MAX ? -1 : static_cast<int32_t>(seconds);
}

// The clock on the wall shows the hour that ends summer time twice. Of the two moments at which it
// shows what it shows at `time`, the one nearer to `reference`; mostly there is one only.
inline uint32_t momentNear(uint32_t reference, uint32_t time) {
  const auto moment = static_cast<time_t>(time);
  tm wall{};
  localtime_r(&moment, &wall);
  tm other = wall;
  other.tm_isdst = wall.tm_isdst > 0 ? 0 : 1;
  const int32_t second = localSeconds(&other);
  // A time that was not shown like that is moved to one that was.
  if (second <= 0 || other.tm_hour != wall.tm_hour || other.tm_min != wall.tm_min) return time;
  const auto distance = [reference](uint32_t a) {
    return a < reference ? reference - a : a - reference;
  };
  const auto alternative = static_cast<uint32_t>(second);
  return distance(alternative) < distance(time) ? alternative : time;
}

}  // namespace tarn
