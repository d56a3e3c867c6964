#pragma once

#include <cstddef>
#include <cstdint>

#include "base/Export.h"
#include "chunk/LogChunks.h"

namespace tarn {

// Finds where the newest text of a syslog chunk ends: lines begin with a local time that never goes
// back; text that does is older and was not overwritten yet. Fed block by block from the chunk's
// start. Lines do not straddle blocks: the log writer pads before the boundary.
class TARN_API SyslogScan {
 public:
  static constexpr size_t kBlockSize = kLogBlockBytes;

  // Looks at the next block; text[length] must be writable and is set to 0. False when the scan
  // has ended, and freeOffset() is final.
  bool addBlock(char* text, size_t length);
  uint32_t freeOffset() const { return freeOffset_; }

 private:
  enum class Line { kGood, kBlockEnds, kScanEnds };
  Line line(const char* text, size_t start, size_t length, bool first);

  uint32_t freeOffset_ = 0;
  int32_t previous_ = 0;  // time of the line before
};

}  // namespace tarn
