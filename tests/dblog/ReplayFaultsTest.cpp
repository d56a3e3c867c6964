#include <algorithm>

#include "dblog/CDbRestore.h"
#include "dblog/JournalRig.h"
#include "dblog/ReplayFailure.h"
#include "support/Pace.h"

namespace tarn_test {
namespace {

constexpr uint32_t kLargeJournal = 192 * kKiB;  // three blocks, 6144 event records
constexpr uint32_t kBlock = 64 * kKiB;

// A journal of several blocks, whose statements are slow enough to keep few: most of its records
// are deleted ones.
class ReplayFaults : public CardTest {
 protected:
  ReplayFaults() : CardTest(kLargeJournal) {
    Bytes all;
    for (uint32_t i = 0; i < kLargeJournal / 32; ++i) {
      DB_EVENT row = eventRow(i + 1);
      row.backOffset = i * 32;
      const Bytes record = eventRecord(row, i % 64 == 0 ? 0xFFFFFFED : 0xFFFFFFEF);
      all.insert(all.end(), record.begin(), record.end());
    }
    setPair(0, 0, all);
  }
  // On a connection of its own: the file is another one after makeDatabase().
  static uint32_t rows() {
    CApiDb db;
    db.setSql("SELECT COUNT(*) FROM EVENT");
    return db.getValue(0, 0);
  }

