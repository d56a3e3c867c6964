#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "recorder/card/CardMap.h"
#include "recorder/card/RepairSteps.h"

namespace tarn {

// Mends each of the two FATs from the other, where the info file says which of them is right. Used
// by one thread.
class FatRepair {
 public:
  // The map, which is what the info file says, and the steps outlive this.
  FatRepair(const CardMap& map, RepairSteps* steps);

  // Plans what is to be done. Entries that are wrong in one table and right in the other are
  // mended; where both are wrong the chain may well lead elsewhere, and a look at the whole says
  // so.
  void plan();

 private:
  using Bytes = std::vector<uint8_t>;
  // Clusters of files of one size, back to back.
  struct Chains {
    uint64_t first = 0;
    uint64_t last = 0;  // behind the last one
    uint64_t perFile = 1;
  };

  void listChains();
  uint32_t expected(uint64_t cluster) const;
  bool readBlocks(uint64_t at, size_t length, Bytes* blocks) const;
  void mendBlock(uint64_t at, Bytes* blocks);
  void mendSector(uint32_t first, uint8_t* one, const uint8_t* other, uint64_t byte);
  bool isLink(uint32_t entry) const;
  Bytes mended(uint32_t first, const uint8_t* damaged, const uint8_t* good) const;
  void mixSectors(uint32_t first, uint8_t* one, const uint8_t* other) const;
  void addSteps();

  const CardMap& map_;
  RepairSteps* steps_;
  const uint64_t fatBytes_;  // of each table
  const uint64_t start_;     // of the first
  std::vector<Chains> chains_;
  CardRepair::Changes changes_[2];
};

}  // namespace tarn
