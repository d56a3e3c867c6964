#include "recorder/log/LogLayout.h"

#include "base/Omission.h"
#include "chunk/LogChunks.h"
#include "recorder/log/LogFormat.h"
#include "recorder/log/LogMark.h"

namespace tarn {
namespace {

// Blanks that end the line in front of `position`: less than the mark would be left in its sector.
uint32_t blanksBefore(uint32_t position) {
  const uint32_t left = (kLogSectorBytes - position % kLogSectorBytes) % kLogSectorBytes;
  return left < kLogMarkBytes ? left : 0;
}

}  // namespace

void LogLayout::restart(uint32_t position, std::string_view lastStamp) {
  position_ = position;
  lastStamp_ = lastStamp;
}

bool LogLayout::takesMark(uint32_t position, uint32_t chunkBytes) {
  return position <= chunkBytes && chunkBytes - position >= kLogMarkBytes &&
         blanksBefore(position) == 0;
}

// Only behind a line, so there is a stamp, and there is room for it with its line feed.
std::string LogLayout::fill(uint32_t left) const {
  if (omitted("log-blocks")) return "";
  return lastStamp_ + std::string(left - kLogMarkBytes, ' ') + "\n";
}

bool LogLayout::add(std::string_view text, int64_t seconds, std::string* out) {
  std::string line = logPrefix(lastStamp_, seconds).append(text);
  const uint32_t left = kLogBlockBytes - position_ % kLogBlockBytes;
  const auto length = static_cast<uint32_t>(line.size() + 1);
  const std::string filling = length > left ? fill(left) : "";
  const uint32_t end = position_ + static_cast<uint32_t>(filling.size()) + length;
  const uint32_t blanks = blanksBefore(end);
  if (!takesMark(end + blanks, chunkBytes_)) return false;
  lastStamp_ = line.substr(0, kLogStampBytes);
  *out += filling + line.append(blanks, ' ') + "\n";
  position_ = end + blanks;
  return true;
}

}  // namespace tarn
