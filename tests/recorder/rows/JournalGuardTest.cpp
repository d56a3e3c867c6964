#include <atomic>
#include <thread>

#include "dblog/CDbRestore.h"
#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"
#include "recorder/recovery/JournalSurvey.h"
#include "recorder/rows/JournalGuard.h"

namespace tarn_test {
namespace {

using tarn::JournalGuard;
using Verdict = JournalGuard::Verdict;

constexpr uint32_t kEvents = kJournalSize / 32;
constexpr uint32_t kStreams = kJournalSize / 64;

class JournalGuardTest : public ServedTest {
 protected:
  uint32_t insertEvent() {
    DB_EVENT row = eventRow(1);
    return db.insertEvent(&row);
  }
  uint32_t insertStream() {
    DB_STREAM row = streamRow(1);
    return db.insertStream(&row);
  }
  bool hasEvent(uint32_t key) {
    DB_EVENT row = {};
    return db.selectEvent(key, &row) == 1;
  }
  bool hasStream(uint32_t key) {
    DB_STREAM row = {};
    return db.selectStream(key, &row) == 1;
  }
  // What a rebuild would find: no two rows share a record.
  void expectEveryRowInTheJournal() {
    CApiDb reader;
    reader.setSql("SELECT eventID, backOffset FROM EVENT");
    for (uint32_t i = 0; i < reader.getNTuple(); ++i) {
      DB_EVENT row = {};
      ASSERT_EQ(db.selectEvent(reader.getValue(i, 0), &row), 1u);
      expectPair(0, row.backOffset, eventRecord(row));
    }
    reader.setSql("SELECT streamID, backOffset FROM STREAM");
    for (uint32_t i = 0; i < reader.getNTuple(); ++i) {
      DB_STREAM row = {};
      ASSERT_EQ(db.selectStream(reader.getValue(i, 0), &row), 1u);
      expectPair(2, row.backOffset, streamRecord(row));
    }
  }

