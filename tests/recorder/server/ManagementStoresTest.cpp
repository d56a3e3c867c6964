// What the management server answers to each request, on a real card.

#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <random>

#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/server/ManagementStores.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace tarn_test {
namespace {

using tarn::kResultCard;
using tarn::kResultDone;
using tarn::kResultRefused;
using tarn::RequestRecord;

constexpr uint32_t kStreams = 4;  // chunks of the card
constexpr uint32_t kStreamArea = 4 * kMiB;
constexpr uint32_t kPictureArea = 256 * kKiB;
constexpr uint32_t kJournalArea = 64 * kKiB;

RequestRecord request(uint32_t command, uint32_t kind, uint32_t arg0 = 0, uint32_t arg1 = 0,
                      uint32_t arg2 = 0) {
  RequestRecord record;
  record.setCommand(command);
  record.setKind(kind);
  record.setResult(tarn::kResultUnanswered);
  record.setPartition(51);
  record.setArg0(arg0);
  record.setArg1(arg1);
  record.setArg2(arg2);
  return record;
}

class StoresTest : public testing::Test {
 protected:
  StoresTest() { card_.initManagement(); }

  void open() { EXPECT_EQ(stores_.open(), 3); }
  RequestRecord ask(uint32_t command, uint32_t kind, uint32_t arg0 = 0, uint32_t arg1 = 0,
                    uint32_t arg2 = 0) {
    RequestRecord record = request(command, kind, arg0, arg1, arg2);
    stores_.answer(record);
    return record;
  }
  uint32_t resultOf(uint32_t command, uint32_t kind, uint32_t arg0 = 0, uint32_t arg1 = 0,
                    uint32_t arg2 = 0) {
    return ask(command, kind, arg0, arg1, arg2).result();
  }
  // A number of the card's management file.
  uint32_t stored(int manageType, int copy, uint32_t chunk, uint32_t offset) {
    return tarn::getLe32(card_.readChunk(manageType, copy, chunk * 24 + offset, 4).data());
  }

  SyslogCapture log_;
  CardImage card_;
  tarn::ManagementStores stores_;
};

using ManagementStores = StoresTest;

TEST_F(ManagementStores, UsageIsSetAndReadPerArea) {
  open();
  EXPECT_EQ(resultOf(tarn::kRequestSetUseOffset, 7, 2, 100, 1), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 2, 200, 1), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestSetUseOffset, 7, 2, 300, 0), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 2, 400, 0), kResultDone);
  const RequestRecord answer = ask(tarn::kRequestGetUsage, 7, 2);
  EXPECT_EQ(answer.result(), kResultDone);
  EXPECT_EQ(answer.usage().useAddr, 300u);
  EXPECT_EQ(answer.usage().freeAddr, 400u);
  EXPECT_EQ(answer.usage().streamUseAddr, 100u);
  EXPECT_EQ(answer.usage().streamFreeAddr, 200u);
}

TEST_F(ManagementStores, OffsetsAtTheAreasEndAreStoredAsZero) {
  open();
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 0, kStreamArea, 1), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 0, 0xFFFFFFFF, 0), kResultDone);
  EXPECT_EQ(ask(tarn::kRequestGetUsage, 7, 0).usage().streamFreeAddr, 0u);
  EXPECT_EQ(ask(tarn::kRequestGetUsage, 7, 0).usage().freeAddr, 0u);
}

TEST_F(ManagementStores, AreaSelectorIsTestedAsAWholeWord) {
  open();
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 1, 64, 0x100), kResultDone);
  EXPECT_EQ(ask(tarn::kRequestGetUsage, 7, 1).usage().streamFreeAddr, 64u);
}

TEST_F(ManagementStores, EndlessUsageLeavesTheSecondPairAsSent) {
  open();
  EXPECT_EQ(resultOf(tarn::kRequestSetUseOffset, 2, 3, 64), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 2, 3, 128), kResultDone);
  RequestRecord record = request(tarn::kRequestGetUsage, 2, 3);
  record.setUsage({1, 2, 0xAABBCCDD, 0x11223344});
  stores_.answer(record);
  EXPECT_EQ(record.result(), kResultDone);
  EXPECT_EQ(record.usage().useAddr, 64u);
  EXPECT_EQ(record.usage().freeAddr, 128u);
  EXPECT_EQ(record.usage().streamUseAddr, 0xAABBCCDDu);
  EXPECT_EQ(record.usage().streamFreeAddr, 0x11223344u);
}

