#include "manager/StoreTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr uint32_t kSize = 64 * kKiB;  // of a journal or syslog chunk

class EndlessStoreTest : public testing::Test {
 protected:
  EndlessStoreTest() : card(smallCard()) {
    card.initManagement();
    card.writeManagement(tarn::kFileJournalManage, 0, fourRecords());
  }

  static std::vector<uint8_t> fourRecords() {
    return joined({recordBytes(0, 0, 0x10, 0x20, 0x30, 0x40), recordBytes(0, 0, 0, 0, 0, 0),
                   recordBytes(0, 0, 0, 0, 0, 0), recordBytes(0, 0, 0, 0, 0, 0)});
  }

  // Opens quietly: the chunk count goes to standard output.
  static int openQuietly(EndlessStore& store) {
    int result = 0;
    printedBy([&] { result = store.openManageData(kPartition); });
    return result;
  }

  CardImage card;
  SyslogCapture log;
};

struct Kind {
  signed char kind;
  const char* suffix;
  unsigned short chunks;
  const char* printed;
};
void PrintTo(const Kind& kind, std::ostream* out) {
  *out << static_cast<int>(kind.kind) << kind.suffix;
}

class EndlessKindTest : public EndlessStoreTest, public testing::WithParamInterface<Kind> {};

TEST_P(EndlessKindTest, OpensTheFilesOfItsSuffix) {
  EndlessStore store(GetParam().kind);
  EXPECT_STREQ(store.m_suffix, GetParam().suffix);
  int result = 1;
  EXPECT_EQ(printedBy([&] { result = store.openManageData(kPartition); }), GetParam().printed);
  EXPECT_EQ(result, 0);
  EXPECT_EQ(store.numChunk(), GetParam().chunks);
  EXPECT_EQ(store.getChunkSize(1), kSize);
  EXPECT_EQ(store.m_pictureSize, 0u);
  EXPECT_THAT(log.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Kinds, EndlessKindTest,
                         testing::Values(Kind{1, "DL", 4, " We have DL 4 chunk."},
                                         Kind{2, "DL", 4, " We have DL 4 chunk."},
                                         Kind{3, "SL", 5, " We have SL 5 chunk."},
                                         Kind{4, "SL", 5, " We have SL 5 chunk."}));

TEST_F(EndlessStoreTest, KindsOneAndTwoShareTheirFiles) {
  EndlessStore one(1);
  EndlessStore two(2);
  ASSERT_EQ(openQuietly(one), 0);
  ASSERT_EQ(one.setFree(3, 0x777, 0), 0);
  ASSERT_EQ(one.saveManageData(), 0);
  ASSERT_EQ(openQuietly(two), 0);
  CHUNK_USAGE usage{};
  ASSERT_EQ(two.getUsage(3, &usage), 0);
  EXPECT_EQ(usage.freeAddr, 0x777u);
  EXPECT_TRUE(log.has(LOG_INFO, " saveManageData (DL) "));
}

TEST_F(EndlessStoreTest, UsageLeavesTheStreamFieldsAlone) {
  EndlessStore store(2);
  ASSERT_EQ(openQuietly(store), 0);
  CHUNK_USAGE usage{1, 2, 3, 4};
  ASSERT_EQ(store.getUsage(0, &usage), 0);
  EXPECT_EQ(usage.useAddr, 0x10u);
  EXPECT_EQ(usage.freeAddr, 0x20u);
  EXPECT_EQ(usage.streamUseAddr, 3u);
  EXPECT_EQ(usage.streamFreeAddr, 4u);
}

TEST_F(EndlessStoreTest, OffsetsIgnoreTheFlagAndKeepThePicturePair) {
  EndlessStore store(2);
  ASSERT_EQ(openQuietly(store), 0);
  EXPECT_EQ(store.setUsage(0, 0x1000, 0), 0);
  EXPECT_EQ(store.setFree(0, 0x2000, 1), 0);
  CHUNK_MANAGE record;
  ASSERT_EQ(store.getManageData(0, &record), 0);
  EXPECT_EQ(record.streamUseOffset, 0x1000u);
  EXPECT_EQ(record.streamFreeOffset, 0x2000u);
  EXPECT_EQ(record.pictureUseOffset, 0x30u);
  EXPECT_EQ(record.pictureFreeOffset, 0x40u);
}

TEST_F(EndlessStoreTest, AnOffsetAtTheChunksEndIsStoredAsZeroWhateverTheFlag) {
  EndlessStore store(2);
  ASSERT_EQ(openQuietly(store), 0);
  for (unsigned char flag : {0, 1}) {
    ASSERT_EQ(store.setUsage(0, 5, flag), 0);
    EXPECT_EQ(store.setUsage(0, kSize, flag), 0);
    ASSERT_EQ(store.setFree(0, kSize - 1, flag), 0);
    CHUNK_USAGE usage{};
    ASSERT_EQ(store.getUsage(0, &usage), 0);
    EXPECT_EQ(usage.useAddr, 0u);
    EXPECT_EQ(usage.freeAddr, kSize - 1);
    EXPECT_EQ(store.setFree(0, kSize, flag), 0);
    ASSERT_EQ(store.getUsage(0, &usage), 0);
    EXPECT_EQ(usage.freeAddr, 0u);
  }
}

TEST_F(EndlessStoreTest, AChunkOutOfRangeIsRefused) {
  EndlessStore store(4);
  ASSERT_EQ(openQuietly(store), 0);
  CHUNK_USAGE usage{1, 2, 3, 4};
  for (short chunk : {short{-1}, short{5}}) {
    EXPECT_EQ(store.getUsage(chunk, &usage), -1);
    EXPECT_EQ(store.setUsage(chunk, 0, 0), -1);
    EXPECT_EQ(store.setFree(chunk, 0, 0), -1);
  }
  EXPECT_EQ(usage.useAddr, 1u);
}

TEST_F(EndlessStoreTest, TheDatabaseIsNotAskedForAChunk) {
  EndlessStore store(2);
  ASSERT_EQ(openQuietly(store), 0);
  short chunk = 0;
  // No chunk is marked unused and none belongs to channel 3.
  const std::string printed = printedBy([&] { chunk = store.firstAvailableChunk(1, 3, 0); });
  EXPECT_EQ(chunk, -1);
  EXPECT_EQ(printed, "");
  EXPECT_FALSE(std::filesystem::exists("/tmp/DB.dat"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(EndlessStoreTest, WithoutACardTheChunkFileIsReportedWithALeadingBlank) {
  ASSERT_EQ(unlink(kCardPath), 0);
  EndlessStore store(4);
  EXPECT_EQ(store.openManageData(kPartition), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " getChunkInfo open error"));
  EXPECT_TRUE(log.has(LOG_ERR, " /dev/sdblk0p1:MGSL0000 open error"));
}

TEST_F(EndlessStoreTest, AKindOutsideTheTableCannotBeOpened) {
  for (signed char kind : {-1, 9, 127, -128}) {
    EndlessStore store(kind);
    EXPECT_EQ(store.openManageData(kPartition), -1);
    EXPECT_EQ(store.numChunk(), 0);
  }
}

TEST_F(EndlessStoreTest, CrcErrorNamesTheSuffix) {
  card.writeChunk(tarn::kFileSyslogManage, 0, 0, {0x55});
  EndlessStore store(4);
  EXPECT_EQ(openQuietly(store), -2);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{LOG_ERR, " openManageData() CRC error (SL) "}));
}

}  // namespace
}  // namespace tarn_test
