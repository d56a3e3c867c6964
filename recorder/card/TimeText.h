#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// Moments as people and programs read them: always with the offset from UTC that they are shown
// with, so that nobody has to guess, and no hour of autumn looks like another. Seconds are those of
// time(). Any thread; changing the process's zone meanwhile is for nobody.
class TARN_API TimeText {
 public:
  // Seconds that local time is ahead of UTC at that moment, in this process's zone. Moments that
  // the machine's clock cannot hold get the offset of the nearest that it can.
  static int32_t offsetAt(int64_t seconds);

  // "2026-03-01 08:19:29+01:00", and with milliseconds "2026-03-01 08:19:29.250+01:00".
  static std::string of(uint32_t seconds);
  static std::string of(uint32_t seconds, uint16_t milliseconds);
  // "2026-03-01T08:19:29.250+01:00": ISO 8601.
  static std::string iso(uint32_t seconds, uint16_t milliseconds);
  // The same where the offset is that of the recording, and not of this process.
  static std::string of(uint32_t seconds, uint16_t milliseconds, int32_t offset);
  static std::string iso(uint32_t seconds, uint16_t milliseconds, int32_t offset);

  // "+01:00"; seconds are shown where there are any: "-00:44:30".
  static std::string offset(int32_t seconds);
};

}  // namespace tarn
