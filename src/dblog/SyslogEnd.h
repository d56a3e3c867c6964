#pragma once

#include <cstddef>
#include <cstdint>

#include "base/Export.h"

namespace tarn {

// Stands behind the newest line of a syslog chunk, outside the text: a time that is older than that
// of any line, so that the search for the end of the text stops exactly there.
inline constexpr char kSyslogMark[] = "1970-01-02T00:00:00\n";
// Stands for the mark at the very start of an empty chunk, where a time would begin a text.
inline constexpr char kSyslogEmpty[] = "- no line so far --\n";

// Finds where the newest text of a syslog chunk ends, as SyslogScan does, but passes over what is
// damaged: lines that begin with no time end the text only where nothing newer, and no mark, stands
// behind them. Fed block by block from the chunk's start.
class TARN_API SyslogEnd {
 public:
  // Looks at the next block, of kLogBlockBytes except at the chunk's end; text[length] must be
  // writable and is set to 0. False when the end is found, and freeOffset() is final.
  bool addBlock(char* text, size_t length);
  uint32_t freeOffset() const { return end_; }

 private:
  // So many blocks without a good line are the end; a bad sector spoils one.
  static constexpr int kMostBadBlocks = 4;
  enum class Line { kGood, kBad, kOlder, kRest };
  Line look(const char* text, size_t length);
  bool blockDone(uint32_t length);

  uint32_t position_ = 0;  // of the block
  uint32_t end_ = 0;       // of what is known to be text
  int32_t previous_ = 0;   // time of the last good line
  bool bad_ = false;       // what is behind end_ is no text, so far
  int badBlocks_ = 0;
};

}  // namespace tarn
