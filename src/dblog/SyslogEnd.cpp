#include "dblog/SyslogEnd.h"

#include <algorithm>
#include <cstring>

#include "dblog/LocalTime.h"

namespace tarn {
namespace {

constexpr size_t kTimeLength = 19;  // "YYYY-MM-DDTHH:MM:SS"

template <size_t Size>
bool beginsWith(const char* text, size_t length, const char (&with)[Size]) {
  return length >= Size - 1 && memcmp(text, with, Size - 1) == 0;
}

}  // namespace

SyslogEnd::Line SyslogEnd::look(const char* text, size_t length) {
  if (length < kTimeLength) return Line::kRest;  // padding in front of the next block
  tm time{};
  const char* end = strptime(text, "%Y-%m-%dT%H:%M:%S", &time);
  if (end == nullptr || end < text + kTimeLength) return Line::kBad;
  const int32_t seconds = localSeconds(&time);
  if (seconds == -1) return Line::kBad;
  if (seconds < previous_) return Line::kOlder;
  previous_ = seconds;
  return Line::kGood;
}

bool SyslogEnd::blockDone(uint32_t length) {
  position_ += length;
  if (bad_) return ++badBlocks_ < kMostBadBlocks;
  end_ = position_;
  badBlocks_ = 0;
  return true;
}

bool SyslogEnd::addBlock(char* text, size_t length) {
  text[length] = '\0';
  if (position_ == 0 && beginsWith(text, length, kSyslogEmpty)) return false;
  for (size_t start = 0; start < length;) {
    const void* feed = memchr(text + start, '\n', length - start);
    const size_t end =
        feed != nullptr ? static_cast<size_t>(static_cast<const char*>(feed) - text) : length;
    const Line line = end == start ? Line::kRest : look(text + start, length - start);
    if (line == Line::kOlder) {
      // Older text behind damage: the mark was in what is damaged.
      if (!bad_ || beginsWith(text + start, length - start, kSyslogMark))
        end_ = position_ + static_cast<uint32_t>(start);
      return false;
    }
    if (line == Line::kBad) bad_ = true;
    if (line == Line::kGood) {
      bad_ = false;
      end_ = position_ + static_cast<uint32_t>(std::min(end + 1, length));
    }
    start = end + 1;
  }
  return blockDone(static_cast<uint32_t>(length));
}

}  // namespace tarn
