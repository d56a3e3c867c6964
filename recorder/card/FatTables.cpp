#include "recorder/card/FatTables.h"

#include <algorithm>

#include "base/Endian.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {
namespace {

constexpr uint32_t kEntryBytes = 4;

}  // namespace

FatTables::FatTables(const CardBytes& card, const FatBoot& boot) : card_(&card), boot_(boot) {
  tables_ = std::min<uint32_t>(boot.fatCount, 2);
  const uint64_t entries = uint64_t{boot.fat32Size} * kSectorBytes / kEntryBytes;
  entries_ = static_cast<uint32_t>(std::min<uint64_t>(entries, kFatEntryMask));
}

uint64_t FatTables::entryByte(uint32_t table, uint32_t cluster) const {
  const uint64_t sector = boot_.reservedSectors + uint64_t{table} * boot_.fat32Size;
  return sector * kSectorBytes + uint64_t{cluster} * kEntryBytes;
}

// A block that begins at the entry asked for; around a bad sector only the entry itself.
const uint8_t* FatTables::at(uint32_t table, uint64_t byte) {
  Block& block = blocks_[table];
  const bool inBlock =
      byte >= block.start && byte - block.start + kEntryBytes <= block.bytes.size();
  if (!inBlock) {
    const uint64_t end = entryByte(table, entries_);
    const uint64_t start = byte / kSectorBytes * kSectorBytes;
    block.start = start;
    block.bytes.resize(static_cast<size_t>(std::min<uint64_t>(kBlockBytes, end - start)));
    if (!card_->read(start, block.bytes.data(), block.bytes.size())) {
      block.start = byte;
      block.bytes.resize(kEntryBytes);
      if (!card_->read(byte, block.bytes.data(), kEntryBytes)) {
        block.start = UINT64_MAX;
        return nullptr;
      }
    }
  }
  return block.bytes.data() + static_cast<size_t>(byte - block.start);
}

Delivery FatTables::next(uint32_t table, uint32_t cluster, uint32_t* next) {
  if (table >= tables_ || cluster >= entries_) return Delivery::kBad;
  const uint8_t* entry = at(table, entryByte(table, cluster));
  if (entry == nullptr) return Delivery::kRefused;
  const uint32_t value = getLe32(entry) & kFatEntryMask;
  *next = value >= kFatChainEndLeast ? kEnd : value;
  return Delivery::kGood;
}

Delivery FatTables::leadsTo(uint32_t cluster, uint32_t wanted) {
  Delivery answer = Delivery::kBad;
  for (uint32_t table = 0; table < tables_; ++table) {
    uint32_t found = 0;
    const Delivery given = next(table, cluster, &found);
    if (given == Delivery::kGood && found == wanted) return Delivery::kGood;
    if (given == Delivery::kRefused) answer = Delivery::kRefused;
  }
  return answer;
}

Delivery FatTables::isOnePiece(uint32_t first, uint32_t clusters, uint32_t* broken) {
  for (uint32_t i = 0; i < clusters; ++i) {
    *broken = first + i;
    const Delivery link = leadsTo(*broken, i + 1 < clusters ? *broken + 1 : kEnd);
    if (link != Delivery::kGood) return link;
  }
  return Delivery::kGood;
}

}  // namespace tarn
