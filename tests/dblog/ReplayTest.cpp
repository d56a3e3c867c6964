#include <functional>

#include "dblog/CDbRestore.h"
#include "dblog/JournalRig.h"

namespace tarn_test {
namespace {

constexpr char kUseMirror[] =
    "read : original side data read error. use mirror size data (read offset = %u)\n";

// Both replays on a card whose journals the test writes byte by byte.
class Replay : public CardTest {
 protected:
  explicit Replay(uint32_t journalSize = kJournalSize) : CardTest(journalSize) {}

  static DB_EVENT eventAt(uint32_t key, uint32_t offset) {
    DB_EVENT row = eventRow(key);
    row.backOffset = offset;
    return row;
  }
  static DB_STREAM streamAt(uint32_t key, uint32_t offset) {
    DB_STREAM row = streamRow(key);
    row.backOffset = offset;
    return row;
  }
  // Writes live records 1 to count into both copies.
  void writeEvents(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) setPair(0, i * 32, eventRecord(eventAt(i + 1, i * 32)));
  }
  void writeStreams(uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) setPair(2, i * 64, streamRecord(streamAt(i + 1, i * 64)));
  }
  std::vector<uint32_t> eventKeys() {
    std::vector<uint32_t> keys;
    db.setSql("SELECT eventID FROM EVENT ORDER BY eventID");
    for (uint32_t i = 0; i < db.getNTuple(); ++i) keys.push_back(db.getValue(i, 0));
    return keys;
  }
  std::vector<uint32_t> streamKeys() {
    std::vector<uint32_t> keys;
    db.setSql("SELECT streamID FROM STREAM ORDER BY streamID");
    for (uint32_t i = 0; i < db.getNTuple(); ++i) keys.push_back(db.getValue(i, 0));
    return keys;
  }
  void expectDone(const char* name, unsigned records, unsigned offset) {
    const std::string text = std::string(name) + " : checked records = " + std::to_string(records) +
                             " offset = " + std::to_string(offset);
    EXPECT_TRUE(log.has(LOG_INFO, text)) << text << testing::PrintToString(log.lines());
  }
  void expectEventsDone(unsigned records, unsigned offset) {
    expectDone("restoreEventDb", records, offset);
  }
  void expectStreamsDone(unsigned records, unsigned offset) {
    expectDone("restoreStreamDbRec", records, offset);
  }
  static std::string mirrorUsed(unsigned offset) {
    char text[128];
    snprintf(text, sizeof text, kUseMirror, offset);
    return text;
  }

  CDbRestore restore;
  CApiDb db;
};

TEST_F(Replay, AnErasedJournalGivesNoRows) {
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  expectEventsDone(0, 0);
  expectStreamsDone(0, 0);
  EXPECT_THAT(eventKeys(), testing::IsEmpty());
  EXPECT_THAT(streamKeys(), testing::IsEmpty());
}

TEST_F(Replay, EveryFieldOfAnEventComesBack) {
  const DB_EVENT row = {0xFFFFFFFE, 0xFFFF, 0xFFFE, 0xFFFFFFFD, 0xFFFFFFFC, 0xFFFB, 0xFFFA, 0};
  setPair(0, 0, eventRecord(row));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  DB_EVENT back = {};
  ASSERT_EQ(db.selectEvent(0xFFFFFFFE, &back), 1u);
  EXPECT_EQ(eventRecord(back), eventRecord(row));
  expectEventsDone(1, 32);
}

TEST_F(Replay, EveryFieldOfAStreamComesBack) {
  const DB_STREAM row = {0xFFFFFFFE, 0xFFFF,     0xFFFE,     0xFFFFFFFD, 0xFFFFFFFC,
                         0xFFFFFFFB, 0xFFFFFFFA, 0xFFFFFFF9, 0xFFFFFFF8, 0xFFFFFFF7,
                         0xFFFFFFF6, 0xFFF5,     0xFFF4,     0};
  setPair(2, 0, streamRecord(row));
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  DB_STREAM back = {};
  ASSERT_EQ(db.selectStream(0xFFFFFFFE, &back), 1u);
  EXPECT_EQ(streamRecord(back), streamRecord(row));
  expectStreamsDone(1, 64);
}

