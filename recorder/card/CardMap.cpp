#include "recorder/card/CardMap.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "base/Endian.h"

namespace tarn {
namespace {

constexpr size_t kTagLength = 4;
constexpr size_t kLeastDigits = 4;
constexpr size_t kMostDigits = 5;

}  // namespace

bool isBootUsable(const FatBoot& boot, uint64_t cardBytes) {
  return boot.fat16Size == 0 && boot.fat32Size != 0 && boot.fatCount != 0 &&
         boot.clusterSectors != 0 && boot.dataSector() * kSectorBytes < cardBytes;
}

Delivery findInfoFile(const CardBytes& card, CardMap* map) {
  const uint64_t start = map->dataByte();
  std::vector<uint8_t> entries(static_cast<size_t>(std::min<uint64_t>(
      uint64_t{kDirEntriesSearched} * kDirEntryBytes, card.size() - std::min(card.size(), start))));
  if (!card.read(start, entries.data(), entries.size())) return Delivery::kRefused;
  for (size_t at = 0; at + kDirEntryBytes <= entries.size(); at += kDirEntryBytes) {
    if (!isInfoFileEntry(entries.data() + at)) continue;
    map->infoByte = map->byteOfCluster(decodeFirstCluster(entries.data() + at));
    const bool inside =
        map->infoByte >= 0 && card.holds(static_cast<uint64_t>(map->infoByte), kInfoSealedBytes);
    return inside ? Delivery::kGood : Delivery::kBad;
  }
  return Delivery::kBad;
}

void decodeInfoFile(const uint8_t* file, CardMap* map) {
  map->infoLength = getLe32(file);
  map->seal = judgeInfoSeal(file);
  for (uint32_t type = 0; type < kInfoRecords; ++type) {
    const InfoRecord record = decodeInfoRecord(file + kInfoLengthBytes + type * kInfoRecordBytes);
    // Readers keep 16 bits of the count.
    map->families[type] = {record.chunkSize, record.chunkCount & 0xFFFF, record.startSector};
  }
}

bool parseChunkFile(const std::string& name, int* type, uint32_t* chunk) {
  if (name.size() < kTagLength + kLeastDigits || name.size() > kTagLength + kMostDigits) {
    return false;
  }
  const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
  if (!std::all_of(name.begin() + kTagLength, name.end(), isDigit)) return false;
  // More digits than four never begin with a zero.
  if (name.size() > kTagLength + kLeastDigits && name[kTagLength] == '0') return false;
  *type = fileTypeOfName(name.c_str());
  *chunk = static_cast<uint32_t>(atoi(name.c_str() + kTagLength));
  return *type >= 0;
}

std::string chunkFileTitle(int type, uint32_t chunk) {
  char name[16];
  snprintf(name, sizeof name, "%.4s%04" PRIu32, fileTag(type), chunk);
  return name;
}

}  // namespace tarn
