#include "dblog/SyslogScan.h"

#include <cstring>

#include "base/Wrap.h"
#include "dblog/LocalTime.h"

namespace tarn {
namespace {

constexpr size_t kTimeLength = 19;  // "YYYY-MM-DDTHH:MM:SS"

}  // namespace

SyslogScan::Line SyslogScan::line(const char* text, size_t start, size_t length, bool first) {
  if (length - start < kTimeLength) return Line::kBlockEnds;
  tm time{};
  const char* end = strptime(text + start, "%Y-%m-%dT%H:%M:%S", &time);
  if (first && (end == nullptr || end < text + start + kTimeLength)) {
    freeOffset_ = wrapAdd32(freeOffset_, static_cast<uint32_t>(start));
    return Line::kScanEnds;
  }
  const int32_t seconds = localSeconds(&time);
  if (seconds == -1) return Line::kScanEnds;
  if (seconds < previous_) {
    freeOffset_ = wrapAdd32(freeOffset_, static_cast<uint32_t>(start));
    return Line::kScanEnds;
  }
  previous_ = seconds;
  return Line::kGood;
}

bool SyslogScan::addBlock(char* text, size_t length) {
  text[length] = '\0';
  bool first = true;
  for (size_t start = 0; start < length;) {
    const void* feed = memchr(text + start, '\n', length - start);
    const size_t end =
        feed != nullptr ? static_cast<size_t>(static_cast<const char*>(feed) - text) : length;
    if (end > start) {  // an empty line tells nothing
      const Line result = line(text, start, length, first);
      if (result == Line::kScanEnds || (result == Line::kBlockEnds && first)) return false;
      if (result == Line::kBlockEnds) break;
      first = false;
    }
    start = end + 1;
  }
  freeOffset_ = wrapAdd32(freeOffset_, static_cast<uint32_t>(length));
  return true;
}

}  // namespace tarn
