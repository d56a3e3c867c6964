#pragma once

#include <cstdint>
#include <vector>

#include "fat/FatFormat.h"
#include "recorder/card/CardBytes.h"
#include "recorder/card/Source.h"

namespace tarn {

// The FATs of a card, read in blocks: up to two, of which either may be damaged. Not part of the
// interface. The bytes stay the caller's and outlive this.
class FatTables {
 public:
  static constexpr uint32_t kEnd = 0xFFFFFFFF;  // stands for every mark that ends a chain

  FatTables(const CardBytes& card, const FatBoot& boot);

  uint32_t tables() const { return tables_; }
  // Clusters that the FAT has entries for, the two in front that are none included.
  uint32_t entries() const { return entries_; }
  uint64_t entryByte(uint32_t table, uint32_t cluster) const;

  // What follows a cluster in one of the tables: kGood, or kRefused.
  Delivery next(uint32_t table, uint32_t cluster, uint32_t* next);
  // Whether `wanted` follows a cluster in either table. kRefused when one that could say so did not
  // answer.
  Delivery leadsTo(uint32_t cluster, uint32_t wanted);
  // Whether `clusters` from `first` on are one piece in order, each link in either table. *broken
  // is the cluster where they are not.
  Delivery isOnePiece(uint32_t first, uint32_t clusters, uint32_t* broken);

 private:
  static constexpr uint32_t kBlockBytes = 64 * 1024;

  struct Block {
    uint64_t start = UINT64_MAX;
    std::vector<uint8_t> bytes;
  };

  const uint8_t* at(uint32_t table, uint64_t byte);

  const CardBytes* card_;
  FatBoot boot_;
  uint32_t tables_ = 0;
  uint32_t entries_ = 0;
  Block blocks_[2];
};

}  // namespace tarn