  CApiDb db;
  CDbLog* journalLog = CDbLog::getInstance();
};

TEST_F(JournalGuardTest, AFreePlaceIsLeftAsItIs) {
  JournalGuard guard(&db);
  unsigned long key = 9;
  EXPECT_EQ(guard.checkEvent(&key), Verdict::kFree);
  EXPECT_EQ(key, 0u);
  EXPECT_EQ(guard.checkStream(&key), Verdict::kFree);
  EXPECT_TRUE(guard.beforeEventInsert());
  EXPECT_TRUE(guard.beforeStreamInsert());
  insertEvent();
  EXPECT_EQ(guard.checkEvent(), Verdict::kFree);
  EXPECT_THAT(log.atPriority(LOG_ERR), testing::IsEmpty());
}

TEST_F(JournalGuardTest, WhenTheRingComesRoundTheOldestEventGoes) {
  for (uint32_t i = 0; i < kEvents; ++i) insertEvent();
  JournalGuard guard(&db);
  unsigned long key = 0;
  EXPECT_EQ(guard.checkEvent(&key), Verdict::kOldestRow);
  EXPECT_EQ(key, 1u);
  EXPECT_TRUE(guard.beforeEventInsert());
  EXPECT_FALSE(hasEvent(1));
  EXPECT_TRUE(hasEvent(2));
  EXPECT_TRUE(log.has(LOG_EMERG, "CApiDb::deleteEvent() delete eventID = 1"));
  EXPECT_EQ(guard.checkEvent(), Verdict::kFree);
  EXPECT_EQ(insertEvent(), kEvents + 1);
  expectEveryRowInTheJournal();
}

TEST_F(JournalGuardTest, TheOldestRecordingIsDeletedByItsOwner) {
  for (uint32_t i = 0; i < kStreams; ++i) insertStream();
  JournalGuard guard(&db);
  std::vector<uint32_t> deleted;
  EXPECT_TRUE(guard.beforeStreamInsert([&](const DB_STREAM& row) {
    deleted.push_back(row.streamID);
    EXPECT_EQ(row.backOffset, 0u);
    EXPECT_EQ(row.chunkOffset, streamRow(1).chunkOffset);
    return db.deleteStream(row.streamID) != 0;
  }));
  EXPECT_EQ(deleted, (std::vector<uint32_t>{1}));
  EXPECT_EQ(insertStream(), kStreams + 1);
  expectEveryRowInTheJournal();
}

TEST_F(JournalGuardTest, WithoutAnOwnerTheOldestRecordingsRowGoes) {
  for (uint32_t i = 0; i < kStreams; ++i) insertStream();
  EXPECT_TRUE(JournalGuard(&db).beforeStreamInsert());
  EXPECT_FALSE(hasStream(1));
}

TEST_F(JournalGuardTest, AnOwnerThatDoesNotDeleteStopsTheInsert) {
  for (uint32_t i = 0; i < kStreams; ++i) insertStream();
  JournalGuard guard(&db);
  EXPECT_FALSE(guard.beforeStreamInsert([](const DB_STREAM&) { return false; }));
  EXPECT_FALSE(guard.beforeStreamInsert([](const DB_STREAM&) { return true; }))
      << "it only says so";
  EXPECT_TRUE(hasStream(1));
}

// Three turns of the ring, guarded: no record of a listed row is ever overwritten.
TEST_F(JournalGuardTest, ARingThatTurnsKeepsRowsAndRecordsTogether) {
  for (uint32_t i = 0; i < 3 * kEvents; ++i) {
    JournalGuard guard(&db);
    ASSERT_TRUE(guard.beforeEventInsert());
    ASSERT_TRUE(guard.beforeStreamInsert());
    ASSERT_EQ(insertEvent(), i + 1);
    ASSERT_EQ(insertStream(), i + 1);
    if (i % 7 == 0) expectEveryRowInTheJournal();
  }
  expectEveryRowInTheJournal();
  db.setSql("SELECT COUNT(*) FROM EVENT");
  EXPECT_EQ(db.getValue(0, 0), kEvents);
}

TEST_F(JournalGuardTest, DeletedRowsLeaveTheirPlacesFree) {
  for (uint32_t i = 0; i < kEvents; ++i) insertEvent();
  db.deleteEvent(1);
  JournalGuard guard(&db);
  EXPECT_EQ(guard.checkEvent(), Verdict::kFree);
}

TEST_F(JournalGuardTest, AStaleFreeOffsetIsCorrectedBeforeAnythingIsWritten) {
  for (int i = 0; i < 4; ++i) {
    insertEvent();
    insertStream();
  }
  ASSERT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kEvent, 64), 0);
  ASSERT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kStream, 64), 0);
  JournalGuard guard(&db);
  unsigned long key = 0;
  EXPECT_EQ(guard.checkEvent(&key), Verdict::kStale);
  EXPECT_EQ(key, 3u);
  EXPECT_EQ(guard.checkStream(&key), Verdict::kStale);
  EXPECT_EQ(key, 2u);
  EXPECT_TRUE(guard.beforeEventInsert());
  EXPECT_TRUE(guard.beforeStreamInsert());
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 128u);
  EXPECT_EQ(journalLog->getStreamLogBackOffset(), 256u);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{128, 128, 256, 256}));
  EXPECT_TRUE(log.has(LOG_WARNING,
                      "journal: free offset 64 of the event journal is stale, corrected to 128"));
  EXPECT_TRUE(log.has(LOG_WARNING,
                      "journal: free offset 64 of the stream journal is stale, corrected to 256"));
  for (uint32_t row = 1; row <= 4; ++row) EXPECT_TRUE(hasEvent(row) && hasStream(row));
  expectEveryRowInTheJournal();
}

