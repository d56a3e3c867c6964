#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "base/Endian.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardInfo.h"
#include "support/CardImage.h"

namespace tarn {
namespace {

using ::testing::HasSubstr;
using Copies = CardManagement::Copies;

constexpr uint64_t kMiB = 1024 * 1024;
constexpr char kCard[] = "/dev/sdblk0p1";

class CardInfoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    CardRequest request;
    request.sizeBytes = 34 * kMiB;
    std::string error;
    ASSERT_EQ(formatter_.format(kCard, request, {}, &error), 0) << error;
  }

  const CardLayout& layout() const { return formatter_.layout(); }

  CardInfo info() {
    CardInfo info;
    std::string error;
    EXPECT_EQ(info.read(kCard, &error), 0) << error;
    return info;
  }

  static std::string refusal(const std::string& path = kCard) {
    CardInfo info;
    std::string error;
    EXPECT_EQ(info.read(path, &error), -1) << "was not refused";
    return error;
  }

  static void poke(uint64_t offset, const std::vector<uint8_t>& bytes) {
    FILE* file = fopen(kCard, "r+b");
    ASSERT_NE(file, nullptr);
    fseeko(file, static_cast<off_t>(offset), SEEK_SET);
    fwrite(bytes.data(), 1, bytes.size(), file);
    fclose(file);
  }

  CardFormatter formatter_;
};

// A card of the tests' own builder, with management data of the test's choosing.
std::vector<uint8_t> record(int8_t chType, uint32_t use, uint32_t free, uint32_t pictureUse,
                            uint32_t pictureFree) {
  std::vector<uint8_t> bytes(24);
  bytes[6] = static_cast<uint8_t>(chType);
  putLe32(&bytes[8], use);
  putLe32(&bytes[12], free);
  putLe32(&bytes[16], pictureUse);
  putLe32(&bytes[20], pictureFree);
  return bytes;
}

TEST_F(CardInfoTest, AFreshCardReadsAsItWasLaidOut) {
  const CardInfo card = info();
  EXPECT_EQ(card.deviceBytes(), 34 * kMiB);
  EXPECT_EQ(card.volumeBytes(), 34 * kMiB);
  EXPECT_EQ(card.volumeId(), formatter_.volumeId());
  EXPECT_EQ(card.label(), "TARN CARD");
  EXPECT_EQ(card.clusterBytes(), layout().clusterBytes());
  EXPECT_EQ(card.clusters(), layout().clusters());
  for (int type = 0; type < kFileTypeCount; ++type) {
    EXPECT_EQ(card.family(type).chunkSize, layout().family(type).chunkSize);
    EXPECT_EQ(card.family(type).chunks, layout().family(type).chunks);
    EXPECT_EQ(card.family(type).startSector, layout().family(type).startSector);
    EXPECT_EQ(card.usedBytes(type), 0u);
  }
  EXPECT_EQ(card.streamChunksInUse(), 0u);
  EXPECT_EQ(card.dbImageBytes(), 0);
  for (int type : {kFileStreamManage, kFileSyslogManage, kFileJournalManage}) {
    EXPECT_EQ(card.management(type).copies, Copies::kBothGood);
  }
  EXPECT_EQ(card.management(kFileSyslogManage).records[0].chType, 0);
}

TEST(CardInfoOfUsedCardTest, UseAndFreeBecomeBytesUsedWrappedOrNot) {
  tarn_test::CardImage card;
  card.initManagement();
  std::vector<uint8_t> records;
  for (const auto& one : {record(0, 100, 1100, 64, 128),         // plain
                          record(3, 4000000, 5696, 262112, 32),  // both wrapped
                          record(-1, 0, 0, 0, 0),                // not in use
                          record(1, 7, 7, 0, 0)}) {              // empty
    records.insert(records.end(), one.begin(), one.end());
  }
  card.writeManagement(kFileStreamManage, 0, records);
  card.writeManagement(kFileStreamManage, 1, records);
  CardInfo info;
  std::string error;
  ASSERT_EQ(info.read(kCard, &error), 0) << error;
  EXPECT_EQ(info.usedBytes(kFileStream, 0), 1000u);
  EXPECT_EQ(info.usedBytes(kFilePicture, 0), 64u);
  EXPECT_EQ(info.usedBytes(kFileStream, 1), 4u * 1024 * 1024 - 4000000 + 5696);
  EXPECT_EQ(info.usedBytes(kFilePicture, 1), 64u);
  EXPECT_EQ(info.usedBytes(kFileStream, 3), 0u);
  EXPECT_EQ(info.usedBytes(kFileStream), 1000u + 200000);
  EXPECT_EQ(info.streamChunksInUse(), 3u);
  EXPECT_EQ(info.management(kFileStreamManage).records[1].chType, 3);
  EXPECT_EQ(info.usedBytes(kFileStream, 4), 0u) << "no such chunk";
}