TEST_F(ManagementStores, AttributesComeBackSignExtended) {
  open();
  EXPECT_EQ(resultOf(tarn::kRequestSetChunkAttr, 7, 1, 0xFFFFFF80, 0x7F), kResultDone);
  RequestRecord answer = ask(tarn::kRequestGetChunkAttr, 7, 1);
  EXPECT_EQ(answer.result(), kResultDone);
  EXPECT_EQ(answer.arg1(), 0xFFFFFF80u);
  EXPECT_EQ(answer.arg2(), 0x7Fu);
  EXPECT_EQ(resultOf(tarn::kRequestSetChunkAttr, 7, 1, 0xFF, 0), kResultDone);
  EXPECT_EQ(ask(tarn::kRequestGetChunkAttr, 7, 1).arg1(), 0xFFFFFFFFu);
}

TEST_F(ManagementStores, AttributesThatAreNoByteAreRefused) {
  open();
  for (const uint32_t word : {0x100u, 0xFFFFFF7Fu, 0x80000000u, 0x7FFFFFFFu}) {
    EXPECT_EQ(resultOf(tarn::kRequestSetChunkAttr, 7, 1, word, 0), kResultRefused);
    EXPECT_EQ(resultOf(tarn::kRequestSetChunkAttr, 7, 1, 0, word), kResultRefused);
    EXPECT_EQ(resultOf(tarn::kRequestFirstAvailable, 7, 1, word, 0), kResultRefused);
    EXPECT_EQ(resultOf(tarn::kRequestFirstAvailable, 7, 1, 0, word), kResultRefused);
  }
  EXPECT_EQ(ask(tarn::kRequestGetChunkAttr, 7, 1).arg1(), 0xFFFFFFFFu);  // still unused
}

TEST_F(ManagementStores, CountsAndSizesAreTheCards) {
  open();
  EXPECT_EQ(ask(tarn::kRequestNumChunk, 7).arg1(), kStreams);
  EXPECT_EQ(ask(tarn::kRequestNumChunk, 2).arg1(), 4u);
  EXPECT_EQ(ask(tarn::kRequestNumChunk, 4).arg1(), 5u);
  EXPECT_EQ(ask(tarn::kRequestChunkSize, 7, 0, 1).arg1(), kStreamArea);
  EXPECT_EQ(ask(tarn::kRequestChunkSize, 7, 0, 0).arg1(), kPictureArea);
  EXPECT_EQ(ask(tarn::kRequestChunkSize, 2, 0, 1).arg1(), kJournalArea);
  EXPECT_EQ(ask(tarn::kRequestNumUsedChunk, 7).arg1(), 0u);
  EXPECT_EQ(resultOf(tarn::kRequestSetChunkAttr, 7, 3, 1, 0), kResultDone);
  EXPECT_EQ(ask(tarn::kRequestNumUsedChunk, 7).arg1(), 1u);
  EXPECT_EQ(ask(tarn::kRequestFreeSizeTotal, 7).total(), int64_t{kStreams} * kStreamArea);
  EXPECT_EQ(ask(tarn::kRequestFreeSizeTotal, 7).result(), kResultDone);
}

TEST_F(ManagementStores, UnknownAreaOfASizeIsRefused) {
  open();
  for (const uint32_t area : {2u, 0x10000u, 0x10001u, 0xFFFFFFFFu}) {
    EXPECT_EQ(resultOf(tarn::kRequestChunkSize, 7, 0, area), kResultRefused);
  }
}

TEST_F(ManagementStores, ChunkForAChannelIsChosen) {
  ASSERT_EQ(system("/usr/local/bin/dbsetup init && /usr/local/bin/dbsetup start"), 0);
  open();
  RequestRecord answer = ask(tarn::kRequestFirstAvailable, 7, 1000, 2, 0);
  EXPECT_EQ(answer.result(), kResultDone);
  EXPECT_EQ(answer.arg0(), 1u);  // the first unused one after chunk 0
  for (uint32_t chunk = 0; chunk < kStreams; ++chunk) {
    EXPECT_EQ(resultOf(tarn::kRequestSetChunkAttr, 7, chunk, 5, 0), kResultDone);
  }
  answer = ask(tarn::kRequestFirstAvailable, 7, 1000, 2, 0);
  EXPECT_EQ(answer.result(), kResultRefused);
  EXPECT_EQ(answer.arg0(), 1000u);  // as sent
}

