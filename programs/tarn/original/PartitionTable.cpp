#include "PartitionTable.h"

#include <algorithm>
#include <cstring>

#include "base/Endian.h"
#include "fat/FatFormat.h"

namespace tarn {
namespace {

// MBR, and each record of a chain of logical partitions    off size
constexpr uint32_t kMbrEntriesOff = 446;  // 446 16 × 4
constexpr uint32_t kMbrEntryBytes = 16;
constexpr uint32_t kMbrSignatureOff = 510;  // 510  2  0x55 0xAA
constexpr uint16_t kMbrSignature = 0xAA55;
constexpr uint32_t kMbrEntries = 4;
// One of its entries                                       off size
constexpr uint32_t kEntryStatusOff = 0;    //   0  1  0x80 bootable, 0 not
constexpr uint32_t kEntryTypeOff = 4;      //   4  1
constexpr uint32_t kEntryFirstOff = 8;     //   8  4  sector
constexpr uint32_t kEntrySectorsOff = 12;  //  12  4
constexpr uint8_t kTypeProtective = 0xEE;
constexpr int kMostLogical = 60;  // a chain may lead in a circle

// GPT header, in sector 1                                  off size
constexpr char kGptMark[] = "EFI PART";     //   0  8
constexpr uint32_t kGptTableOff = 72;       //  72  8  sector
constexpr uint32_t kGptEntriesOff = 80;     //  80  4
constexpr uint32_t kGptEntryBytesOff = 84;  //  84  4
// One of its entries                                       off size
constexpr uint32_t kGptTypeBytes = 16;  //   0 16  zeros: not in use
constexpr uint32_t kGptFirstOff = 32;   //  32  8  sector
constexpr uint32_t kGptLastOff = 40;    //  40  8  sector, included
constexpr uint32_t kGptLeastEntryBytes = 128;
constexpr uint32_t kGptMostEntryBytes = 4096;
constexpr uint32_t kGptMostEntries = 1024;

bool isExtended(uint8_t type) { return type == 0x05 || type == 0x0F || type == 0x85; }

}  // namespace

PartitionTable PartitionTable::read(CardOriginal* device) {
  PartitionTable table;
  table.deviceBytes_ = device->size();
  if (table.readGpt(device)) {
    table.kind_ = Kind::kGpt;
  } else if (table.readMbr(device)) {
    table.kind_ = Kind::kMbr;
  }
  return table;
}

bool PartitionTable::add(int number, uint64_t firstSector, uint64_t sectors) {
  const uint64_t most = deviceBytes_ / kSectorBytes;
  if (firstSector == 0 || sectors == 0 || firstSector >= most) return false;
  // The end of an image may be missing; the card says for itself what it lacks then.
  sectors = std::min(sectors, most - firstSector);
  partitions_.push_back({number, firstSector * kSectorBytes, sectors * kSectorBytes});
  return true;
}

bool PartitionTable::readGpt(CardOriginal* device) {
  uint8_t header[kSectorBytes];
  if (!device->read(kSectorBytes, header, sizeof header) ||
      memcmp(header, kGptMark, sizeof kGptMark - 1) != 0) {
    return false;
  }
  const uint32_t entryBytes = getLe32(header + kGptEntryBytesOff);
  const uint32_t entries = std::min(getLe32(header + kGptEntriesOff), kGptMostEntries);
  const uint64_t table = getLe64(header + kGptTableOff);
  if (entryBytes < kGptLeastEntryBytes || entryBytes > kGptMostEntryBytes ||
      table > deviceBytes_ / kSectorBytes) {
    return false;
  }
  std::vector<uint8_t> entry(entryBytes);
  for (uint32_t i = 0; i < entries; ++i) {
    if (!device->read(table * kSectorBytes + uint64_t{i} * entryBytes, entry.data(), entryBytes)) {
      break;
    }
    const bool used = std::any_of(entry.begin(), entry.begin() + kGptTypeBytes,
                                  [](uint8_t byte) { return byte != 0; });
    const uint64_t first = getLe64(entry.data() + kGptFirstOff);
    const uint64_t last = getLe64(entry.data() + kGptLastOff);
    if (used && last >= first) add(static_cast<int>(i) + 1, first, last - first + 1);
  }
  return !partitions_.empty();
}

bool PartitionTable::readMbr(CardOriginal* device) {
  uint8_t sector[kSectorBytes];
  if (!device->read(0, sector, sizeof sector) ||
      getLe16(sector + kMbrSignatureOff) != kMbrSignature) {
    return false;
  }
  uint64_t extended = 0;
  for (uint32_t i = 0; i < kMbrEntries; ++i) {
    const uint8_t* entry = sector + kMbrEntriesOff + i * kMbrEntryBytes;
    // Boot code of a volume stands there where there is no table.
    if ((entry[kEntryStatusOff] & 0x7F) != 0) {
      partitions_.clear();
      return false;
    }
    const uint8_t type = entry[kEntryTypeOff];
    if (type == 0 || type == kTypeProtective) continue;
    const uint32_t first = getLe32(entry + kEntryFirstOff);
    if (isExtended(type)) {
      extended = first;
    } else {
      add(static_cast<int>(i) + 1, first, getLe32(entry + kEntrySectorsOff));
    }
  }
  if (extended != 0) readLogical(device, extended);
  return !partitions_.empty();
}

// Each record has a partition, from itself on, and the next record, from the first one on.
void PartitionTable::readLogical(CardOriginal* device, uint64_t extended) {
  uint64_t at = extended;
  for (int i = 0; i < kMostLogical; ++i) {
    uint8_t sector[kSectorBytes];
    if (!device->read(at * kSectorBytes, sector, sizeof sector) ||
        getLe16(sector + kMbrSignatureOff) != kMbrSignature) {
      return;
    }
    const uint8_t* own = sector + kMbrEntriesOff;
    const uint8_t* next = own + kMbrEntryBytes;
    add(static_cast<int>(kMbrEntries) + 1 + i, at + getLe32(own + kEntryFirstOff),
        getLe32(own + kEntrySectorsOff));
    if (!isExtended(next[kEntryTypeOff]) || getLe32(next + kEntryFirstOff) == 0) return;
    at = extended + getLe32(next + kEntryFirstOff);
  }
}

}  // namespace tarn