TEST_F(CardInfoTest, OffsetsBeyondTheChunkCountAsNothingUsed) {
  tarn_test::CardImage card;
  card.initManagement();
  std::vector<uint8_t> records(4 * 24);
  putLe32(&records[8], 0xFFFFFFFF);
  putLe32(&records[24 + 12], 4 * 1024 * 1024 + 1);
  card.writeManagement(kFileStreamManage, 0, records);
  card.writeManagement(kFileStreamManage, 1, records);
  EXPECT_EQ(info().usedBytes(kFileStream), 0u);
}

TEST_F(CardInfoTest, BadManagementCopiesAreToldApart) {
  const uint64_t main = layout().chunkByte(kFileStreamManage, 0);
  const uint64_t backup = layout().chunkByte(kFileStreamManage, 1);
  poke(main + 3, {0x55});
  EXPECT_EQ(info().management(kFileStreamManage).copies, Copies::kMainBad);
  EXPECT_EQ(info().management(kFileStreamManage).records.size(), 15u) << "from the backup";
  poke(backup + 3, {0x55});
  EXPECT_EQ(info().management(kFileStreamManage).copies, Copies::kBothBad);
  EXPECT_TRUE(info().management(kFileStreamManage).records.empty());
  EXPECT_EQ(info().streamChunksInUse(), 0u);
  poke(main + 3, {0});
  EXPECT_EQ(info().management(kFileStreamManage).copies, Copies::kBackupBad);
}

TEST_F(CardInfoTest, GoodCopiesThatDifferAreToldApart) {
  tarn_test::CardImage card;
  card.initManagement();
  std::vector<uint8_t> records(4 * 24);
  card.writeManagement(kFileStreamManage, 0, records);
  records[7] = 1;
  card.writeManagement(kFileStreamManage, 1, records);
  const CardInfo read = info();
  EXPECT_EQ(read.management(kFileStreamManage).copies, Copies::kDifferent);
  EXPECT_EQ(read.management(kFileStreamManage).records[0].recType, 0) << "the main copy's";
}

TEST_F(CardInfoTest, TheDatabaseImageIsShown) {
  poke(layout().family(kFileDbImage).startByte(), {0x00, 0x20, 0x01, 0x00});
  EXPECT_EQ(info().dbImageBytes(), 0x12000);
}

TEST_F(CardInfoTest, ForeignAndDamagedCardsAreRefusedInWords) {
  EXPECT_EQ(refusal("/tmp/none"), "cannot open /tmp/none: No such file or directory");
  ASSERT_EQ(system("truncate -s 10M /tmp/blank"), 0);
  EXPECT_EQ(refusal("/tmp/blank"), "/tmp/blank: not a FAT32 volume, so not a card of the recorder");
  ASSERT_EQ(system("truncate -s 100 /tmp/short"), 0);
  EXPECT_EQ(refusal("/tmp/short"), "/tmp/short: the boot sector cannot be read");
  ASSERT_EQ(system("truncate -s 40M /tmp/other && mkfs.fat -F 32 /tmp/other >/dev/null"), 0);
  EXPECT_EQ(refusal("/tmp/other"),
            "/tmp/other: a FAT32 volume, but not a card of the recorder: no TAIF0000");

  const uint64_t infoFile = layout().family(kFileInfo).startByte();
  poke(infoFile, {0, 0, 0, 0});
  EXPECT_THAT(refusal(), HasSubstr("info file TAIF0000 is damaged"));
  poke(infoFile, {0xF4, 0x02, 0, 0});
  EXPECT_EQ(info().label(), "TARN CARD");
  poke(infoFile + 4 + 7 * 84 + 72, {0, 0, 0, 0});
  EXPECT_THAT(refusal(), HasSubstr("the info file gives 0 stream chunks"));
  poke(infoFile + 4 + 7 * 84 + 72, {0xFF, 0x7F, 0, 0});
  EXPECT_THAT(refusal(),
              HasSubstr("the info file gives 32767 stream chunks and 15 picture chunks"));
}

TEST_F(CardInfoTest, NoiseNeverReadsAsACard) {
  for (uint8_t byte : {uint8_t{0x00}, uint8_t{0xFF}, uint8_t{0x29}}) {
    const std::vector<uint8_t> noise(34 * kMiB, byte);
    poke(0, noise);
    EXPECT_THAT(refusal(), HasSubstr("not a"));
  }
  poke(0, tarn_test::patternBytes(kMiB));
  EXPECT_THAT(refusal(), HasSubstr("not a"));
}

TEST_F(CardInfoTest, ReadingChangesNothing) {
  ASSERT_EQ(system("cp /dev/sdblk0p1 /tmp/before && chmod a-w /dev/sdblk0p1"), 0);
  info();
  EXPECT_EQ(system("cmp /dev/sdblk0p1 /tmp/before"), 0);
}

}  // namespace
}  // namespace tarn