// Holds the database's lock, as a program does that hangs in a statement.
class HeldDatabase {
 public:
  HeldDatabase() { EXPECT_EQ(db_.lockSem(), 0u); }
  ~HeldDatabase() { release(); }
  void release() {
    if (held_) db_.unlockSem();
    held_ = false;
  }

 private:
  CApiDb db_;
  bool held_ = true;
};

TEST_F(ManagementStores, ALockedDatabaseIsNotWaitedForAndIsNoAnswer) {
  ASSERT_EQ(system("/usr/local/bin/dbsetup init"), 0);
  open();
  HeldDatabase held;
  const int64_t begin = tarn::monotonicMs();
  EXPECT_EQ(resultOf(tarn::kRequestFirstAvailable, 7, 1000, 2, 0), tarn::kResultDatabase);
  EXPECT_EQ(resultOf(tarn::kRequestFirstAvailable, 7, 1000, 2, 0), tarn::kResultDatabase);
  EXPECT_LT(tarn::monotonicMs() - begin, 900) << "the second one is not kept waiting";
  EXPECT_TRUE(
      log_.has(LOG_ERR, "the database is locked: requests for a chunk to record to are refused"));
  EXPECT_EQ(resultOf(tarn::kRequestFirstAvailable, 2, 1000, 0, 0), kResultRefused) << "no database";
  held.release();
  EXPECT_EQ(resultOf(tarn::kRequestFirstAvailable, 7, 1000, 2, 0), kResultDone);
}

TEST_F(ManagementStores, AReadErrorThatPassesWhileOpeningIsNoReasonToRefuse) {
  IoFaults faults(kCardPath);
  faults.fail(Call::Open, 2, EIO);
  open();
}

TEST_F(ManagementStores, SaveWritesBothCopies) {
  open();
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 2, 0x1234, 1), kResultDone);
  EXPECT_EQ(stored(tarn::kFileStreamManage, 0, 2, 12), 0u);
  EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, 7), kResultDone);
  EXPECT_EQ(stored(tarn::kFileStreamManage, 0, 2, 12), 0x1234u);
  EXPECT_EQ(stored(tarn::kFileStreamManage, 1, 2, 12), 0x1234u);
}

TEST_F(ManagementStores, FailedSaveIsTheCards) {
  open();
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 1, EIO, 4);  // both copies, both tries
  EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, 7), kResultCard);
  EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, 7), kResultDone);
}

TEST_F(ManagementStores, KindsOfOneSuffixShareAStore) {
  open();
  const std::vector<std::vector<uint32_t>> families = {{5, 6, 7}, {1, 2}, {3, 4}};
  uint32_t value = 64;
  for (const auto& kinds : families) {
    for (const uint32_t setter : kinds) {
      value += 64;
      EXPECT_EQ(resultOf(tarn::kRequestSetUseOffset, setter, 1, value), kResultDone);
      for (const uint32_t getter : kinds) {
        EXPECT_EQ(ask(tarn::kRequestGetUsage, getter, 1).usage().useAddr, value);
      }
    }
  }
}

// They would be answered with another card's records, and change those.
TEST_F(ManagementStores, APartitionThatIsNotTheRecordersIsRefused) {
  open();
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 1, 640, 1), kResultDone);
  for (const uint32_t partition : {0u, 1u, 3u, 50u, 52u, 0x133u, 0x33000000u, 0xFFFFFFFFu}) {
    for (uint32_t command = 0; command <= 13; ++command) {
      for (const uint32_t kind : {2u, 4u, 7u}) {
        RequestRecord record = request(command, kind, 1, 1, 1);
        record.setPartition(partition);
        RequestRecord expected = record;
        expected.setResult(kResultRefused);
        stores_.answer(record);
        EXPECT_EQ(memcmp(record.bytes(), expected.bytes(), tarn::kRequestSize), 0)
            << partition << " " << command << " " << kind;
      }
    }
  }
  const RequestRecord answer = ask(tarn::kRequestGetUsage, 7, 1);
  EXPECT_EQ(answer.result(), kResultDone);
  EXPECT_EQ(answer.usage().streamFreeAddr, 640u);
  EXPECT_EQ(answer.usage().streamUseAddr, 0u);
}

TEST_F(ManagementStores, KindsWithoutAStoreAreRefused) {
  open();
  for (const uint32_t kind : {0u, 8u, 9u, 0x107u, 0x10007u, 0xFFFFFFFFu}) {
    EXPECT_EQ(resultOf(tarn::kRequestNumChunk, kind), kResultRefused) << kind;
    EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, kind), kResultRefused) << kind;
  }
}

