#include "fat/ChunkFiles.h"
#include "manager/ManageFormat.h"
#include "manager/StoreTest.h"

namespace tarn_test {
namespace {

constexpr uint8_t kGolden[24] = {1,    2,    3,    4,    5, 6,  // reserved
                                 0xFF, 0x80,                    // chType -1, recType -128
                                 0x11, 0x12, 0x13, 0x14,        // stream use
                                 0x21, 0x22, 0x23, 0x24,        // stream free
                                 0x31, 0x32, 0x33, 0x34,        // picture use
                                 0x41, 0x42, 0x43, 0xF4};       // picture free

TEST(ManageFormat, RecordIsDecodedFromItsBytes) {
  const CHUNK_MANAGE record = tarn::decodeManageRecord(kGolden);
  EXPECT_EQ(record.reserved[0], 1);
  EXPECT_EQ(record.reserved[5], 6);
  EXPECT_EQ(record.chType, -1);
  EXPECT_EQ(record.recType, -128);
  EXPECT_EQ(record.streamUseOffset, 0x14131211u);
  EXPECT_EQ(record.streamFreeOffset, 0x24232221u);
  EXPECT_EQ(record.pictureUseOffset, 0x34333231u);
  EXPECT_EQ(record.pictureFreeOffset, 0xF4434241u);
}

TEST(ManageFormat, RecordIsEncodedToItsBytes) {
  const CHUNK_MANAGE record = {{1, 2, 3, 4, 5, 6}, -1,          -128,       0x14131211u,
                               0x24232221u,        0x34333231u, 0xF4434241u};
  uint8_t bytes[24] = {};
  tarn::encodeManageRecord(record, bytes);
  EXPECT_THAT(bytes, testing::ElementsAreArray(kGolden));
}

TEST(ManageFormat, CrcStandsBehindTheRecordsLowByteFirst) {
  // "123456789" padded to one record: the CRC covers 24 bytes, not itself.
  std::vector<uint8_t> data(tarn::manageDataSize(1), 0);
  ASSERT_EQ(data.size(), 26u);
  data[23] = 1;
  tarn::sealManageData(data.data(), 1);
  EXPECT_EQ(data[24], 0x21);  // one bit at the end leaves the polynomial itself
  EXPECT_EQ(data[25], 0x10);
  EXPECT_TRUE(tarn::manageDataIsValid(data.data(), 1));
  data[0] ^= 0x80;
  EXPECT_FALSE(tarn::manageDataIsValid(data.data(), 1));
}

TEST(ManageFormat, NoRecordsHaveCrcZero) {
  uint8_t data[2] = {0xAA, 0xAA};
  tarn::sealManageData(data, 0);
  EXPECT_THAT(data, testing::ElementsAre(0, 0));
}

TEST(ManageFormat, FileNamesCarryDeviceSuffixAndCopy) {
  char name[tarn::kChunkFileNameRoom];
  EXPECT_STREQ(tarn::manageFileName("ST", tarn::kManageMainCopy, name), "/dev/sdblk0p1:MGST0000");
  EXPECT_STREQ(tarn::manageFileName("SL", tarn::kManageBackupCopy, name), "/dev/sdblk0p1:MGSL0001");
}

}  // namespace
}  // namespace tarn_test