TEST_F(Replay, AFullJournalIsReadToItsEnd) {
  writeEvents(32);
  writeStreams(16);
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_EQ(eventKeys().size(), 32u);
  EXPECT_EQ(streamKeys().size(), 16u);
  expectEventsDone(32, 1024);
  expectStreamsDone(16, 1024);
}

TEST_F(Replay, DeletedRecordsAreCountedAndStayGone) {
  writeEvents(3);
  writeStreams(3);
  setPair(0, 32, eventRecord(eventAt(2, 32), 0xFFFFFFEF));
  setPair(2, 64, streamRecord(streamAt(2, 64), 0xFFFFFFEE));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 3}));
  EXPECT_EQ(streamKeys(), (std::vector<uint32_t>{1, 3}));
  expectEventsDone(3, 96);
  expectStreamsDone(3, 192);
}

TEST_F(Replay, ARecordOfTheOtherJournalIsNoRow) {
  setPair(0, 0, eventRecord(eventAt(1, 0), 0xFFFFFFEC));
  setPair(2, 0, streamRecord(streamAt(1, 0), 0xFFFFFFED));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_THAT(eventKeys(), testing::IsEmpty());
  EXPECT_THAT(streamKeys(), testing::IsEmpty());
}

TEST_F(Replay, ALiveRecordThatNamesAnotherPlaceIsCountedAndSkipped) {
  writeEvents(3);
  setPair(0, 32, eventRecord(eventAt(2, 64)));
  writeStreams(3);
  setPair(2, 64, streamRecord(streamAt(2, 0)));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 3}));
  EXPECT_EQ(streamKeys(), (std::vector<uint32_t>{1, 3}));
  expectEventsDone(3, 96);
}

TEST_F(Replay, ABadOriginalIsReplayedFromTheMirror) {
  writeEvents(3);
  setJournal(0, 32, Bytes(32, 0x11));
  writeStreams(3);
  setJournal(2, 64, Bytes(64, 0x11));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_TRUE(log.has(LOG_WARNING, mirrorUsed(64))) << testing::PrintToString(log.lines());
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_TRUE(log.has(LOG_WARNING, mirrorUsed(128)));
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 2, 3}));
  EXPECT_EQ(streamKeys(), (std::vector<uint32_t>{1, 2, 3}));
}

TEST_F(Replay, ABadMirrorDoesNotMatter) {
  writeEvents(3);
  card.fill(card.chunkStart(tarn::kFileJournal, 1), kJournalSize, 0x22);
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 2, 3}));
}

TEST_F(Replay, ARecordBadInBothCopiesIsSkippedAndNotCounted) {
  writeEvents(4);
  setPair(0, 32, Bytes(32, 0x33));
  writeStreams(4);
  setPair(2, 64, Bytes(64, 0x33));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 3, 4}));
  EXPECT_EQ(streamKeys(), (std::vector<uint32_t>{1, 3, 4}));
  expectEventsDone(3, 128);
  expectStreamsDone(3, 256);
  EXPECT_THAT(log.atPriority(LOG_WARNING), testing::IsEmpty());
}

TEST_F(Replay, TheFirstRecordMayBeBadToo) {
  writeEvents(3);
  setPair(0, 0, Bytes(32, 0x33));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{2, 3}));
  expectEventsDone(2, 96);
}

TEST_F(Replay, TheReplayEndsAtTheFirstErasedRecord) {
  writeEvents(8);
  setPair(0, 96, Bytes(32, 0xFF));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 2, 3}));
  expectEventsDone(3, 96);
}

TEST_F(Replay, AJournalThatHasComeRoundIsReplayedInOrderOfPlace) {
  // Keys 33 to 35 have overwritten 1 to 3.
  writeEvents(32);
  for (uint32_t i = 0; i < 3; ++i) setPair(0, i * 32, eventRecord(eventAt(33 + i, i * 32)));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  const std::vector<uint32_t> keys = eventKeys();
  ASSERT_EQ(keys.size(), 32u);
  EXPECT_EQ(keys.front(), 4u);
  EXPECT_EQ(keys.back(), 35u);
}