TEST_F(ManagementStores, UnknownCommandsAreRefused) {
  open();
  for (const uint32_t command : {0u, 1u, 13u, 0x102u, 0x10006u, 0xFFFFFFFFu}) {
    EXPECT_EQ(resultOf(command, 7, 1), kResultRefused) << command;
  }
}

TEST_F(ManagementStores, ChunkNumbersAreTestedAsWholeWords) {
  open();
  for (const uint32_t chunk :
       {kStreams, 0x7FFFu, 0x8000u, 0xFFFFu, 0x10000u, 0x10001u, 0xFFFF0001u, 0xFFFFFFFFu}) {
    EXPECT_EQ(resultOf(tarn::kRequestGetUsage, 7, chunk), kResultRefused) << chunk;
    EXPECT_EQ(resultOf(tarn::kRequestSetChunkAttr, 7, chunk, 3, 3), kResultRefused) << chunk;
    EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, chunk, 64, 1), kResultRefused) << chunk;
    EXPECT_EQ(resultOf(tarn::kRequestSetUseOffset, 7, chunk, 64, 1), kResultRefused) << chunk;
    EXPECT_EQ(resultOf(tarn::kRequestGetChunkAttr, 7, chunk), kResultRefused) << chunk;
  }
  for (uint32_t chunk = 0; chunk < kStreams; ++chunk) {
    EXPECT_EQ(ask(tarn::kRequestGetUsage, 7, chunk).usage().streamFreeAddr, 0u);
    EXPECT_EQ(ask(tarn::kRequestGetChunkAttr, 7, chunk).arg1(), 0xFFFFFFFFu);
  }
}

TEST_F(ManagementStores, FieldsWithoutAnAnswerComeBackAsSent) {
  open();
  RequestRecord record = request(tarn::kRequestNumChunk, 7, 0x11111111, 0, 0x22222222);
  for (uint32_t i = 28; i < tarn::kRequestSize; ++i) record.bytes()[i] = static_cast<uint8_t>(i);
  RequestRecord expected = record;
  stores_.answer(record);
  expected.setResult(kResultDone);
  expected.setArg1(kStreams);
  EXPECT_EQ(0, memcmp(record.bytes(), expected.bytes(), tarn::kRequestSize));
}

TEST_F(ManagementStores, DamagedFilesRefuseTheirOwnRequestsOnly) {
  for (int copy : {0, 1}) card_.writeChunk(tarn::kFileJournalManage, copy, 5, {0x5A});
  testing::internal::CaptureStderr();
  EXPECT_EQ(stores_.open(), 2);
  const std::string text =
      "management data of the journal chunks are damaged: requests for them are refused";
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "tarn-server: " + text + "\n");
  EXPECT_TRUE(log_.has(LOG_ERR, text));
  for (const uint32_t kind : {1u, 2u}) {
    EXPECT_EQ(resultOf(tarn::kRequestNumChunk, kind), kResultCard);
    EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, kind), kResultCard);
    EXPECT_EQ(resultOf(tarn::kRequestFreeSizeTotal, kind), kResultCard);
  }
  EXPECT_EQ(resultOf(tarn::kRequestNumChunk, 4), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestNumChunk, 7), kResultDone);
  // A save of the others must leave what recovery will want to look at.
  EXPECT_EQ(stores_.save(), 0);
  EXPECT_EQ(card_.readChunk(tarn::kFileJournalManage, 0, 5, 1)[0], 0x5A);
}

TEST_F(ManagementStores, FailedSaveOfAllIsReportedAndTriesTheOthers) {
  open();
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 4, 0, 64), kResultDone);
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 1, EIO, 4);  // both copies, both tries
  testing::internal::CaptureStderr();
  EXPECT_EQ(stores_.save(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "tarn-server: management data of the stream chunks can't be saved\n");
  EXPECT_TRUE(log_.has(LOG_ERR, "management data of the stream chunks can't be saved"));
  EXPECT_EQ(stored(tarn::kFileSyslogManage, 0, 0, 12), 64u);
}

TEST_F(ManagementStores, ABadMainCopyIsNoReasonToRefuseWhenTheBackupIsGood) {
  card_.writeChunk(tarn::kFileJournalManage, 0, 5, {0x5A});
  testing::internal::CaptureStderr();
  open();
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "tarn-server: management data of the journal chunks are not good in their main copy: "
            "taken from the backup\n");
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 2, 1, 640), kResultDone);
  // The save makes the main copy good again, first of all.
  IoFaults faults(kCardPath);
  EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, 2), kResultDone);
  ASSERT_EQ(faults.writes().size(), 2u);
  EXPECT_EQ(faults.writes()[0].offset,
            static_cast<int64_t>(card_.chunkStart(tarn::kFileJournalManage, 0)));
  for (int copy : {0, 1}) EXPECT_EQ(stored(tarn::kFileJournalManage, copy, 1, 12), 640u);
}

