#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "base/UniqueFd.h"
#include "recorder/card/CardInfo.h"

namespace tarn {

// A card that is read and never written. Not part of the interface. Used by one thread.
class CardReader {
 public:
  // 0, or -1 with the reason in *error.
  int open(const std::string& path, std::string* error);

  const CardInfo& info() const { return info_; }
  const CardFamily& family(int fileType) const { return info_.family(fileType); }
  // False when the device does not give all of it.
  bool read(uint64_t offset, void* out, size_t length) const;
  // The same inside a chunk, as in a ring: what lies behind its end is read from its start. False
  // also for a place outside the chunk and for more than the chunk.
  bool readChunk(int fileType, uint32_t chunk, uint32_t offset, void* out, size_t length) const;

 private:
  UniqueFd fd_;
  CardInfo info_;
};

// A range of a card, read in blocks, for whoever walks it from its start to its end.
class BlockReader {
 public:
  BlockReader(const CardReader& card, uint64_t start, uint64_t length)
      : card_(card), start_(start), length_(length) {}
  // `length` bytes (few) at `offset` of the range; null when the device does not give them.
  const uint8_t* at(uint64_t offset, size_t length);

 private:
  static constexpr uint32_t kBlockBytes = 64 * 1024;

  const CardReader& card_;
  const uint64_t start_;
  const uint64_t length_;
  std::vector<uint8_t> block_;
  uint64_t blockStart_ = 0;
};

}  // namespace tarn
