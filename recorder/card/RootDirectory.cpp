#include "recorder/card/RootDirectory.h"

#include <algorithm>

#include "recorder/card/CardLayout.h"

namespace tarn {
namespace {

constexpr uint64_t kMaxBytes = uint64_t{CardLayout::kMaxDirectoryEntries} * kDirEntryBytes;

}  // namespace

Delivery RootDirectory::read(const CardBytes& card, const FatBoot& boot, FatTables* fat) {
  clusterBytes_ = boot.clusterSectors * kSectorBytes;
  uint32_t cluster = boot.rootCluster;
  Delivery given = Delivery::kGood;
  while (given == Delivery::kGood) {
    given = readCluster(card, sectorOfCluster(boot, cluster));
    if (given != Delivery::kGood || endsHere()) break;
    uint32_t next = 0;
    given = follow(fat, cluster, &next);
    if (next == FatTables::kEnd) break;
    cluster = next;
  }
  files_ = decodeRootDirectory(bytes_.data(), bytes_.size());
  return given;
}

Delivery RootDirectory::readCluster(const CardBytes& card, int64_t sector) {
  if (sector < 0 || bytes_.size() >= kMaxBytes) return Delivery::kBad;
  const uint64_t byte = static_cast<uint64_t>(sector) * kSectorBytes;
  if (!card.holds(byte, clusterBytes_)) return Delivery::kBad;
  const size_t before = bytes_.size();
  bytes_.resize(before + clusterBytes_);
  if (!card.read(byte, bytes_.data() + before, clusterBytes_)) {
    bytes_.resize(before);
    failedByte_ = byte;
    return Delivery::kRefused;
  }
  pieces_.push_back(byte);
  return Delivery::kGood;
}

// Where the FATs disagree, the one that goes straight on is right more often than not; whoever
// relies on more finds the files missing.
Delivery RootDirectory::follow(FatTables* fat, uint32_t cluster, uint32_t* next) {
  Delivery answer = Delivery::kBad;
  for (uint32_t table = 0; table < fat->tables(); ++table) {
    uint32_t found = 0;
    const Delivery given = fat->next(table, cluster, &found);
    const bool leads = given == Delivery::kGood && (found == FatTables::kEnd || found > 1);
    if (leads && (answer != Delivery::kGood || found == cluster + 1)) *next = found;
    if (leads) answer = Delivery::kGood;
    if (answer != Delivery::kGood && given == Delivery::kRefused) answer = given;
  }
  return answer;
}

bool RootDirectory::endsHere() const {
  for (size_t at = bytes_.size() - clusterBytes_; at < bytes_.size(); at += kDirEntryBytes) {
    if (bytes_[at] == 0) return true;
  }
  return false;
}

uint64_t RootDirectory::entryByte(uint32_t entry) const {
  const uint64_t at = uint64_t{entry} * kDirEntryBytes;
  return pieces_[static_cast<size_t>(at / clusterBytes_)] + at % clusterBytes_;
}

uint64_t RootDirectory::leadingBytes() const {
  size_t pieces = 0;
  while (pieces < pieces_.size() && pieces_[pieces] == pieces_[0] + pieces * clusterBytes_) {
    ++pieces;
  }
  return uint64_t{pieces} * clusterBytes_;
}

}  // namespace tarn
