#pragma once

#include <cstdint>
#include <cstring>

#include "base/Endian.h"
#include "base/Wrap.h"

// What of a FAT32 volume this system reads and writes, and the card's info file: offsets, sizes,
// and decoding and encoding side by side. All numbers are little-endian.
namespace tarn {

// A sector is always 512 bytes: the boot sector's own field for it is not consulted.
inline constexpr uint32_t kSectorBytes = 512;

// Boot sector, the fields in use                      off size
inline constexpr uint32_t kBootClusterSectorsOff = 13;  //  13  1  sectors in a cluster
inline constexpr uint32_t kBootReservedOff = 14;        //  14  2  sectors in front of the FATs
inline constexpr uint32_t kBootFatCountOff = 16;        //  16  1
inline constexpr uint32_t kBootFat16SizeOff = 22;       //  22  2  0 on FAT32
inline constexpr uint32_t kBootFat32SizeOff = 36;       //  36  4  sectors of one FAT
inline constexpr uint32_t kBootRootClusterOff = 44;     //  44  4  number of the first data cluster
inline constexpr uint32_t kBootReadBytes = 64;
static_assert(kBootRootClusterOff + 4 <= kBootReadBytes);

struct FatBoot {
  uint8_t clusterSectors = 0;
  uint16_t reservedSectors = 0;
  uint8_t fatCount = 0;
  uint16_t fat16Size = 0;
  uint32_t fat32Size = 0;
  uint32_t rootCluster = 0;

  // First sector of the data region, where the root directory begins and runs on contiguously.
  uint64_t dataSector() const { return uint64_t{fat32Size} * fatCount + reservedSectors; }
};

inline FatBoot decodeFatBoot(const uint8_t* bytes) {
  FatBoot boot;
  boot.clusterSectors = bytes[kBootClusterSectorsOff];
  boot.reservedSectors = getLe16(bytes + kBootReservedOff);
  boot.fatCount = bytes[kBootFatCountOff];
  boot.fat16Size = getLe16(bytes + kBootFat16SizeOff);
  boot.fat32Size = getLe32(bytes + kBootFat32SizeOff);
  boot.rootCluster = getLe32(bytes + kBootRootClusterOff);
  return boot;
}

// Writes the fields above and leaves every other byte of the sector alone.
inline void encodeFatBoot(const FatBoot& boot, uint8_t* bytes) {
  bytes[kBootClusterSectorsOff] = boot.clusterSectors;
  putLe16(bytes + kBootReservedOff, boot.reservedSectors);
  bytes[kBootFatCountOff] = boot.fatCount;
  putLe16(bytes + kBootFat16SizeOff, boot.fat16Size);
  putLe32(bytes + kBootFat32SizeOff, boot.fat32Size);
  putLe32(bytes + kBootRootClusterOff, boot.rootCluster);
}

// Directory entry, the fields in use                     off size
inline constexpr uint32_t kDirNameOff = 0;          //   0  8  short name, blank-padded
inline constexpr uint32_t kDirNameBytes = 8;        //         the extension is not compared
inline constexpr uint32_t kDirClusterHighOff = 20;  //  20  2
inline constexpr uint32_t kDirClusterLowOff = 26;   //  26  2
inline constexpr uint32_t kDirEntryBytes = 32;
// So many entries are searched for the info file. End-of-directory and deleted marks are not
// interpreted.
inline constexpr uint32_t kDirEntriesSearched = 511;
// The info file's short name, all eight characters.
inline constexpr char kInfoFileName[] = "TAIF0000";
static_assert(sizeof kInfoFileName - 1 == kDirNameBytes);

inline bool isInfoFileEntry(const uint8_t* entry) {
  return memcmp(entry + kDirNameOff, kInfoFileName, kDirNameBytes) == 0;
}

// First cluster of an entry, as a 32-bit number that wraps. Kept on purpose: both halves are read
// as signed 16-bit numbers, so a low half of 0x8000 or more gives a cluster 65536 lower than the
// plain reading; cards out there were laid out for this reader.
inline uint32_t decodeFirstCluster(const uint8_t* entry) {
  const auto high = static_cast<int16_t>(getLe16(entry + kDirClusterHighOff));
  const auto low = static_cast<int16_t>(getLe16(entry + kDirClusterLowOff));
  return wrapAdd32(wrapMul32(static_cast<uint32_t>(high), 65536), static_cast<uint32_t>(low));
}

// The plain FAT32 reading, as PCs do it; the two agree for a low half below 0x8000.
inline void encodeFirstCluster(uint32_t cluster, uint8_t* entry) {
  putLe16(entry + kDirClusterHighOff, static_cast<uint16_t>(cluster >> 16));
  putLe16(entry + kDirClusterLowOff, static_cast<uint16_t>(cluster));
}

// First sector of a file; negative when the cluster lies in front of the data region's first one.
// Kept on purpose: clusters count from the root directory's, not from 2, because the root directory
// is what begins the data region.
inline int64_t sectorOfCluster(const FatBoot& boot, uint32_t cluster) {
  // A number below the root's wraps and is then read as negative.
  const int32_t distance = asSigned32(wrapSub32(cluster, boot.rootCluster));
  return int64_t{distance} * boot.clusterSectors + static_cast<int64_t>(boot.dataSector());
}

// Info file: L (4 bytes, the length of what follows), then L / 84 records in index order of
// FileType. L is a card's word: it counts only inside these limits.
inline constexpr uint32_t kInfoLengthBytes = 4;
inline constexpr uint32_t kInfoRecordBytes = 84;
inline constexpr uint32_t kInfoRecords = 9;
inline constexpr uint32_t kInfoLengthMin = kInfoRecordBytes * kInfoRecords;
inline constexpr uint32_t kInfoLengthMax = 1024 * 1024;
static_assert(kInfoLengthMin == 756);

// Info record, the fields in use                        off size
inline constexpr uint32_t kInfoChunkSizeOff = 64;    //  64  4  bytes
inline constexpr uint32_t kInfoChunkCountOff = 72;   //  72  4  the low 16 bits count
inline constexpr uint32_t kInfoStartSectorOff = 80;  //  80  4  of chunk 0, absolute on the device
static_assert(kInfoStartSectorOff + 4 == kInfoRecordBytes);

struct InfoRecord {
  uint32_t chunkSize = 0;
  uint32_t chunkCount = 0;
  uint32_t startSector = 0;
};

inline InfoRecord decodeInfoRecord(const uint8_t* bytes) {
  return {getLe32(bytes + kInfoChunkSizeOff), getLe32(bytes + kInfoChunkCountOff),
          getLe32(bytes + kInfoStartSectorOff)};
}

// Writes the fields above and leaves every other byte of the record alone.
inline void encodeInfoRecord(const InfoRecord& record, uint8_t* bytes) {
  putLe32(bytes + kInfoChunkSizeOff, record.chunkSize);
  putLe32(bytes + kInfoChunkCountOff, record.chunkCount);
  putLe32(bytes + kInfoStartSectorOff, record.startSector);
}

// First byte of a chunk on the device. The chunks of a family lie back to back in number order.
inline int64_t chunkStartByte(uint32_t startSector, int16_t chunk, uint32_t chunkSize) {
  return int64_t{startSector} * kSectorBytes + int64_t{chunk} * chunkSize;
}

}  // namespace tarn
