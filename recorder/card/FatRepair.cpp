#include "recorder/card/FatRepair.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <utility>

#include "base/Endian.h"
#include "recorder/card/FatTables.h"

namespace tarn {
namespace {

constexpr uint32_t kMediaEntry = 0x0FFFFFF8;
constexpr uint32_t kUnknown = 0xFFFFFFFE;  // an entry of the FAT of which nothing can be said
constexpr uint64_t kBlockBytes = 64 * 1024;

bool means(uint32_t entry, uint32_t wanted) {
  entry &= kFatEntryMask;
  return wanted == FatTables::kEnd ? entry >= kFatChainEndLeast : entry == wanted;
}

}  // namespace

FatRepair::FatRepair(const CardMap& map, RepairSteps* steps)
    : map_(map),
      steps_(steps),
      fatBytes_(uint64_t{map.boot.fat32Size} * kSectorBytes),
      start_(uint64_t{map.boot.reservedSectors} * kSectorBytes) {}

// Whether an entry is one that a PC writes: free, a cluster that there is, or an end.
bool FatRepair::isLink(uint32_t entry) const {
  return entry == 0 || (entry >= kFatChainEndLeast && entry <= kFatEntryMask) ||
         (entry >= 2 && entry < fatBytes_ / 4);
}

// What follows a cluster, if that is known.
uint32_t FatRepair::expected(uint64_t cluster) const {
  if (cluster == 0) return kMediaEntry;
  auto chains =
      std::upper_bound(chains_.begin(), chains_.end(), cluster,
                       [](uint64_t wanted, const Chains& one) { return wanted < one.first; });
  if (chains == chains_.begin() || cluster >= (--chains)->last) return kUnknown;
  const uint64_t inFile = (cluster - chains->first) % chains->perFile;
  return inFile + 1 == chains->perFile ? FatTables::kEnd : static_cast<uint32_t>(cluster + 1);
}

void FatRepair::listChains() {
  const uint64_t clusterBytes = map_.clusterBytes();
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamily& family = map_.families[static_cast<size_t>(type)];
    const bool odd = type == kFileInfo && static_cast<int64_t>(family.startByte()) != map_.infoByte;
    if (odd || family.startByte() < map_.dataByte() || family.chunkSize == 0) continue;
    const uint64_t perFile = (family.chunkSize + clusterBytes - 1) / clusterBytes;
    const uint64_t first = map_.clusterOfByte(family.startByte());
    chains_.push_back({first, first + perFile * family.chunks, perFile});
  }
  std::sort(chains_.begin(), chains_.end(),
            [](const Chains& a, const Chains& b) { return a.first < b.first; });
}

bool FatRepair::readBlocks(uint64_t at, size_t length, Bytes* blocks) const {
  for (const uint32_t table : {0u, 1u}) {
    blocks[table].resize(length);
    if (!steps_->card().read(start_ + table * fatBytes_ + at, blocks[table].data(), length))
      return false;
  }
  return true;
}

void FatRepair::mendBlock(uint64_t at, Bytes* blocks) {
  for (size_t sector = 0; sector < blocks[0].size(); sector += kSectorBytes) {
    mendSector(static_cast<uint32_t>((at + sector) / 4), blocks[0].data() + sector,
               blocks[1].data() + sector, start_ + at + sector);
  }
}

void FatRepair::mendSector(uint32_t first, uint8_t* one, const uint8_t* other, uint64_t byte) {
  bool wrong[2] = {false, false};
  for (uint32_t i = 0; i < kSectorBytes / 4; ++i) {
    const uint32_t a = getLe32(one + i * 4);
    const uint32_t b = getLe32(other + i * 4);
    if (a == b) continue;
    const uint32_t wanted = expected(uint64_t{first} + i);
    if (wanted == kUnknown || means(a, wanted) == means(b, wanted)) continue;
    wrong[means(a, wanted) ? 1 : 0] = true;
  }
  if (wrong[0] && !wrong[1]) changes_[0][byte] = mended(first, one, other);
  if (wrong[1] && !wrong[0]) changes_[1][byte + fatBytes_] = mended(first, other, one);
  if (!wrong[0] || !wrong[1]) return;
  mixSectors(first, one, other);
  changes_[0][byte] = Bytes(one, one + kSectorBytes);
  changes_[1][byte + fatBytes_] = Bytes(one, one + kSectorBytes);
}

// Of the rest of a damaged sector nothing is known but that its twin is good. Where only some of it
// is damaged it may have links of a PC's files that the PC did not get to write twice.
FatRepair::Bytes FatRepair::mended(uint32_t first, const uint8_t* damaged,
                                   const uint8_t* good) const {
  Bytes sector(good, good + kSectorBytes);
  for (uint32_t i = 0; i < kSectorBytes / 4; ++i) {
    const uint32_t was = getLe32(damaged + i * 4);
    const uint32_t is = getLe32(good + i * 4);
    if (was == is || expected(uint64_t{first} + i) != kUnknown) continue;
    if (first + i == 1 ? ((was ^ is) & ~kFatStateMarks) != 0 : !isLink(was))
      return Bytes(good, good + kSectorBytes);
    if (first + i == 1 || is == 0) putLe32(sector.data() + i * 4, was);
  }
  return sector;
}

// Both are damaged, in different entries: `one` gets the good ones of each.
void FatRepair::mixSectors(uint32_t first, uint8_t* one, const uint8_t* other) const {
  for (uint32_t i = 0; i < kSectorBytes / 4; ++i) {
    const uint32_t wanted = expected(uint64_t{first} + i);
    if (wanted == kUnknown || means(getLe32(one + i * 4), wanted)) continue;
    memcpy(one + i * 4, other + i * 4, 4);
  }
}

void FatRepair::addSteps() {
  for (int table : {0, 1}) {
    if (changes_[table].empty()) continue;
    const size_t sectors = changes_[table].size();
    steps_->add("FAT " + std::to_string(table + 1) + " gets " + std::to_string(sectors) +
                    (sectors == 1 ? " sector" : " sectors") + " from its twin",
                std::move(changes_[table]));
  }
}

void FatRepair::plan() {
  if (map_.boot.fatCount < 2) return;
  listChains();
  Bytes blocks[2];
  for (uint64_t at = 0; at < fatBytes_; at += kBlockBytes) {
    const auto length = static_cast<size_t>(std::min(kBlockBytes, fatBytes_ - at));
    // What is refused is left alone.
    if (readBlocks(at, length, blocks) && blocks[0] != blocks[1]) mendBlock(at, blocks);
  }
  addSteps();
}

}  // namespace tarn
