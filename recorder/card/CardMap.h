#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "fat/FatFormat.h"
#include "recorder/card/CardBytes.h"
#include "recorder/card/CardLayout.h"
#include "recorder/card/Source.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {

// Where a card says that everything lies, as its readers find it; nothing is judged yet. Not part
// of the interface.
struct CardMap {
  FatBoot boot;
  int64_t infoByte = -1;  // of the info file; may be anywhere, also in front of the card
  uint32_t infoLength = 0;
  InfoSeal seal = InfoSeal::kNone;
  std::array<CardFamily, kFileTypeCount> families{};

  uint64_t dataByte() const { return boot.dataSector() * kSectorBytes; }
  uint64_t clusterBytes() const { return uint64_t{boot.clusterSectors} * kSectorBytes; }
  int64_t byteOfCluster(uint32_t cluster) const {
    return sectorOfCluster(boot, cluster) * int64_t{kSectorBytes};
  }
  // Of a byte at or behind dataByte().
  uint32_t clusterOfByte(uint64_t byte) const {
    return static_cast<uint32_t>((byte - dataByte()) / clusterBytes()) + boot.rootCluster;
  }
  uint64_t chunkByte(int type, uint32_t chunk) const {
    const CardFamily& family = families[static_cast<size_t>(type)];
    return family.startByte() + uint64_t{chunk} * family.chunkSize;
  }
};

// Whether a boot sector can be one: FAT32, with a data region that begins on the card.
bool isBootUsable(const FatBoot& boot, uint64_t cardBytes);

// Finds the info file as readers do, among the first 511 entries behind the FATs. kBad when there
// is none, or it lies in front of the card or behind its end.
Delivery findInfoFile(const CardBytes& card, CardMap* map);
// Fills in the families from the info file's bytes, kInfoSealedBytes of them.
void decodeInfoFile(const uint8_t* file, CardMap* map);

// A chunk file's family and number from its name ("CKST0007"); false for any other name.
bool parseChunkFile(const std::string& name, int* type, uint32_t* chunk);
std::string chunkFileTitle(int type, uint32_t chunk);

// The same cluster as readers understand it who take both halves for signed numbers.
inline uint32_t signedCluster(uint32_t cluster) {
  return (cluster & 0x8000) != 0 ? cluster - 65536 : cluster;
}

}  // namespace tarn
