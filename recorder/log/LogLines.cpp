#include "recorder/log/LogLines.h"

#include "api/CApiTarnSyslogRead.h"
#include "chunk/LogChunks.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNSyslogManager.h"

namespace tarn {
namespace {

constexpr size_t kReadBytes = 64 * 1024;
// No line of the log is longer; what has no line feed for so long is none.
constexpr size_t kLongestLine = 64 * 1024;

using TakeLine = std::function<void(const std::string&)>;

// What is left behind the last line feed stays in *rest.
void takeLines(std::string* rest, const TakeLine& take) {
  size_t start = 0;
  for (size_t feed; (feed = rest->find('\n', start)) != std::string::npos; start = feed + 1)
    take(rest->substr(start, feed - start));
  rest->erase(0, start);
  if (rest->size() > kLongestLine) rest->clear();
}

bool readChunk(CApiTarnSyslogRead* reader, int chunk, const TakeLine& take) {
  CHUNK_USAGE usage = {};
  if (reader->getUsage(static_cast<short>(chunk), &usage) != 0) return false;
  if (usage.freeAddr == 0) return true;  // an empty range is not opened
  if (reader->openChunk(0, static_cast<unsigned char>(chunk)) != 0) return false;
  std::string bytes(kReadBytes, '\0');
  std::string rest;
  long got = 0;
  while ((got = reader->read(bytes.data(), kReadBytes)) > 0) {
    rest.append(bytes, 0, static_cast<size_t>(got));
    takeLines(&rest, take);
  }
  reader->close();
  return got == 0;
}

// The reader complains on standard output, so it is asked only where a server answers.
bool serverAnswers() {
  CTARNSyslogManager manager(kRecorderPartition);
  const bool answers = manager.openManageData() == 0;
  manager.closeManageData();
  return answers;
}

}  // namespace

bool readLogLines(const TakeLine& take) {
  if (!serverAnswers()) return false;
  CApiTarnSyslogRead reader;
  const int active = reader.getActiveChunk(0);
  if (active < 0 || active >= kLogChunks) return false;
  // From the oldest chunk, the one that is written next, to the active one.
  for (int i = 1; i <= kLogChunks; ++i) {
    if (!readChunk(&reader, (active + i) % kLogChunks, take)) return false;
  }
  return true;
}

}  // namespace tarn