TEST_F(JournalGuardTest, AFailedRewriteOfTheMirrorIsCaught) {
  insertEvent();
  insertEvent();
  // The original's free offset has gone back by one record.
  DB_EVENT row = {};
  ASSERT_EQ(db.selectEvent(1, &row), 1u);
  {
    IoFaults faults(kCardPath);
    faults.fail(Call::Write, 2, EIO);
    EXPECT_FALSE(journalLog->updateEvent(0x10, &row));
  }
  ASSERT_EQ(journalLog->getEventLogBackOffset(), 32u);
  JournalGuard guard(&db);
  EXPECT_TRUE(guard.beforeEventInsert());
  EXPECT_EQ(insertEvent(), 3u);
  ASSERT_EQ(db.selectEvent(3, &row), 1u);
  EXPECT_EQ(row.backOffset, 64u);
  expectEveryRowInTheJournal();
}

// A journal ends at its first erased record: passing over a place would lose all that follows.
TEST_F(JournalGuardTest, ARecordThatWasNeverWrittenIsWrittenBeforeTheNextOne) {
  insertEvent();
  {
    IoFaults faults(kCardPath);
    faults.fail(Call::Write, 1, EIO);
    EXPECT_EQ(insertEvent(), 2u);
  }
  EXPECT_EQ(journal(0, 32, 32), Bytes(32, 0xFF));
  {
    JournalGuard guard(&db);
    EXPECT_EQ(guard.checkEvent(), Verdict::kStale);
    EXPECT_TRUE(guard.beforeEventInsert());
    EXPECT_EQ(insertEvent(), 3u);
  }
  expectEveryRowInTheJournal();
  insertStream();
  {
    IoFaults faults(kCardPath);
    faults.fail(Call::Write, 2, EIO);
    EXPECT_EQ(insertStream(), 2u);
  }
  JournalGuard guard(&db);
  EXPECT_TRUE(guard.beforeStreamInsert());
  EXPECT_EQ(insertStream(), 3u);
  expectEveryRowInTheJournal();
}

TEST_F(JournalGuardTest, AnOnlyRowAtTheNextPlaceIsNotDeleted) {
  insertEvent();
  ASSERT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kEvent, 0), 0);
  JournalGuard guard(&db);
  EXPECT_TRUE(guard.beforeEventInsert());
  EXPECT_TRUE(hasEvent(1));
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 32u);
}

TEST_F(JournalGuardTest, ARowThatLiesInTheWayGoesAlone) {
  for (int i = 0; i < 3; ++i) insertEvent();
  // Row 2 claims the place behind the newest row: neither the oldest nor a stale offset.
  db.setSqlNoResult("UPDATE EVENT SET backOffset = 96 WHERE eventID = 2");
  setPair(0, 96, eventRecord(eventRow(2)));
  JournalGuard guard(&db);
  EXPECT_TRUE(guard.beforeEventInsert());
  EXPECT_TRUE(log.has(LOG_ERR, "journal: record of event 2 lies in the way, the row is deleted"));
  EXPECT_TRUE(hasEvent(1));
  EXPECT_FALSE(hasEvent(2));
  EXPECT_TRUE(hasEvent(3));
}

// An older database was copied over the file: what it does not list was promised all the same.
TEST_F(JournalGuardTest, ALiveRecordThatTheDatabaseCannotKnowIsNotOverwritten) {
  insertEvent();
  insertStream();
  DB_EVENT event = eventRow(9);
  event.backOffset = 32;
  DB_STREAM stream = streamRow(8);
  stream.backOffset = 64;
  setPair(0, 32, eventRecord(event));
  setPair(2, 64, streamRecord(stream));
  JournalGuard guard(&db);
  EXPECT_EQ(guard.checkEvent(), Verdict::kFailed);
  EXPECT_FALSE(guard.beforeEventInsert());
  EXPECT_FALSE(guard.beforeStreamInsert());
  EXPECT_TRUE(log.has(LOG_ERR,
                      "journal: the next place holds event 9, whose key the database has not given "
                      "yet: it is older than the card, a start makes it anew"));
  expectPair(0, 32, eventRecord(event));
  expectPair(2, 64, streamRecord(stream));
}

