#include "damage/Cases.h"

#include <algorithm>

#include "powercut/CardTrace.h"
#include "powercut/Workload.h"
#include "recorder/card/CardLayout.h"

namespace damage {
namespace {

using powercut::kSector;

constexpr const char* kKinds[] = {"zero", "random", "erased", "refused"};
constexpr uint32_t kBitsOfByte = 8;
constexpr uint64_t kSealedInfoBytes = 770;  // the info file with its seal
constexpr uint32_t kFatEntryBytes = 4;

struct FamilyName {
  int type;
  const char* name;
  bool bits;
};
constexpr FamilyName kFamilies[] = {
    {tarn::kFileJournalManage, "journal-manage", true},
    {tarn::kFileJournal, "journal", true},
    {tarn::kFileSyslogManage, "syslog-manage", true},
    {tarn::kFileSyslog, "syslog", false},
    {tarn::kFileDbImage, "image", false},
    {tarn::kFileStreamManage, "stream-manage", true},
    {tarn::kFileStream, "stream", false},
    {tarn::kFilePicture, "index", false},
};

// Up to the last byte in use: what lies behind it in a chunk is nobody's.
uint64_t usedBytes(uint64_t from, uint64_t bytes) {
  const uint8_t* chunk = powercut::Card::get().bytes() + from;
  const auto unused = [](uint8_t byte) { return byte == 0 || byte == 0xFF; };
  while (bytes > 0 && unused(chunk[bytes - 1])) --bytes;
  return bytes;
}

uint64_t wholeSectors(uint64_t bytes) { return (bytes + kSector - 1) / kSector * kSector; }

void addChunks(const FamilyName& family, std::vector<Region>* regions) {
  const tarn::CardLayout& layout = powercut::cardLayout();
  const bool ring = family.type == tarn::kFileJournal;
  for (uint32_t chunk = 0; chunk < layout.family(family.type).chunks; ++chunk) {
    const uint64_t from = layout.chunkByte(family.type, chunk);
    const uint64_t size = layout.family(family.type).chunkSize;
    const uint64_t used = ring ? size : usedBytes(from, size);
    if (used > 0)
      regions->push_back({family.name, chunk, from, wholeSectors(used), family.bits ? used : 0});
  }
}

}  // namespace

std::vector<Region> allRegions() {
  const tarn::CardLayout& layout = powercut::cardLayout();
  const uint64_t reserved = uint64_t{layout.reservedSectors()} * kSector;
  const uint64_t fat = uint64_t{layout.fatSectors()} * kSector;
  const uint64_t fatUsed = wholeSectors((uint64_t{layout.usedClusters()} + 2) * kFatEntryBytes);
  const uint64_t entries = usedBytes(layout.dataByte(), layout.rootBytes());
  std::vector<Region> regions = {
      {"boot", 0, 0, reserved, kSector},
      {"fat", 0, reserved, std::min(fat, fatUsed), 0},
      {"fat", 1, reserved + fat, std::min(fat, fatUsed), 0},
      {"directory", 0, layout.dataByte(), wholeSectors(entries), entries},
      {"info", 0, layout.chunkByte(tarn::kFileInfo, 0), wholeSectors(kSealedInfoBytes),
       kSealedInfoBytes},
  };
  for (const FamilyName& family : kFamilies) addChunks(family, &regions);
  return regions;
}

std::vector<Case> sectorCases(const std::vector<Region>& regions) {
  std::vector<Case> cases;
  for (size_t region = 0; region < regions.size(); ++region) {
    for (uint64_t byte = 0; byte < regions[region].bytes; byte += kSector) {
      for (uint32_t kind = 0; kind < Case::kBit; ++kind) cases.push_back({region, byte, kind});
    }
  }
  return cases;
}

std::vector<Case> bitCases(const std::vector<Region>& regions) {
  std::vector<Case> cases;
  for (size_t region = 0; region < regions.size(); ++region) {
    for (uint64_t bit = 0; bit < regions[region].bitBytes * kBitsOfByte; ++bit) {
      cases.push_back(
          {region, bit / kBitsOfByte, Case::kBit + static_cast<uint32_t>(bit % kBitsOfByte)});
    }
  }
  return cases;
}

std::string nameOf(const std::vector<Region>& regions, const Case& one) {
  const Region& region = regions[one.region];
  return std::string(region.name) + "/" + std::to_string(region.chunk) + "/" +
         std::to_string(one.byte) + "/" +
         (one.isBit() ? "bit" + std::to_string(one.kind - Case::kBit) : kKinds[one.kind]);
}

}  // namespace damage
