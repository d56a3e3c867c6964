#pragma once

#include <array>
#include <bitset>
#include <cstdint>
#include <memory>

#include "base/Export.h"
#include "dblog/JournalFormat.h"

namespace tarn {

// What a look through a journal has read of it: records that both copies gave alike, each valid and
// in its place. The replay behind it takes them from here and asks the card for the others only, so
// that a start reads each copy once. Takes as much memory as it keeps, 12 MiB for a full journal;
// where there is none, records are not kept. Not part of the interface. Used by one thread; another
// one may read what lies in blocks that are not changed any more.
class TARN_API JournalBytes {
 public:
  static constexpr uint32_t kBlockBytes = 64 * 1024;  // what is taken of memory at once

  explicit JournalBytes(const JournalTraits& traits);
  ~JournalBytes();
  JournalBytes(const JournalBytes&) = delete;
  JournalBytes& operator=(const JournalBytes&) = delete;

  // The record at `position`, the place of one.
  void keep(uint32_t position, const uint8_t* record);
  // The card may hold something else there from now on.
  void forget(uint32_t position);
  // Null for a record that is not kept.
  const uint8_t* at(uint32_t position) const;
  // Bytes from `position` to the next record that is kept; at most `most`.
  uint32_t gapFrom(uint32_t position, uint32_t most) const;

 private:
  static_assert(kMaxJournalBytes % kBlockBytes == 0);

  struct Block {
    uint8_t bytes[kBlockBytes];
    std::bitset<kBlockBytes / kEventRecordSize> kept;  // the smaller records
  };

  const Block* blockOf(uint32_t position) const;
  uint32_t slot(uint32_t position) const { return position % kBlockBytes / traits_.recordSize; }

  const JournalTraits& traits_;
  std::array<std::unique_ptr<Block>, kMaxJournalBytes / kBlockBytes> blocks_;
};

}  // namespace tarn
