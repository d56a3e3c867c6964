#include "recorder/log/LogLines.h"

#include "api/CApiTarnSyslogRead.h"
#include "chunk/LogChunks.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNSyslogManager.h"
#include "recorder/log/LogChunkLines.h"

namespace tarn {
namespace {

// The reader complains on standard output, so it is asked only where a server answers.
bool serverAnswers() {
  CTARNSyslogManager manager(kRecorderPartition);
  const bool answers = manager.openManageData() == 0;
  manager.closeManageData();
  return answers;
}

}  // namespace

bool readLogLines(const std::function<void(const std::string& line)>& take) {
  if (!serverAnswers()) return false;
  CApiTarnSyslogRead reader;
  const int active = reader.getActiveChunk(0);
  if (active < 0 || active >= kLogChunks) return false;
  // From the oldest chunk, the one that is written next, to the active one.
  LogChunkLines lines;
  for (int i = 1; i <= kLogChunks; ++i) {
    lines.start((active + i) % kLogChunks);
    const bool read = lines.readNew(&reader, [&](const std::string& line) {
      take(line);
      return true;
    });
    if (!read) return false;
  }
  return true;
}

}  // namespace tarn
