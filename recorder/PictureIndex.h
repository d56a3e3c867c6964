#pragma once

#include <cstdint>
#include <vector>

#include "chunk/CTARNStreamChunk.h"
#include "db/DbRecords.h"
#include "recorder/RecordFormat.h"

namespace tarn {

// Header and entries of one recording as they lie in its picture chunk, good or bad, for whoever
// judges them. Needs no server. Not part of the interface. Used by one thread.
class PictureIndex {
 public:
  enum class Read {
    kGood,
    kBad,         // the card gives something else
    kUnreadable,  // the card gives nothing; it may do so later, so nothing may be concluded
  };

  // Opens the row's chunk. A row that the card has no place for is not open, and `placeless`.
  explicit PictureIndex(const DB_STREAM& row);

  bool isOpen() const { return pictureSize_ != 0; }
  bool isPlaceless() const { return placeless_; }
  uint32_t streamSize() const { return streamSize_; }
  // Entries that a recording can have at most.
  uint32_t capacity() const { return pictureSize_ / kRecordSize - 1; }

  // Good: right sum, known version, data inside the stream chunk. The fields are filled in unless
  // it is unreadable.
  Read header(StreamHeader* out);
  // Good: right CRC, the row's key, data inside the stream chunk.
  Read entry(uint32_t index, PictureEntry* out);

 private:
  Read readAt(uint32_t offset, uint8_t* out, uint32_t length);
  bool load(uint32_t firstIndex);

  const DB_STREAM row_;
  CTARNStreamChunk pictures_{0};
  bool placeless_ = false;
  uint32_t pictureSize_ = 0;
  uint32_t streamSize_ = 0;
  uint32_t blockFirst_ = 0;  // index of the first entry in block_
  uint32_t blockCount_ = 0;
  std::vector<uint8_t> block_;
};

}  // namespace tarn