TEST_F(ManagementStores, ASaveThatOneCopyTakesIsDoneWhereTheNextOpenFindsIt) {
  open();
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 1, EIO, 2);  // both tries of the backup
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 1, 64, 1), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, 7), kResultDone);
  EXPECT_TRUE(log_.has(LOG_WARNING, "management data (ST): only the main copy could be saved"));
  EXPECT_EQ(stored(tarn::kFileStreamManage, 0, 1, 12), 64u);
  EXPECT_EQ(stored(tarn::kFileStreamManage, 1, 1, 12), 0u);
}

// The older main copy would win at the next start.
TEST_F(ManagementStores, ASaveThatOnlyTheBackupTookIsRefusedBesideAGoodMainCopy) {
  open();
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 2, EIO, 2);
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 1, 64, 1), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, 7), kResultCard);
}

TEST_F(ManagementStores, ASaveBesideAMainCopyThatIsNotGoodGoesToTheBackup) {
  card_.writeChunk(tarn::kFileStreamManage, 0, 5, {0x5A});
  open();
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 1, EIO, 2);  // the main copy goes first, in two tries
  faults.fail(Call::Write, 4, EIO, 2);  // and is tried again at the end
  EXPECT_EQ(resultOf(tarn::kRequestSetFreeOffset, 7, 1, 64, 1), kResultDone);
  EXPECT_EQ(resultOf(tarn::kRequestSaveManageData, 7), kResultDone);
  EXPECT_TRUE(log_.has(LOG_WARNING, "management data (ST): only the backup copy could be saved"));
  EXPECT_EQ(stored(tarn::kFileStreamManage, 1, 1, 12), 64u);
  tarn::ManagementStores next;
  EXPECT_EQ(next.open(), 3);
}

TEST_F(ManagementStores, RandomRecordsDoNoHarm) {
  open();
  std::mt19937 random(20240501);
  for (int round = 0; round < 20000; ++round) {
    RequestRecord record;
    for (uint32_t i = 0; i < 64; i += 4) {
      // Small numbers as often as wild ones, so that some requests get far.
      const uint32_t word = static_cast<uint32_t>(random());
      tarn::putLe32(record.bytes() + i, round % 2 == 0 ? word % 16 : word);
    }
    // Saving and choosing are slow, and tested above.
    if (record.command() == tarn::kRequestSaveManageData) continue;
    if (record.command() == tarn::kRequestFirstAvailable) continue;
    stores_.answer(record);
    ASSERT_TRUE(record.result() == kResultDone || record.result() == kResultRefused);
  }
  for (uint32_t chunk = 0; chunk < kStreams; ++chunk) {
    const CHUNK_USAGE usage = ask(tarn::kRequestGetUsage, 7, chunk).usage();
    EXPECT_LT(usage.useAddr, kPictureArea);
    EXPECT_LT(usage.freeAddr, kPictureArea);
    EXPECT_LT(usage.streamUseAddr, kStreamArea);
    EXPECT_LT(usage.streamFreeAddr, kStreamArea);
  }
}

TEST(ManagementStoresWithoutACard, EverythingIsRefused) {
  SyslogCapture log;
  tarn::ManagementStores stores;
  testing::internal::CaptureStderr();
  EXPECT_EQ(stores.open(), 0);
  std::string expected;
  for (const std::string name : {"stream", "journal", "syslog"}) {
    const std::string text =
        "management data of the " + name + " chunks can't be read: requests for them are refused";
    expected += "tarn-server: " + text + "\n";
    EXPECT_TRUE(log.has(LOG_ERR, text));
  }
  EXPECT_EQ(testing::internal::GetCapturedStderr(), expected);
  for (uint32_t kind = 0; kind < 10; ++kind) {
    for (uint32_t command = 0; command < 14; ++command) {
      RequestRecord record = request(command, kind);
      stores.answer(record);
      EXPECT_EQ(record.result(), kind >= 1 && kind <= 7 ? kResultCard : kResultRefused)
          << command << " " << kind;
    }
  }
  EXPECT_EQ(stores.save(), 0);
}

}  // namespace
}  // namespace tarn_test
