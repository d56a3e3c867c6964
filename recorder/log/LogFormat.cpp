#include "recorder/log/LogFormat.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "chunk/LogChunks.h"
#include "recorder/log/LogMark.h"

namespace tarn {
namespace {

// Two days before the year 10000, in every zone; earlier where the machine's clock ends earlier.
constexpr int64_t kLastSecond =
    std::min<int64_t>(253402128000, std::numeric_limits<time_t>::max() - 2 * 86400);
// Stamps keep clear of the mark at one end and of what 32 bits hold at the other, in every zone.
constexpr char kFirstStamp[] = "1970-01-02T00:00:01";
constexpr char kLastStamp[] = "2038-01-18T00:00:00";
constexpr char kNoteBegin[] = "(clock ";
constexpr char kNoteEnd[] = ") ";
constexpr size_t kNoteBeginBytes = sizeof kNoteBegin - 1;
constexpr size_t kNoteBytes = kNoteBeginBytes + kLogStampBytes + sizeof kNoteEnd - 1;
// The whole of the longest line fits any block with the mark behind it.
static_assert(kLogStampBytes + 1 + kNoteBytes + kLogTextBytes + 2 * (sizeof kLogMore - 1) + 1 <=
              kLogBlockBytes - kLogMarkBytes);

bool looksLikeStamp(std::string_view text) {
  constexpr char kShape[] = "dddd-dd-ddTdd:dd:dd";
  if (text.size() < kLogStampBytes) return false;
  for (size_t i = 0; i < kLogStampBytes; ++i) {
    const bool good = kShape[i] == 'd' ? text[i] >= '0' && text[i] <= '9' : text[i] == kShape[i];
    if (!good) return false;
  }
  return true;
}

int64_t secondsOf(std::string_view stamp, int summerTime) {
  if (!looksLikeStamp(stamp)) return -1;
  char text[kLogStampBytes + 1] = {};
  memcpy(text, stamp.data(), kLogStampBytes);
  struct tm time = {};
  const char* end = strptime(text, "%Y-%m-%dT%H:%M:%S", &time);
  if (end != text + kLogStampBytes) return -1;
  time.tm_isdst = summerTime;
  const int64_t seconds = mktime(&time);
  return seconds < INT32_MIN || seconds > INT32_MAX ? -1 : seconds;
}

bool isControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }
bool isBlank(char c) { return c == '\n' || c == '\r' || c == '\t'; }
bool continuesCharacter(char c) { return (static_cast<unsigned char>(c) & 0xC0) == 0x80; }

void trimEnd(std::string* text) {
  const size_t last = text->find_last_not_of(' ');
  text->resize(last == std::string::npos ? 0 : last + 1);
}

// Bytes of the first piece of a text that does not fit.
size_t pieceBytes(std::string_view text) {
  size_t length = kLogTextBytes;
  // At most three bytes back; what is longer is no UTF-8 anyway.
  for (int back = 0; back < 3 && continuesCharacter(text[length]); ++back) --length;
  return continuesCharacter(text[length]) ? kLogTextBytes : length;
}

}  // namespace

std::string logStamp(int64_t seconds) {
  const auto inside = static_cast<time_t>(std::clamp<int64_t>(seconds, 0, kLastSecond));
  struct tm time = {};
  localtime_r(&inside, &time);
  char text[96];
  snprintf(text, sizeof text, "%04d-%02d-%02dT%02d:%02d:%02d", time.tm_year + 1900, time.tm_mon + 1,
           time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
  return text;
}

int64_t logStampSeconds(std::string_view stamp) { return secondsOf(stamp, 0); }
int64_t logStampTime(std::string_view stamp) { return secondsOf(stamp, -1); }

std::string logPrefix(std::string_view last, int64_t seconds) {
  const std::string clock = logStamp(seconds);
  std::string stamp = clock;
  if (logStampSeconds(stamp) < logStampSeconds(kFirstStamp)) stamp = kFirstStamp;
  // Texts of one shape compare as their times do.
  if (clock > kLastStamp) stamp = kLastStamp;
  if (!last.empty() && logStampSeconds(stamp) < logStampSeconds(last)) stamp = last;
  std::string prefix = stamp + " ";
  if (stamp != clock) prefix += kNoteBegin + clock + kNoteEnd;
  return prefix;
}

std::string logCleanText(std::string_view text) {
  std::string clean(text);
  for (char& c : clean) {
    if (isControl(c)) c = isBlank(c) ? ' ' : '?';
  }
  trimEnd(&clean);
  return clean;
}

std::vector<std::string> logSplitText(std::string_view clean) {
  std::vector<std::string> pieces;
  std::string begin;
  while (clean.size() > kLogTextBytes) {
    const size_t length = pieceBytes(clean);
    pieces.push_back(begin + std::string(clean.substr(0, length)) + kLogMore);
    clean.remove_prefix(length);
    begin = kLogMore;
  }
  if (!clean.empty()) pieces.push_back(begin + std::string(clean));
  return pieces;
}

LogLine parseLogLine(std::string_view line) {
  LogLine result;
  result.text = logCleanText(line);
  const std::string& text = result.text;
  if (text == std::string(kLogMark, kLogStampBytes) ||
      text == std::string(kLogEmpty, kLogStampBytes)) {
    result.filling = true;
    return result;
  }
  result.seconds = logStampTime(text);
  result.filling = text.empty() || (text.size() == kLogStampBytes && result.seconds != -1);
  if (result.seconds == -1 || text.size() < kLogStampBytes + 1 + kNoteBytes) return result;
  if (text.compare(kLogStampBytes + 1, kNoteBeginBytes, kNoteBegin) != 0) return result;
  const std::string_view clock =
      std::string_view(text).substr(kLogStampBytes + 1 + kNoteBeginBytes);
  const int64_t seconds = logStampTime(clock.substr(0, kLogStampBytes));
  if (seconds != -1) result.seconds = seconds;
  return result;
}

}  // namespace tarn
