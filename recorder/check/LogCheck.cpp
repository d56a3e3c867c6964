// The system log: its text, and where it ends.
#include <algorithm>
#include <cstring>

#include "chunk/LogChunks.h"
#include "dblog/SyslogEnd.h"
#include "recorder/check/CardContents.h"
#include "recorder/log/LogFormat.h"

namespace tarn {
namespace {

class LogCheck {
 public:
  explicit LogCheck(CardContents* contents) : contents_(contents), card_(contents->card) {}

  void run() {
    const std::vector<CHUNK_MANAGE>& records = card_.info().management(kFileSyslogManage).records;
    size_ = card_.family(kFileSyslog).chunkSize;
    const uint32_t chunks = std::min<uint32_t>(kLogChunks, card_.family(kFileSyslog).chunks);
    if (records.empty()) return;  // told with the management files
    const int active = records[0].chType;
    if (active < 0 || static_cast<uint32_t>(active) >= chunks) {
      say(0, "the number of the chunk being written, " + std::to_string(active) +
                 ", is not one of the log's");
    } else {
      checkEnd(static_cast<uint32_t>(active),
               records[static_cast<size_t>(active)].streamFreeOffset);
    }
    for (uint32_t chunk = 0; chunk < chunks && chunk < records.size(); ++chunk) {
      checkText(chunk, std::min(records[chunk].streamFreeOffset, size_));
    }
  }

 private:
  void say(uint32_t chunk, const std::string& text) {
    CardFinding finding;
    finding.kind = FindingKind::kLog;
    finding.chunk = static_cast<int32_t>(chunk);
    finding.text = "system log: " + text;
    contents_->findings.add(finding);
  }

  // Where a recovery would see the end.
  void checkEnd(uint32_t chunk, uint32_t free) {
    SyslogEnd scan;
    char block[kLogBlockBytes + 1];
    for (uint32_t at = 0; at < size_;) {
      const uint32_t length = std::min(kLogBlockBytes, size_ - at);
      if (!card_.readChunk(kFileSyslog, chunk, at, block, length) ||
          !scan.addBlock(block, length)) {
        break;
      }
      at += length;
    }
    const uint32_t end = scan.freeOffset() == size_ ? 0 : scan.freeOffset();
    if (end == free) return;
    say(chunk, "the text of chunk " + std::to_string(chunk) + " ends at byte " +
                   std::to_string(end) + ", the management file says " + std::to_string(free));
  }

  // Lines do not straddle blocks, so a damaged block concerns no other.
  void checkText(uint32_t chunk, uint32_t end) {
    uint32_t damaged = 0;
    uint32_t missing = 0;
    std::string block;
    for (uint32_t at = 0; at < end; at += kLogBlockBytes) {
      block.resize(std::min(kLogBlockBytes, end - at));
      if (!card_.readChunk(kFileSyslog, chunk, at, block.data(), block.size())) {
        ++missing;
      } else {
        damaged += damagedLines(block);
      }
    }
    const std::string place = " of chunk " + std::to_string(chunk);
    if (damaged != 0) say(chunk, std::to_string(damaged) + " lines" + place + " have no time");
    if (missing == 0) return;
    CardFinding finding;
    finding.kind = FindingKind::kUnreadable;
    finding.chunk = static_cast<int32_t>(chunk);
    finding.text = "system log: " + std::to_string(missing) + " blocks" + place + " cannot be read";
    contents_->findings.add(finding);
  }

  static uint32_t damagedLines(const std::string& block) {
    uint32_t damaged = 0;
    for (size_t start = 0; start < block.size();) {
      const size_t feed = std::min(block.find('\n', start), block.size());
      const std::string_view line = std::string_view(block).substr(start, feed - start);
      const bool blank = line.find_first_not_of(' ') == std::string_view::npos;
      if (!blank && logStampSeconds(line) == -1) ++damaged;
      start = feed + 1;
    }
    return damaged;
  }

  CardContents* contents_;
  const CardReader& card_;
  uint32_t size_ = 0;
};

}  // namespace

void checkLog(CardContents* contents) { LogCheck(contents).run(); }

}  // namespace tarn
