#pragma once

#include <cstdint>

class CTARNStreamChunk;
class CDbRestore;

namespace tarn {

// Walks the entries of an interrupted recording and finds how far it is intact: first in steps of
// 100 pictures, then, from the last good step on, picture by picture. Consecutive picture numbers
// are one recording; the time stamp in a picture's data shows that the data came with the entry.
// Both chunks are open and stay the caller's; the picture chunk stands behind the stream header.
class PictureWalk {
 public:
  struct Checkpoint {
    long position;      // of the entry behind it, in the picture chunk
    uint32_t index;     // of the picture, from 0
    uint32_t expected;  // its number
    uint32_t dataSize;  // bytes of all pictures up to it
    uint32_t gops;
  };

  PictureWalk(CTARNStreamChunk* picture, CTARNStreamChunk* stream, CDbRestore* restore)
      : picture_(picture), stream_(stream), restore_(restore) {}

  // limit: most entries; headerPosition: of the stream header; gops: from it; startDate: of the
  // row.
  void run(uint32_t limit, long headerPosition, uint32_t gops, uint32_t startDate);

  const Checkpoint& checkpoint() const { return checkpoint_; }
  uint32_t pictures() const { return index_; }  // index at which the walk ended
  uint32_t lastTime() const { return previous_; }

 private:
  static constexpr uint32_t kBlockSize = 4096;

  enum class Phase { kCoarse, kRetry, kFine };
  enum class Step { kGoOn, kMismatch, kStop };

  void beginFine();
  Step entry(uint32_t startDate);
  Step readEntry(const uint8_t** bytes);
  long positionBehindEntry();
  Step readTime(uint32_t dataOffset, uint32_t* time);
  uint32_t fitted(uint32_t time, uint32_t startDate) const;
  Step confirm(uint32_t stamp, uint32_t startDate);
  void advance();

  CTARNStreamChunk* picture_;
  CTARNStreamChunk* stream_;
  CDbRestore* restore_;
  Phase phase_ = Phase::kCoarse;
  Checkpoint checkpoint_{};
  uint32_t interval_ = 100;  // pictures
  uint32_t index_ = 0;
  uint32_t expected_ = 0;
  uint32_t dataSize_ = 0;
  uint32_t gops_ = 0;
  uint8_t block_[kBlockSize];  // entries that the device has given already
  uint32_t blockSize_ = 0;     // bytes of it
  uint32_t blockUsed_ = 0;
  uint32_t previous_ = 0;  // time of the last confirmed picture; 0: none
};

}  // namespace tarn