TEST_F(Replay, RowsThatAreThereAreReplaced) {
  writeEvents(2);
  EXPECT_EQ(restore.restoreEventDb(), 0);
  db.setSqlNoResult("UPDATE EVENT SET extTrg = 9");
  EXPECT_EQ(restore.restoreEventDb(), 0);
  DB_EVENT back = {};
  ASSERT_EQ(db.selectEvent(2, &back), 1u);
  EXPECT_EQ(eventRecord(back), eventRecord(eventAt(2, 32)));
  EXPECT_EQ(eventKeys().size(), 2u);
}

TEST_F(Replay, ZeroedRecordsAreValidAndNoRows) {
  writeEvents(1);
  setPair(0, 32, Bytes(64, 0));
  setPair(0, 96, eventRecord(eventAt(4, 96)));
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 4}));
  expectEventsDone(4, 128);
}

TEST_F(Replay, TheManagementDataIsSavedAsItWas) {
  setManagement({64, 64, 128, 128}, {32, 32, 64, 64});
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_EQ(savedFree(0), (std::vector<uint32_t>{64, 64, 128, 128}));
  EXPECT_EQ(savedFree(1), savedFree(0));
  EXPECT_EQ(log.count(LOG_INFO, " saveManageData (DL) "), 2u);
}

TEST_F(Replay, AChunkThatIsNoJournalsFirstHalfCannotBeOpened) {
  for (short chunk : {-1, 3, 4, 32767}) {
    log.clear();
    EXPECT_EQ(restore.restoreStreamDb(chunk), -1) << chunk;
    EXPECT_TRUE(log.has(LOG_ERR, "can't open ChunkFile"));
  }
}

TEST_F(Replay, AStatementThatFailsEndsTheReplay) {
  writeEvents(3);
  db.setSqlNoResult("DROP TABLE EVENT");
  log.clear();
  EXPECT_EQ(restore.restoreEventDb(), -1);
  EXPECT_TRUE(log.has(
      LOG_ERR,
      "restoreEventDb setSqlNoResult (INSERT OR REPLACE INTO EVENT( eventID, extTrg, preSec, "
      "startDate, startMSec, endDate, endMSec, backOffset ) VALUES( '1', '101', '201', "
      "'1700000001', '301', '1700000501', '401', '0' )) error = -1"))
      << testing::PrintToString(log.lines());
  EXPECT_EQ(log.count(LOG_INFO, " saveManageData (DL) "), 0u);
}

TEST_F(Replay, AStreamStatementThatFailsEndsTheReplayAndKeepsTheRowsBefore) {
  writeStreams(3);
  db.setSqlNoResult(
      "CREATE TRIGGER no_second BEFORE INSERT ON STREAM WHEN NEW.streamID = 2 BEGIN SELECT "
      "RAISE(ABORT, 'no'); END");
  log.clear();
  EXPECT_EQ(restore.restoreStreamDb(2), -1);
  EXPECT_TRUE(log.has(
      LOG_ERR,
      "restoreStreamDbRec setSqlNoResult (INSERT OR REPLACE INTO STREAM( streamID, inTrg, "
      "frameSet, bitrateSet, recSize, chunkID, chunkOffset, chunkSize, status, startDate, endDate, "
      "startMSec, endMSec, backOffset ) VALUES( '2', '12', '22', '4000002', '502', '2', '4098', "
      "'8194', '8', '1700001002', '1700002002', '32', '42', '64' )) error = -1"))
      << testing::PrintToString(log.lines());
  EXPECT_EQ(streamKeys(), (std::vector<uint32_t>{1}));
}

// Statements go to the database several at a time; that must not show: not in what is logged, not
// in how often one is tried, not in the rows that stay.
TEST_F(Replay, AStatementThatFailsAmongOthersIsTriedTwiceAndLoggedAlone) {
  writeEvents(5);
  // No constraint, so that it is tried again.
  db.setSqlNoResult(
      "CREATE TRIGGER no_third BEFORE INSERT ON EVENT WHEN NEW.eventID = 3 BEGIN SELECT "
      "abs( -9223372036854775805 - NEW.eventID ); END");
  log.clear();
  EXPECT_EQ(restore.restoreEventDb(), -1);
  const std::string sql =
      "INSERT OR REPLACE INTO EVENT( eventID, extTrg, preSec, startDate, startMSec, endDate, "
      "endMSec, backOffset ) VALUES( '3', '103', '203', '1700000003', '303', '1700000503', '403', "
      "'64' )";
  const std::vector<LogLine> attempt = {{LOG_ERR, "SQLite Err integer overflow"},
                                        {LOG_ERR, "setSql() errorSQL = (" + sql + ")"},
                                        {LOG_WARNING, " error [integer overflow] SQL=" + sql}};
  std::vector<LogLine> expected = attempt;
  expected.insert(expected.end(), attempt.begin(), attempt.end());
  expected.push_back({LOG_ERR, "restoreEventDb setSqlNoResult (" + sql + ") error = -1"});
  EXPECT_EQ(log.lines(), expected);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 2}));
}