TEST_F(JournalGuardTest, OneGoodCopyOfSuchARecordIsEnough) {
  insertStream();
  DB_STREAM stream = streamRow(8);
  stream.backOffset = 64;
  setPair(2, 64, streamRecord(stream));
  setJournal(2, 64, Bytes(64, 0));
  EXPECT_EQ(JournalGuard(&db).checkStream(), Verdict::kFailed);
}

// The record of an insert that was taken back, while the card took nothing more.
TEST_F(JournalGuardTest, TheRecordOfAnInsertThatFailedIsOverwritten) {
  insertEvent();
  DB_EVENT event = eventRow(1);
  event.backOffset = 32;
  setPair(0, 32, eventRecord(event));
  JournalGuard guard(&db);
  EXPECT_TRUE(guard.beforeEventInsert());
  EXPECT_EQ(insertEvent(), 2u);
  expectEveryRowInTheJournal();
}

TEST_F(JournalGuardTest, APlaceThatTheCardRefusesIsNotWrittenTo) {
  insertStream();
  JournalGuard guard(&db);
  {
    IoFaults faults(kCardPath);
    faults.fail(Call::Read, 1, EIO);
    EXPECT_TRUE(guard.beforeStreamInsert()) << "it is asked again";
    faults.fail(Call::Read, 1, EIO, 1000);
    EXPECT_FALSE(guard.beforeStreamInsert());
  }
  EXPECT_TRUE(log.has(
      LOG_ERR, "journal: stream chunk 2 at byte 64 cannot be read, nothing is written there"));
  EXPECT_TRUE(guard.beforeStreamInsert());
}

// Nobody was told of a record there: it would lie in both.
TEST_F(JournalGuardTest, APlaceIsFreeWhereOneCopyIsErasedAndTheOtherRefused) {
  insertStream();
  JournalGuard guard(&db);
  for (const int chunk : {2, 3}) {
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, card.chunkStart(tarn::kFileJournal, chunk) + 64, 64, EIO);
    EXPECT_TRUE(guard.beforeStreamInsert()) << chunk;
  }
  insertStream();
  expectEveryRowInTheJournal();
}

TEST_F(JournalGuardTest, NothingIsAllowedWithoutAServer) {
  insertEvent();
  journalLog->finish();
  stopServer();
  JournalGuard guard(&db);
  EXPECT_EQ(guard.checkEvent(), Verdict::kFailed);
  EXPECT_FALSE(guard.beforeEventInsert());
  EXPECT_FALSE(guard.beforeStreamInsert());
  EXPECT_EQ(guard.correct(), -1);
  EXPECT_TRUE(hasEvent(1));
}

TEST_F(JournalGuardTest, NothingIsAllowedWithoutATable) {
  insertEvent();
  db.setSqlNoResult("DROP TABLE EVENT");
  EXPECT_EQ(JournalGuard(&db).checkEvent(), Verdict::kFailed);
}

TEST_F(JournalGuardTest, CorrectsBothJournals) {
  for (int i = 0; i < 3; ++i) {
    insertEvent();
    insertStream();
  }
  ASSERT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kEvent, 0), 0);
  ASSERT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kStream, 0), 0);
  JournalGuard guard(&db);
  EXPECT_EQ(guard.correct(), 0);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{96, 96, 192, 192}));
  EXPECT_EQ(guard.correct(), 0);
}

TEST_F(JournalGuardTest, WhileAGuardLivesNoOtherThreadInserts) {
  std::atomic<bool> inserted{false};
  std::thread other;
  {
    JournalGuard guard(&db);
    EXPECT_TRUE(guard.beforeEventInsert());
    other = std::thread([&] {
      CApiDb mine;
      DB_EVENT row = eventRow(1);
      EXPECT_EQ(mine.insertEvent(&row), 2u);
      inserted = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(inserted);
    EXPECT_EQ(insertEvent(), 1u);
  }
  other.join();
  EXPECT_TRUE(inserted);
}

}  // namespace
}  // namespace tarn_test
