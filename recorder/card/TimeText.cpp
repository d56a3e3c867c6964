#include "recorder/card/TimeText.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "recorder/card/CivilTime.h"

namespace tarn {
namespace {

std::string wallText(int64_t wall, char between) {
  const CivilTime time = civilTime(wall);
  char text[64];
  snprintf(text, sizeof text, "%04d-%02d-%02d%c%02d:%02d:%02d", time.year, time.month, time.day,
           between, time.hour, time.minute, time.second);
  return text;
}

std::string whole(uint32_t seconds, uint16_t milliseconds, int32_t offset, char between) {
  char fraction[16];
  snprintf(fraction, sizeof fraction, ".%03u", unsigned{milliseconds});
  return wallText(int64_t{seconds} + offset, between) + fraction + TimeText::offset(offset);
}

}  // namespace

int32_t TimeText::offsetAt(int64_t seconds) {
  using Limits = std::numeric_limits<time_t>;
  const auto when = static_cast<time_t>(
      std::clamp<int64_t>(seconds, std::max<int64_t>(Limits::min(), INT32_MIN),
                          std::min<int64_t>(Limits::max(), int64_t{UINT32_MAX} + 86400 * 2)));
  struct tm local = {};
  return localtime_r(&when, &local) != nullptr ? static_cast<int32_t>(local.tm_gmtoff) : 0;
}

std::string TimeText::of(uint32_t seconds) {
  const int32_t ahead = offsetAt(seconds);
  return wallText(int64_t{seconds} + ahead, ' ') + offset(ahead);
}

std::string TimeText::of(uint32_t seconds, uint16_t milliseconds) {
  return of(seconds, milliseconds, offsetAt(seconds));
}

std::string TimeText::iso(uint32_t seconds, uint16_t milliseconds) {
  return iso(seconds, milliseconds, offsetAt(seconds));
}

std::string TimeText::of(uint32_t seconds, uint16_t milliseconds, int32_t offset) {
  return whole(seconds, milliseconds, offset, ' ');
}

std::string TimeText::iso(uint32_t seconds, uint16_t milliseconds, int32_t offset) {
  return whole(seconds, milliseconds, offset, 'T');
}

std::string TimeText::offset(int32_t seconds) {
  const int32_t ahead = std::abs(seconds);
  char text[48];
  const int length = snprintf(text, sizeof text, "%c%02d:%02d", seconds < 0 ? '-' : '+',
                              ahead / 3600, ahead / 60 % 60);
  if (ahead % 60 != 0)
    snprintf(text + length, sizeof text - static_cast<size_t>(length), ":%02d", ahead % 60);
  return text;
}

}  // namespace tarn
