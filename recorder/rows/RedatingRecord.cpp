#include "recorder/rows/RedatingRecord.h"

#include <syslog.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "recorder/rows/RowMessages.h"

namespace tarn {
namespace {

constexpr char kBegin[] = "RecordingSession: channel ";
constexpr int kMostChannel = 127;
constexpr int64_t kMostSeconds = UINT32_MAX;

bool toKey(uint64_t value, uint32_t* key) {
  *key = static_cast<uint32_t>(value);
  return value <= UINT32_MAX;
}

}  // namespace

void RedatingRecord::log() const {
  syslog(LOG_NOTICE, kMsgRedated, channel, sound ? kMsgRedatedSound : "", moved, firstStream,
         lastStream, movedEvents, firstEvent, lastEvent, seconds);
}

// The format of kMsgRedated, read back; widths keep each number within its variable.
bool RedatingRecord::parse(const std::string& line) {
  const size_t begin = line.rfind(kBegin);
  if (begin == std::string::npos) return false;
  const char* text = line.c_str() + begin + sizeof kBegin - 1;
  int end = 0;
  if (sscanf(text, "%3d%n", &channel, &end) != 1 || channel < 0 || channel > kMostChannel)
    return false;
  text += end;
  constexpr size_t kMark = sizeof kMsgRedatedSound - 1;
  sound = strncmp(text, kMsgRedatedSound, kMark) == 0;
  if (sound) text += kMark;
  uint64_t number[6] = {};
  end = 0;
  const int got = sscanf(
      text,
      ": re-dated %10" SCNu64 " of recordings %10" SCNu64 " to %10" SCNu64 " and %10" SCNu64
      " of events %10" SCNu64 " to %10" SCNu64 " by %11" SCNd64 " s%n",
      &number[0], &number[1], &number[2], &number[3], &number[4], &number[5], &seconds, &end);
  return got == 7 && end > 0 && toKey(number[0], &moved) && toKey(number[1], &firstStream) &&
         toKey(number[2], &lastStream) && toKey(number[3], &movedEvents) &&
         toKey(number[4], &firstEvent) && toKey(number[5], &lastEvent) && seconds != 0 &&
         seconds >= -kMostSeconds && seconds <= kMostSeconds;
}

}  // namespace tarn
