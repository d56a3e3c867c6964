#include <gtest/gtest.h>

#include <vector>

#include "fat/FatFormat.h"

namespace {

using namespace tarn;

TEST(FatFormat, BootSectorFieldsComeFromTheirOffsets) {
  std::vector<uint8_t> bytes(512, 0);
  bytes[13] = 0x80;
  bytes[14] = 0x34, bytes[15] = 0x92;
  bytes[16] = 0xFF;
  bytes[22] = 0x01, bytes[23] = 0x80;
  bytes[36] = 0x78, bytes[37] = 0x56, bytes[38] = 0x34, bytes[39] = 0xF2;
  bytes[44] = 0x02, bytes[47] = 0x01;
  const FatBoot boot = decodeFatBoot(bytes.data());
  EXPECT_EQ(boot.clusterSectors, 0x80u);
  EXPECT_EQ(boot.reservedSectors, 0x9234u);
  EXPECT_EQ(boot.fatCount, 0xFFu);
  EXPECT_EQ(boot.fat16Size, 0x8001u);
  EXPECT_EQ(boot.fat32Size, 0xF2345678u);
  EXPECT_EQ(boot.rootCluster, 0x01000002u);
  EXPECT_EQ(boot.dataSector(), 0xF2345678ull * 255 + 0x9234);

  std::vector<uint8_t> encoded(512, 0);
  encodeFatBoot(boot, encoded.data());
  EXPECT_EQ(encoded, bytes);
}

uint32_t clusterOf(uint16_t high, uint16_t low) {
  uint8_t entry[kDirEntryBytes] = {};
  putLe16(entry + 20, high);
  putLe16(entry + 26, low);
  return decodeFirstCluster(entry);
}

TEST(FatFormat, BothClusterHalvesAreSignedAndTheSumWraps) {
  EXPECT_EQ(clusterOf(0, 0x7FFF), 0x7FFFu);
  EXPECT_EQ(clusterOf(1, 0x7FFF), 0x17FFFu);
  EXPECT_EQ(clusterOf(1, 0x8000), 0x8000u);           // 65536 lower than 0x18000
  EXPECT_EQ(clusterOf(0, 0x8000), 0xFFFF8000u);       // -32768
  EXPECT_EQ(clusterOf(0x8000, 0x8000), 0x7FFF8000u);  // below -2^31 wraps
}

TEST(FatFormat, ClustersCountFromTheRootDirectorysAndMayLieInFrontOfIt) {
  FatBoot boot;
  boot.clusterSectors = 64;
  boot.reservedSectors = 32;
  boot.fatCount = 2;
  boot.fat32Size = 100;
  boot.rootCluster = 5;
  EXPECT_EQ(sectorOfCluster(boot, 5), 232);
  EXPECT_EQ(sectorOfCluster(boot, 7), 232 + 128);
  EXPECT_EQ(sectorOfCluster(boot, 4), 232 - 64);
  EXPECT_EQ(sectorOfCluster(boot, 0xFFFF8000u), 232 - 64 * int64_t{32768 + 5});
  EXPECT_EQ(sectorOfCluster(boot, 0x0FFFFFF0u), 232 + 64 * int64_t{0x0FFFFFF0 - 5});
}

TEST(FatFormat, EncodedClustersReadBackBelowTheSignedHalf) {
  uint8_t entry[kDirEntryBytes] = {};
  encodeFirstCluster(0x00127FFF, entry);
  EXPECT_EQ(entry[20], 0x12);
  EXPECT_EQ(entry[26], 0xFF);
  EXPECT_EQ(entry[27], 0x7F);
  EXPECT_EQ(decodeFirstCluster(entry), 0x00127FFFu);
}

TEST(FatFormat, InfoRecordsHoldSizeCountAndStart) {
  uint8_t bytes[kInfoRecordBytes];
  memset(bytes, 0xEE, sizeof bytes);
  encodeInfoRecord({0x01020304, 0x05060708, 0x090A0B0C}, bytes);
  EXPECT_EQ(bytes[63], 0xEE);
  EXPECT_EQ(bytes[64], 0x04);
  EXPECT_EQ(bytes[68], 0xEE);
  EXPECT_EQ(bytes[72], 0x08);
  EXPECT_EQ(bytes[76], 0xEE);
  EXPECT_EQ(bytes[83], 0x09);
  const InfoRecord record = decodeInfoRecord(bytes);
  EXPECT_EQ(record.chunkSize, 0x01020304u);
  EXPECT_EQ(record.chunkCount, 0x05060708u);
  EXPECT_EQ(record.startSector, 0x090A0B0Cu);
}

TEST(FatFormat, ChunkStartsAreWiderThan32Bits) {
  EXPECT_EQ(chunkStartByte(8192, 5, 1073741824), 5372903424);
  EXPECT_EQ(chunkStartByte(0xFFFFFFFFu, 32767, 0x7FFFFFFFu),
            0xFFFFFFFFll * 512 + 32767ll * 0x7FFFFFFF);
  EXPECT_EQ(chunkStartByte(8192, -1, 4194304), 0);
}

}  // namespace