TEST_F(Replay, RowsInFrontOfAPlaceThatTheDeviceRefusesStay) {
  writeEvents(5);
  IoFaults faults(kCardPath);
  for (int chunk : {0, 1}) {
    faults.failAt(Call::Read, card.chunkStart(tarn::kFileJournal, chunk) + 64, 32, EIO);
  }
  log.clear();
  EXPECT_EQ(restore.restoreEventDb(), -1);
  const std::vector<LogLine> expected = {{LOG_ERR, "the event journal cannot be read at byte 64"}};
  EXPECT_EQ(log.lines(), expected);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1, 2}));
}

TEST_F(Replay, AFailureDeepInAFullJournalNamesItsOwnStatement) {
  writeEvents(32);
  db.setSqlNoResult(
      "CREATE TRIGGER no_twenty BEFORE INSERT ON EVENT WHEN NEW.eventID = 20 BEGIN SELECT "
      "RAISE(ABORT, 'no'); END");
  log.clear();
  EXPECT_EQ(restore.restoreEventDb(), -1);
  std::vector<std::string> texts;
  for (const LogLine& line : log.atPriority(LOG_ERR)) {
    if (line.text.rfind("restoreEventDb", 0) == 0) texts.push_back(line.text);
  }
  EXPECT_THAT(texts, testing::ElementsAre(
                         "restoreEventDb setSqlNoResult (INSERT OR REPLACE INTO EVENT( eventID, "
                         "extTrg, preSec, startDate, startMSec, endDate, endMSec, backOffset ) "
                         "VALUES( '20', '120', '220', '1700000020', '320', '1700000520', '420', "
                         "'608' )) error = -1"));
  EXPECT_EQ(eventKeys().size(), 19u) << "the rows before it stay";
}

TEST_F(Replay, BadManagementDataFailsBeforeAnythingIsRead) {
  writeEvents(1);
  card.fill(card.chunkStart(tarn::kFileJournalManage, 0), 24, 0x44);
  EXPECT_EQ(restore.restoreEventDb(), -1);
  EXPECT_EQ(restore.restoreStreamDb(2), -1);
  EXPECT_EQ(restore.recoverJournalManage(), -1);
  EXPECT_THAT(eventKeys(), testing::IsEmpty());
}

TEST_F(Replay, AFailedSaveIsReported) {
  writeEvents(1);
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 1, EIO);
  EXPECT_EQ(restore.restoreEventDb(), -1);
  EXPECT_EQ(eventKeys(), (std::vector<uint32_t>{1}));
}

TEST_F(Replay, SetsUpAnEmptyDatabase) {
  db.setSqlNoResult("INSERT INTO EVENT VALUES( 1, 1, 1, 1, 1, 1, 1, 1 )");
  db.finish();
  EXPECT_EQ(restore.setupEmptyDb(), 0);
  EXPECT_THAT(eventKeys(), testing::IsEmpty());
  EXPECT_THAT(streamKeys(), testing::IsEmpty());
  EXPECT_THAT(log.atPriority(LOG_ERR), testing::IsEmpty());
}

TEST_F(Replay, ASetUpThatFailsIsReported) {
  // The command cannot make its file where a directory with something in it stands.
  unlink("/tmp/DB.dat");
  ASSERT_EQ(system("mkdir -p /tmp/DB.dat/x"), 0);
  EXPECT_EQ(restore.setupEmptyDb(), -1);
  EXPECT_TRUE(log.has(LOG_ERR, "setupEmptyDb() can't init DB"));
}

}  // namespace
}  // namespace tarn_test