  static constexpr uint32_t kRows = kLargeJournal / 32 / 64;
  CDbRestore restore;
};

TEST_F(ReplayFaults, TheJournalIsReadInLargeBlocks) {
  const IoFaults faults(kCardPath);
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(rows(), kRows);
  const auto start = static_cast<int64_t>(card.chunkStart(tarn::kFileJournal, 0));
  std::vector<uint64_t> lengths;
  for (const IoRecord& call : faults.calls()) {
    const bool inside = call.offset >= start && call.offset < start + int64_t{2} * kLargeJournal;
    if (call.call == Call::Read && inside) lengths.push_back(call.length);
  }
  EXPECT_EQ(lengths, (std::vector<uint64_t>{kBlock, kBlock, kBlock}));
}

// Every read of the replay fails once in turn: a passing error costs no row.
TEST_F(ReplayFaults, APassingReadErrorAnywhereCostsNoRow) {
  int survived = 0;
  for (int n = 1;; n += tarn_test::kPlaceStep) {
    makeDatabase();
    IoFaults faults(kCardPath);
    faults.fail(Call::Read, n, EIO);
    const int result = restore.restoreEventDb();
    if (static_cast<int>(faults.count(Call::Read)) < n) break;
    // The first reads are those of the opens and of the management data, which have no second copy.
    EXPECT_EQ(rows(), result == 0 ? kRows : 0) << n;
    if (result == 0) ++survived;
  }
  // The three blocks, and the reads that find the chunk for them.
  EXPECT_GE(survived, tarn_test::kPlaceStep == 1 ? 3 : 1);
}

TEST_F(ReplayFaults, ABlockThatTheDeviceDoesNotDeliverIsReadRecordByRecord) {
  const auto start = static_cast<int64_t>(card.chunkStart(tarn::kFileJournal, 0));
  IoFaults faults(kCardPath);
  EXPECT_EQ(restore.restoreEventDb(), 0);
  const auto calls = faults.calls();
  int reads = 0;
  for (const IoRecord& call : calls) {
    if (call.call != Call::Read) continue;
    ++reads;
    if (call.length == kBlock && call.offset == start + kBlock) break;
  }
  makeDatabase();
  faults.clear();
  faults.shorten(Call::Read, reads, 100);
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(rows(), kRows);
  size_t single = 0;
  for (const IoRecord& call : faults.calls()) {
    if (call.call == Call::Read && call.length == 32 && call.offset >= start + kBlock &&
        call.offset < start + 2 * int64_t{kBlock}) {
      ++single;
    }
  }
  EXPECT_EQ(single, kBlock / 32);
  EXPECT_TRUE(log.has(LOG_INFO, "restoreEventDb : checked records = 6144 offset = 196608"));
}

// From some read on nothing comes any more, in neither copy. That is neither damage nor the end:
// the replay stops, and says where.
TEST_F(ReplayFaults, ADeviceThatGoesSilentFailsTheReplay) {
  IoFaults faults(kCardPath);
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_STREQ(tarn::lastReplayFailure(), "");
  int reads = 0;
  for (const IoRecord& call : faults.calls()) {
    if (call.call == Call::Read) {
      ++reads;
      if (call.length == kBlock) break;
    }
  }
  makeDatabase();
  faults.clear();
  faults.fail(Call::Read, reads + 1, EIO, IoFaults::kForever);
  EXPECT_EQ(restore.restoreEventDb(), -1);
  EXPECT_TRUE(log.has(LOG_ERR, "the event journal cannot be read at byte 65536"));
  EXPECT_STREQ(tarn::lastReplayFailure(), "the event journal cannot be read at byte 65536");
}

// The mirror's copy of a place that is refused counts when it lies in its place, and is no proof of
// anything when it does not: a place that is erased there may be the newest record of the original.
TEST_F(ReplayFaults, BesideARefusedCopyTheOtherCountsOnlyInItsPlace) {
  const auto start = static_cast<int64_t>(card.chunkStart(tarn::kFileJournal, 0));
  IoFaults faults(kCardPath);
  EXPECT_EQ(restore.restoreEventDb(), 0);
  int reads = 0;
  for (const IoRecord& call : faults.calls()) {
    if (call.call != Call::Read) continue;
    ++reads;
    if (call.offset == start) break;
  }
  for (const bool erased : {false, true}) {
    if (erased) setJournal(1, 0, Bytes(32, 0xFF));
    makeDatabase();
    faults.clear();
    faults.fail(Call::Read, reads, EIO, 2);  // the block, and the first record
    EXPECT_EQ(restore.restoreEventDb(), 0) << "it came when it was asked for again";
    EXPECT_EQ(rows(), kRows);
    makeDatabase();
    faults.clear();
    faults.fail(Call::Read, reads, EIO, 2);
    faults.fail(Call::Read, reads + 3, EIO, 20);  // behind the mirror's block
    EXPECT_EQ(restore.restoreEventDb(), erased ? -1 : 0);
  }
}

// SQLite takes a transaction back by itself when the disk is full: what the second attempt inserts
// would be all that comes back.
TEST_F(ReplayFaults, ATransactionThatIsTakenBackFailsTheReplay) {
  {
    CApiDb db;
    db.setSqlNoResult(
        "CREATE TRIGGER t BEFORE INSERT ON EVENT WHEN ( SELECT COUNT(*) FROM EVENT ) > 40 "
        "BEGIN SELECT RAISE( ROLLBACK, 'no room' ); END");
  }
  EXPECT_EQ(restore.restoreEventDb(), -1);
  EXPECT_EQ(rows(), 0u);
  EXPECT_STREQ(tarn::lastReplayFailure(), "the database did not keep the rows of the journal");
}

TEST_F(ReplayFaults, AFullRamDiskFailsTheReplayAndIsNamed) {
  IoFaults disk("/tmp/DB.dat");
  disk.fail(Call::Pwrite, 1, ENOSPC, IoFaults::kForever);
  EXPECT_EQ(restore.restoreEventDb(), -1);
  EXPECT_STREQ(tarn::lastReplayFailure(),
               "the database has no room for the rows of the journal: /tmp is full");
  EXPECT_TRUE(log.has(LOG_ERR, tarn::lastReplayFailure()));
}

TEST_F(ReplayFaults, AnOriginalLostAsZerosIsReplayedFromTheMirror) {
  setJournal(0, 0, Bytes(512, 0));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(rows(), kRows);
}

TEST_F(ReplayFaults, ARecordErasedInTheOriginalAloneIsNotTheEnd) {
  setJournal(0, 64, Bytes(32, 0xFF));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(rows(), kRows);
  EXPECT_TRUE(log.has(LOG_INFO, "restoreEventDb : checked records = 6144 offset = 196608"));
}

TEST_F(ReplayFaults, AJournalOfNoiseIsSkippedToItsEnd) {
  setJournal(0, 0, patternBytes(kLargeJournal, 3));
  setJournal(1, 0, patternBytes(kLargeJournal, 4));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(rows(), 0u);
}

class ReplayLimit : public CardTest {
 protected:
  ReplayLimit() : CardTest(12 * kMiB + 128) {}
};

// Kept: one record more than a 12 MiB chunk has is read, then the replay ends.
TEST_F(ReplayLimit, NoMoreRecordsAreReadThanTheLimitAllows) {
  const Bytes zeros(12 * kMiB + 128, 0);  // valid records that are no rows
  setPair(0, 0, zeros);
  setPair(2, 0, zeros);
  CDbRestore restore;
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_TRUE(log.has(LOG_INFO, "restoreEventDb : checked records = 393217 offset = 12582944"));
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_TRUE(log.has(LOG_INFO, "restoreStreamDbRec : checked records = 196609 offset = 12582976"));
}

}  // namespace
}  // namespace tarn_test
