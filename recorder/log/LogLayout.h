#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "base/Export.h"

namespace tarn {

// Where lines lie in a syslog chunk. Behind each line there is room for the mark (LogMark.h) in
// the same sector, so that the mark is always written whole or not at all, and no line straddles a
// block: blanks at a line's end fill what is too little, a line of a stamp and blanks what is left
// of a block. A chunk is never filled to its end: a free offset there would be kept as 0.
//
// A pure function of the calls made; touches no card.
class TARN_API LogLayout {
 public:
  explicit LogLayout(uint32_t chunkBytes = 0) : chunkBytes_(chunkBytes) {}

  // Goes on at `position`, behind a line that is stamped `lastStamp` (empty at a chunk's start).
  void restart(uint32_t position, std::string_view lastStamp);
  // True for a position at which the mark may stand.
  static bool takesMark(uint32_t position, uint32_t chunkBytes);

  // Adds to *out what has to be written at position() for a line of this text (one piece of
  // logSplitText()) and moves the position behind it. False when the chunk has no room for it;
  // nothing has changed then.
  bool add(std::string_view text, int64_t seconds, std::string* out);

  uint32_t position() const { return position_; }

 private:
  std::string fill(uint32_t left) const;

  uint32_t chunkBytes_;
  uint32_t position_ = 0;
  std::string lastStamp_;
};

}  // namespace tarn
