#pragma once

#include <sys/types.h>

#include <array>
#include <bitset>
#include <unordered_map>

#include "CardOriginal.h"
#include "recorder/card/UndoFile.h"

namespace tarn {

// A card that can be written to while its original stays as it is: what is written is kept in
// memory, by sectors, and read from there; everything else is the original's. Used by one thread.
class OverlayPages {
 public:
  static constexpr uint32_t kPageBytes = 4096;
  static constexpr uint64_t kMostBytes = uint64_t{256} << 20;

  // `mostBytes` of memory at most for what is written. The original stays the caller's.
  explicit OverlayPages(CardOriginal* original, uint64_t mostBytes = kMostBytes);

  uint64_t size() const { return original_->size(); }
  // Bytes from `offset` on: fewer at the card's end, and in front of what the original refuses.
  // -EIO when it refuses the first of them.
  ssize_t read(uint64_t offset, void* out, size_t length);
  // All of it, or in part and then an error at the next call: as write() does. -ENOSPC behind the
  // card's end and when the memory is used up, -EIO where a part of a sector is written whose rest
  // the original refuses.
  ssize_t write(uint64_t offset, const void* data, size_t length);
  // Adds what was written and is not what the original has, with what that has, in the order of
  // places. What the original refuses is left out: nobody knows it.
  void collect(UndoFile* changes);
  // Whether a write failed because the memory is used up.
  bool isFull() const { return full_; }

 private:
  static constexpr uint32_t kSectors = kPageBytes / 512;
  struct Page {
    std::array<uint8_t, kPageBytes> bytes;
    std::bitset<kSectors> held;
  };

  bool readPage(uint64_t number, uint32_t from, uint32_t to, uint8_t* out);
  bool readClean(uint64_t offset, uint8_t* out, size_t length);
  size_t cleanBytes(uint64_t offset, size_t most) const;
  int writePage(uint64_t number, uint32_t from, uint32_t to, const uint8_t* data);
  bool fetchSector(uint64_t number, uint32_t sector, Page* page);

  CardOriginal* original_;
  const uint64_t mostPages_;
  std::unordered_map<uint64_t, Page> pages_;
  bool full_ = false;
};

}  // namespace tarn
