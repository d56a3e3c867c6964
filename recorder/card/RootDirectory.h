#pragma once

#include <cstdint>
#include <vector>

#include "recorder/card/FatTables.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {

// The root directory of a card, followed cluster by cluster as a PC does. It begins where the data
// region does. Not part of the interface.
class RootDirectory {
 public:
  // kGood; kBad when there is nothing where it should be, or when neither FAT says where it goes
  // on; kRefused. Reads no further than to the mark of its end.
  Delivery read(const CardBytes& card, const FatBoot& boot, FatTables* fat);

  const std::vector<DirectoryFile>& files() const { return files_; }
  const std::vector<uint8_t>& bytes() const { return bytes_; }
  uint32_t entries() const { return static_cast<uint32_t>(bytes_.size() / kDirEntryBytes); }
  // Where an entry lies on the card.
  uint64_t entryByte(uint32_t entry) const;
  // Where the last read failed.
  uint64_t failedByte() const { return failedByte_; }
  // Bytes of the card that it takes at its beginning, in one piece.
  uint64_t leadingBytes() const;

 private:
  Delivery readCluster(const CardBytes& card, int64_t sector);
  static Delivery follow(FatTables* fat, uint32_t cluster, uint32_t* next);
  bool endsHere() const;

  uint32_t clusterBytes_ = 0;
  std::vector<uint64_t> pieces_;  // where its clusters begin
  std::vector<uint8_t> bytes_;
  std::vector<DirectoryFile> files_;
  uint64_t failedByte_ = 0;
};

}  // namespace tarn
