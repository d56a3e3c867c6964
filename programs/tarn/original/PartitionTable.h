#pragma once

#include <cstdint>
#include <vector>

#include "CardOriginal.h"

namespace tarn {

// The partitions of a whole device, by an MBR (with its logical ones) or a GPT.
class PartitionTable {
 public:
  struct Partition {
    int number;  // as the kernel counts them: 1 to 4, logical ones from 5 on; with a GPT its place
    uint64_t firstByte;
    uint64_t bytes;
  };
  enum class Kind { kNone, kMbr, kGpt };

  // Of what lies on the device alone; entries that lead out of it or hold nothing are passed over.
  static PartitionTable read(CardOriginal* device);

  Kind kind() const { return kind_; }
  const std::vector<Partition>& partitions() const { return partitions_; }

 private:
  bool readGpt(CardOriginal* device);
  bool readMbr(CardOriginal* device);
  void readLogical(CardOriginal* device, uint64_t extended);
  bool add(int number, uint64_t firstSector, uint64_t sectors);

  Kind kind_ = Kind::kNone;
  uint64_t deviceBytes_ = 0;
  std::vector<Partition> partitions_;
};

}  // namespace tarn
