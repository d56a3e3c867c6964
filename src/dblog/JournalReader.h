#pragma once

#include <cstdint>

#include "dblog/JournalBytes.h"
#include "dblog/JournalFormat.h"
#include "fat/CFATAccess.h"

namespace tarn {

// Reads a journal from its first record on, one record a call, as judgeJournalCopies() takes it
// from the two copies. Both are read in large blocks, the mirror only where the original alone does
// not tell; a record of a block that the device did not deliver is asked for by itself, a few times
// where neither copy comes. What has been read of the journal before is not read again. Not part of
// the interface. Used by one thread.
class JournalReader {
 public:
  enum class Result {
    kRecord,   // record() is valid
    kBad,      // neither copy is; record() holds what one of them has
    kErased,   // the journal's end: both copies are erased here, or one beside a refused one, and
               // no record follows
    kRefused,  // the device does not give it; nothing is known about this place and those behind it
    kEnd,      // the chunk has no room for another record; record() is not changed
  };

  // `chunk` is the original's, its mirror's the next one. chunkSize in bytes, of both. `before`,
  // where given, outlives this.
  JournalReader(const JournalTraits& traits, short chunk, uint32_t chunkSize,
                const JournalBytes* before = nullptr);
  ~JournalReader();
  JournalReader(const JournalReader&) = delete;
  JournalReader& operator=(const JournalReader&) = delete;

  // Reads the record at position() into record().
  Result read();
  const uint8_t* record() const { return record_; }
  uint32_t position() const { return position_; }
  // Goes on to the next record, whatever became of this one.
  void advance() { position_ += traits_.recordSize; }

 private:
  static constexpr uint32_t kBlockSize = 64 * 1024;
  static constexpr uint32_t kLeastSize = 4 * 1024;  // of a read between records known before

  // One copy.
  struct Side {
    CFATAccess fat;
    int handle = -1;
    uint32_t start = 0;
    uint32_t length = 0;  // bytes that were asked for
    bool good = false;    // and came
    uint8_t single[kStreamRecordSize];
    uint8_t block[kBlockSize];
  };

  void open(Side* side, short chunk);
  bool readSide(Side* side, uint32_t position, void* out, uint32_t length);
  uint32_t lengthToRead() const;
  const uint8_t* at(Side* side);
  JournalCopy judge();
  bool endsHere();

  const JournalTraits& traits_;
  const uint32_t chunkSize_;
  const JournalBytes* const before_;
  uint32_t position_ = 0;
  const uint8_t* record_;
  Side original_;
  Side mirror_;
};

}  // namespace tarn
