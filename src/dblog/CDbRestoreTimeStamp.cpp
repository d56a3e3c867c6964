#include <cstring>

#include "dblog/CDbRestore.h"
#include "dblog/LocalTime.h"

// The time stamp that a recording puts into each picture: a unit behind a start code, with an
// identifier and the text "timestamp = YYYYMMDDHHMMSS" in local time.

namespace {

constexpr uint8_t kStartCode[] = {0, 0, 0, 1};
constexpr long kStartCodeLength = sizeof kStartCode;
constexpr uint8_t kTimeUnit = 0x66;
constexpr long kUnitHead = 19;  // NAL byte, payload type and size, 16-byte identifier
constexpr char kText[] = "timestamp = ";
constexpr long kTextLength = sizeof kText - 1;
constexpr long kStampLength = 14;

// A field of `digits` digits; -1 when it is none or lies outside its range.
int field(const uint8_t* text, int digits, int least, int most) {
  int value = 0;
  for (int i = 0; i < digits; ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value < least || value > most ? -1 : value;
}

// 0 when the text is no time.
int parseStamp(const uint8_t* text) {
  const int year = field(text, 4, 0, 9999);
  const int month = field(text + 4, 2, 1, 12);
  const int day = field(text + 6, 2, 1, 31);
  const int hour = field(text + 8, 2, 0, 23);
  const int minute = field(text + 10, 2, 0, 59);
  const int second = field(text + 12, 2, 0, 61);  // leap seconds included
  if (year < 0 || month < 0 || day < 0 || hour < 0 || minute < 0 || second < 0) return 0;
  tm time{};
  time.tm_year = year - 1900;
  time.tm_mon = month - 1;
  time.tm_mday = day;
  time.tm_hour = hour;
  time.tm_min = minute;
  time.tm_sec = second;
  time.tm_isdst = -1;  // recorders stamp with the time of the wall, summer time included
  return tarn::localSeconds(&time);
}

// The time in a unit that begins at data; 0 when there is none.
int timeInUnit(const uint8_t* data, long length) {
  for (long at = kUnitHead; at <= length - kTextLength - kStampLength; ++at) {
    if (memcmp(data + at, kText, kTextLength) == 0) return parseStamp(data + at + kTextLength);
  }
  return 0;
}

}  // namespace

int CDbRestore::getTimeStamp(const unsigned char* data, long length) {
  for (long at = 0; at < length - kStartCodeLength; ++at) {
    if (memcmp(data + at, kStartCode, kStartCodeLength) != 0) continue;
    const long unit = at + kStartCodeLength;
    if (data[unit] != kTimeUnit) continue;
    const int time = timeInUnit(data + unit, length - unit);
    if (time != 0) return time;
  }
  return 0;
}
