#pragma once

#include <cstdint>

#include "dblog/JournalFormat.h"
#include "fat/CFATAccess.h"

class CTARNMirroredChunk;

namespace tarn {

// Reads a journal from its first record on, one record a call, each as the mirrored pair would give
// it. The original is read in large blocks; only a record that is not valid there, or lies in a
// block that the device did not deliver, is asked of the pair, which knows the mirror. Not part of
// the interface. Used by one thread.
class JournalReader {
 public:
  enum class Result {
    kRecord,  // record() is valid
    kBad,     // neither copy is; record() holds what was read last, zeros where nothing was
    kEnd,     // the chunk has no room for another record; record() is not changed
  };

  // pair: opened for reading the whole of `chunk`, whose size is chunkSize, and of its mirror.
  JournalReader(CTARNMirroredChunk* pair, const JournalTraits& traits, short chunk,
                uint32_t chunkSize);
  ~JournalReader();
  JournalReader(const JournalReader&) = delete;
  JournalReader& operator=(const JournalReader&) = delete;

  // Reads the record at position() into record().
  Result read();
  const uint8_t* record() const { return record_; }
  uint32_t position() const { return position_; }
  // Goes on to the next record, whatever became of this one.
  void advance();

 private:
  static constexpr uint32_t kBlockSize = 64 * 1024;

  bool inBlock() const;
  void loadBlock();
  Result readPair();

  CTARNMirroredChunk* pair_;
  const JournalTraits& traits_;
  const uint32_t chunkSize_;
  uint32_t position_ = 0;
  CFATAccess fat_;
  int handle_;
  uint32_t blockStart_ = 0;
  uint32_t blockLength_ = 0;  // bytes that were asked for
  bool blockGood_ = false;    // and came
  const uint8_t* record_;
  uint8_t single_[kStreamRecordSize];
  uint8_t block_[kBlockSize];
};

}  // namespace tarn
