#include "recorder/log/LogChunkLines.h"

#include "api/CApiTarnSyslogRead.h"

namespace tarn {
namespace {

constexpr size_t kReadBytes = 64 * 1024;
// No line of the log is longer; what has no line feed for so long is none.
constexpr size_t kLongestLine = 64 * 1024;

// False when no more are wanted. What is left behind the last line feed stays in *rest.
bool takeLines(std::string* rest, const LogChunkLines::Take& take) {
  size_t start = 0;
  for (size_t feed; (feed = rest->find('\n', start)) != std::string::npos; start = feed + 1) {
    if (!take(rest->substr(start, feed - start))) return false;
  }
  rest->erase(0, start);
  if (rest->size() > kLongestLine) rest->clear();
  return true;
}

}  // namespace

bool LogChunkLines::readNew(CApiTarnSyslogRead* reader, const Take& take) {
  CHUNK_USAGE usage = {};
  if (reader->getUsage(static_cast<short>(chunk_), &usage) != 0) return false;
  if (usage.freeAddr < position_) position_ = 0;  // used anew
  if (usage.freeAddr == position_) return true;   // an empty range is not opened
  if (reader->openChunk(0, static_cast<unsigned char>(chunk_)) != 0) return false;
  const bool good = readOn(reader, take);
  reader->close();
  return good;
}

bool LogChunkLines::readOn(CApiTarnSyslogRead* reader, const Take& take) {
  if (reader->seek(static_cast<long>(position_), SEEK_SET) < 0) return false;
  std::string bytes(kReadBytes, '\0');
  std::string rest;
  long got = 0;
  while ((got = reader->read(bytes.data(), static_cast<long>(kReadBytes))) > 0) {
    position_ += static_cast<uint32_t>(got);
    rest.append(bytes, 0, static_cast<size_t>(got));
    if (!takeLines(&rest, take)) return true;
  }
  if (!rest.empty()) take(rest);
  return got == 0;
}

}  // namespace tarn
