#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "recorder/card/Source.h"
#include "recorder/recording/RecordFormat.h"

namespace tarn {

// Bytes of a ring from one place to another.
inline uint32_t ringDistance(uint32_t from, uint32_t to, uint32_t ringSize) {
  return to >= from ? to - from : ringSize - from + to;
}

// Header and entries of one recording as they lie in its picture chunk: the one judge of both, for
// readers, for the repair and for the check. Reads ahead in blocks; where the device refuses one,
// sector by sector, so that only what a bad sector holds is refused. Needs no server. Not part of
// the interface. Used by one thread.
class TARN_API RecordingIndex {
 public:
  // Of the recorder's own card: opens the row's picture chunk.
  explicit RecordingIndex(const DB_STREAM& row);
  // In a chunk that the caller has opened and that outlives this; `streamSize` bytes are in its
  // stream chunk.
  RecordingIndex(const DB_STREAM& row, Source* pictures, uint32_t streamSize);

  // False of a chunk that cannot be opened, and of a row that the card has no place for: the latter
  // is `placeless`, and no retry will help.
  bool isOpen() const { return pictures_ != nullptr; }
  bool isPlaceless() const { return placeless_; }
  uint32_t streamSize() const { return streamSize_; }
  // Entries that a recording can have at most.
  uint32_t capacity() const;

  // Good: right sum, known version and marker, data inside the stream chunk. The fields are filled
  // in unless it is refused.
  Delivery header(StreamHeader* out);
  // Good: right CRC, the row's key, data inside the stream chunk. Numbers are the caller's to
  // compare: kBad is also what lies behind the last entry, and what a recording of before left.
  Delivery entry(uint32_t index, PictureEntry* out);
  // Number of the first picture, told by the entries alone: of the first good one, as first numbers
  // are multiples of a step. 0 without one that fits, or when the device gives none.
  uint32_t firstNumber();
  // Whether the slot of an entry holds a whole record of another recording: nothing of this one has
  // ever been there.
  bool isForeign(uint32_t index);
  // Whether the slot of an entry holds what no recorder leaves there, written or not: no whole
  // record, and not the zeros or 0xFF of a place that nobody has used yet.
  bool isMangled(uint32_t index);
  // Whether the slot of an entry is one that nobody has used yet, as far as it tells.
  bool isBlank(uint32_t index);
  // Whether the slot of `index` lies in front of that of `other` in the chunk.
  bool liesBefore(uint32_t index, uint32_t other) const {
    return isOpen() && slotOf(index) < slotOf(other);
  }
  // Whether the slot of an entry is the first one of a sector: those in front of it in the same
  // sector reach the card with it or not at all.
  bool beginsSector(uint32_t index) const { return isOpen() && slotOf(index) % kSector == 0; }
  // Forgets what was read ahead and what was refused, because a writer goes on meanwhile.
  void forget();

  static constexpr uint32_t kBlock = 4096;  // read at once

 private:
  static constexpr uint32_t kSector = 512;

  void place();
  uint32_t slotOf(uint32_t index) const;
  Delivery load(uint32_t offset);
  Delivery record(uint32_t offset, const uint8_t** bytes);
  // Of an entry's slot; null when there is none or it is refused.
  const uint8_t* slot(uint32_t index);

  const DB_STREAM row_;
  std::unique_ptr<ChunkSource> own_;
  Source* pictures_ = nullptr;
  uint32_t streamSize_ = 0;
  bool placeless_ = false;
  uint32_t blockAt_ = 0;  // offset in the chunk
  bool loaded_ = false;
  Delivery sectors_[kBlock / kSector] = {};
  std::vector<uint8_t> block_;
};

}  // namespace tarn
