#include <gtest/gtest.h>

#include <string>

#include "fat/ChunkFiles.h"

namespace {

std::string chunkName(signed char partition, const char* tag, int chunk) {
  char out[tarn::kChunkFileNameRoom];
  return tarn::chunkFileName(partition, tag, chunk, out);
}

TEST(ChunkFiles, PartitionNumbersNameTheirDevices) {
  EXPECT_STREQ(tarn::deviceName(1), "/dev/mmcblk0p1");
  EXPECT_STREQ(tarn::deviceName(2), "/dev/mmcblk0p2");
  EXPECT_STREQ(tarn::deviceName(11), "/dev/sda1");
  EXPECT_STREQ(tarn::deviceName(12), "/dev/sda2");
  EXPECT_STREQ(tarn::deviceName(21), "/dev/sdb1");
  EXPECT_STREQ(tarn::deviceName(22), "/dev/sdb2");
  EXPECT_STREQ(tarn::deviceName('3'), "/dev/sdblk0p1");
  EXPECT_EQ('3', tarn::kRecorderPartition);
}

TEST(ChunkFiles, UnknownPartitionsNameTheSpareDevice) {
  for (int partition : {0, 3, -1, 50, 52, 127, -128}) {
    EXPECT_STREQ(tarn::deviceName(static_cast<signed char>(partition)), "/tmp/dev/mmc")
        << partition;
  }
}

TEST(ChunkFiles, ChunkNumbersHaveAtLeastFourDigits) {
  EXPECT_EQ(chunkName(1, "CKST", 7), "/dev/mmcblk0p1:CKST0007");
  EXPECT_EQ(chunkName(1, "CKST", 12345), "/dev/mmcblk0p1:CKST12345");
  EXPECT_EQ(chunkName(51, "CKDL", 0), "/dev/sdblk0p1:CKDL0000");
}

TEST(ChunkFiles, TagsAndSuffixesGoByTheCardsIndexOrder) {
  const char* tags[] = {"TAIF", "MGDL", "CKDL", "MGSL", "CKSL", "DBST", "MGST", "CKST", "CKPC"};
  const char* suffixes[] = {"IF", "DL", "DL", "SL", "SL", "ST", "ST", "ST", "PC"};
  for (int type = 0; type < tarn::kFileTypeCount; ++type) {
    EXPECT_STREQ(tarn::fileTag(type), tags[type]);
    EXPECT_STREQ(tarn::kindSuffix(type), suffixes[type]);
    EXPECT_EQ(tarn::fileTypeOfName((std::string(tags[type]) + "0001").c_str()), type);
  }
  EXPECT_EQ(tarn::fileTypeOfName("CKS"), -1);
  EXPECT_EQ(tarn::fileTypeOfName("ckst0000"), -1);
  EXPECT_STREQ(tarn::fileTag(-1), "");
  EXPECT_STREQ(tarn::kindSuffix(9), "");
}

}  // namespace
