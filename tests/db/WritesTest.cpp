// Inserts, updates and deletes of single rows: whole statements, log lines and the order of
// statement, log and journal.
#include "db/DbTest.h"

namespace {

using namespace tarn_test;
using testing::ElementsAre;
using testing::IsEmpty;

class WritesTest : public DbTest {
 protected:
  WritesTest() { db_.connect(kDbPath); }
};

DB_EVENT anEvent() { return {99, 3, 5, 1700000000, 4294967295, 250, 999, 77}; }
DB_STREAM aStream() {
  return {99, 65535, 30, 4000, 5, 6, 7, 8, 2147483648, 1700000000, 0, 11, 12, 77};
}

constexpr char kInsertEvent[] =
    "INSERT INTO EVENT( extTrg, preSec, startDate, endDate, startMSec, endMSec, backOffset ) "
    "VALUES( '3', '5', '1700000000', '4294967295', '250', '999', '4096' )";
constexpr char kInsertStream[] =
    "INSERT INTO STREAM( inTrg, frameSet, bitrateSet, recSize, chunkID, chunkOffset, chunkSize, "
    "status, startDate, endDate, startMSec, endMSec, backOffset ) VALUES( '65535', '30', '4000', "
    "'5', '6', '7', '8', '2147483648', '1700000000', '0', '11', '12', '4294967232' )";

TEST_F(WritesTest, InsertEventAsksTheJournalInsertsLogsAndJournals) {
  addEvent(41, 1, 1, 1);
  fakeJournal().eventOffset = 4096;
  DB_EVENT event = anEvent();
  DbTrace trace;
  EXPECT_EQ(42u, db_.insertEvent(&event));
  const std::string sql = kInsertEvent;
  EXPECT_THAT(trace.take(),
              ElementsAre("journal insert begins", "journal eventBackOffset", "lock", "exec " + sql,
                          "unlock", "log 182: insertEvent() " + sql + " ID=42",
                          "journal insertEvent 42", "journal insert ends"));
  EXPECT_EQ(42u, event.eventID);
  EXPECT_EQ(4096u, event.backOffset);
  EXPECT_EQ(0, memcmp(&event, &fakeJournal().event, sizeof event));
  EXPECT_THAT(rowsOf("SELECT * FROM EVENT WHERE eventID = 42"),
              ElementsAre("42|3|5|1700000000|4294967295|250|999|4096"));
  EXPECT_THAT(rowsOf("SELECT typeof(extTrg), typeof(endDate) FROM EVENT WHERE eventID = 42"),
              ElementsAre("integer|integer"));
}

TEST_F(WritesTest, InsertStreamAsksTheJournalInsertsLogsAndJournals) {
  fakeJournal().streamOffset = 4294967232;
  DB_STREAM stream = aStream();
  DbTrace trace;
  EXPECT_EQ(1u, db_.insertStream(&stream));
  const std::string sql = kInsertStream;
  EXPECT_THAT(trace.take(),
              ElementsAre("journal insert begins", "journal streamBackOffset", "lock",
                          "exec " + sql, "unlock", "log 182: insertStream() " + sql + " ID=1",
                          "journal insertStream 1", "journal insert ends"));
  EXPECT_EQ(1u, stream.streamID);
  EXPECT_EQ(4294967232u, stream.backOffset);
  EXPECT_EQ(0, memcmp(&stream, &fakeJournal().stream, sizeof stream));
  EXPECT_THAT(rowsOf("SELECT * FROM STREAM"),
              ElementsAre("1|65535|30|4000|5|6|7|8|2147483648|1700000000|0|11|12|4294967232"));
}

TEST_F(WritesTest, InsertThatTheJournalRefusesKeepsTheRow) {
  fakeJournal().result = false;
  DB_EVENT event = anEvent();
  DB_STREAM stream = aStream();
  DbTrace trace;
  EXPECT_EQ(1u, db_.insertEvent(&event));
  EXPECT_THAT(trace.take("log 3: "), ElementsAre("CApiDb::insertEvent() DB log write error"));
  EXPECT_EQ(1u, db_.insertStream(&stream));
  EXPECT_THAT(trace.take("log 3: "), ElementsAre("CApiDb::insertStream() DB log write error"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM EVENT"), ElementsAre("1"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM STREAM"), ElementsAre("1"));
}

TEST_F(WritesTest, InsertThatFailsJournalsThePreviousKey) {
  DB_EVENT event = anEvent();
  EXPECT_EQ(1u, db_.insertEvent(&event));
  rowsOf("DROP TABLE EVENT");
  DbTrace trace;
  EXPECT_EQ(1u, db_.insertEvent(&event));
  EXPECT_THAT(trace.take("journal insertEvent"), ElementsAre(" 1"));
}

TEST_F(WritesTest, InsertThatFailsOnAFreshConnectionJournalsKeyZero) {
  rowsOf("DROP TABLE STREAM");
  DB_STREAM stream = aStream();
  DbTrace trace;
  EXPECT_EQ(0u, db_.insertStream(&stream));
  EXPECT_THAT(trace.take("journal insertStream"), ElementsAre(" 0"));
}

TEST_F(WritesTest, KeysAreNeverUsedAgain) {
  DB_EVENT event = anEvent();
  EXPECT_EQ(1u, db_.insertEvent(&event));
  EXPECT_EQ(2u, db_.insertEvent(&event));
  db_.deleteEvent(2);
  db_.deleteEvent(1);
  EXPECT_EQ(3u, db_.insertEvent(&event));
}

TEST_F(WritesTest, ThreadsThatInsertAtOnceGetPlacesOfTheirOwn) {
  // The stand-in moves on with the journal write, as the journal does: without one critical section
  // over question and write two threads would be told the same place.
  std::vector<std::thread> threads;
  fakeJournal().onOffsetQuery = [] {
    std::this_thread::yield();
    fakeJournal().eventOffset += 32;
  };
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      CApiDb db;
      for (int n = 0; n < 25; ++n) {
        DB_EVENT event = anEvent();
        db.insertEvent(&event);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(rowsOf("SELECT COUNT( DISTINCT backOffset ), max( backOffset ) FROM EVENT"),
              ElementsAre("100|3200"));
  // Keys and places grow together: nothing came between a question and its insert.
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM EVENT WHERE backOffset = eventID * 32"),
              ElementsAre("100"));
}

TEST_F(WritesTest, UpdateEventSetsTheSelectedColumnsThenLogsThenJournals) {
  addEvent(7, 1, 100, 200);
  DB_EVENT event = anEvent();
  event.eventID = 7;
  event.endDate = 1234;
  DbTrace trace;
  EXPECT_EQ(7u, db_.updateEvent(0x12, &event));
  const std::string sql = "UPDATE EVENT SET  extTrg = 3, endDate = 1234 WHERE eventID = 7";
  EXPECT_THAT(trace.take(),
              ElementsAre("lock", "exec " + sql, "unlock", "log 182: updateEvent() " + sql,
                          "journal updateEvent mask 18 of 7"));
  EXPECT_THAT(rowsOf("SELECT * FROM EVENT"), ElementsAre("7|3|5|100|1234|10|20|32"));
}

TEST_F(WritesTest, UpdateEventMayMoveTheBackOffset) {
  DB_EVENT event = anEvent();
  event.eventID = 7;
  event.backOffset = 40;
  DbTrace trace;
  EXPECT_EQ(7u, db_.updateEvent(0x82, &event));
  EXPECT_THAT(trace.take("exec "),
              ElementsAre("UPDATE EVENT SET  extTrg = 3, backOffset = 40 WHERE eventID = 7"));
}

TEST_F(WritesTest, UpdateEventOfEveryColumnDropsTheKeyAndHigherBits) {
  DB_EVENT event = anEvent();
  DbTrace trace;
  EXPECT_EQ(99u, db_.updateEvent(0xFFFFFFFF, &event));
  EXPECT_THAT(
      trace.take("exec "),
      ElementsAre(
          "UPDATE EVENT SET  extTrg = 3, preSec = 5, startDate = 1700000000, endDate = "
          "4294967295, startMSec = 250, endMSec = 999, backOffset = 77 WHERE eventID = 99"));
  db_.updateEvent(0xFFFFFFFF, &event);
  EXPECT_THAT(trace.take("journal "), ElementsAre("updateEvent mask 254 of 99"));
}

TEST_F(WritesTest, EmptyEventUpdateWarnsAndDoesNothing) {
  DB_EVENT event = anEvent();
  for (const uint32_t mask : {0x0001u, 0x0100u, 0u, 0xFFFFFF01u}) {
    DbTrace trace;
    EXPECT_EQ(0u, db_.updateEvent(mask, &event));
    EXPECT_THAT(trace.take(), ElementsAre("log 4: CApiDb::updateEvent() eRegBit all zero"));
  }
}

TEST_F(WritesTest, UpdateStreamSetsTheSelectedColumnsThenLogsThenJournals) {
  addStream(9, 1, 100, 0);
  DB_STREAM stream = aStream();
  stream.streamID = 9;
  stream.chunkSize = 4096;
  stream.status = 2;
  DbTrace trace;
  EXPECT_EQ(9u, db_.updateStream(0x180, &stream));
  const std::string sql = "UPDATE STREAM SET chunkSize  = 4096,status = 2 WHERE streamID = 9";
  EXPECT_THAT(trace.take(),
              ElementsAre("lock", "exec " + sql, "unlock", "log 182: updateStream() " + sql,
                          "journal updateStream mask 384 of 9"));
  EXPECT_THAT(rowsOf("SELECT chunkSize, status, recSize FROM STREAM"), ElementsAre("4096|2|4"));
}

TEST_F(WritesTest, UpdateStreamOfEveryColumnDropsTheKeyAndHigherBits) {
  DB_STREAM stream = aStream();
  DbTrace trace;
  EXPECT_EQ(99u, db_.updateStream(0xFFFFFFFF, &stream));
  EXPECT_THAT(
      trace.take("exec "),
      ElementsAre("UPDATE STREAM SET inTrg  = 65535,frameSet = 30,bitrateSet = "
                  "4000,recSize  = 5,chunkID  = 6,chunkOffset  = 7,chunkSize  = 8,status = "
                  "2147483648,startDate  = 1700000000,endDate  = 0,startMSec  = 11,endMSec  "
                  "= 12,backOffset  = 77 WHERE streamID = 99"));
  db_.updateStream(0xFFFFFFFF, &stream);
  EXPECT_THAT(trace.take("journal "), ElementsAre("updateStream mask 16382 of 99"));
}

TEST_F(WritesTest, UpdateStreamDropsBitFourteen) {
  DB_STREAM stream = aStream();
  DbTrace trace;
  EXPECT_EQ(99u, db_.updateStream(0x4002, &stream));
  EXPECT_THAT(trace.take("exec "),
              ElementsAre("UPDATE STREAM SET inTrg  = 65535 WHERE streamID = 99"));
}

TEST_F(WritesTest, EmptyStreamUpdateWarnsAndDoesNothing) {
  DB_STREAM stream = aStream();
  for (const uint32_t mask : {0x0001u, 0x4000u, 0u}) {
    DbTrace trace;
    EXPECT_EQ(0u, db_.updateStream(mask, &stream));
    EXPECT_THAT(trace.take(), ElementsAre("log 4: CApiDb::updateStream() sRegBit all zero"));
  }
}

TEST_F(WritesTest, UpdateThatTheJournalRefusesStands) {
  addEvent(7, 1, 100, 200);
  addStream(9, 1, 100, 0);
  fakeJournal().result = false;
  DB_EVENT event = anEvent();
  event.eventID = 7;
  DB_STREAM stream = aStream();
  stream.streamID = 9;
  DbTrace trace;
  EXPECT_EQ(7u, db_.updateEvent(kEventRegExtTrg, &event));
  EXPECT_THAT(trace.take("log 3: "), ElementsAre("CApiDb::updateEvent() DB log write error"));
  EXPECT_EQ(9u, db_.updateStream(kStreamRegInTrg, &stream));
  EXPECT_THAT(trace.take("log 3: "), ElementsAre("CApiDb::updateStream() DB log write error"));
  EXPECT_THAT(rowsOf("SELECT extTrg FROM EVENT"), ElementsAre("3"));
  EXPECT_THAT(rowsOf("SELECT inTrg FROM STREAM"), ElementsAre("65535"));
}

TEST_F(WritesTest, DeleteEventJournalsFirst) {
  addEvent(7, 1, 100, 200);
  addEvent(8, 1, 100, 200);
  DbTrace trace;
  EXPECT_EQ(7u, db_.deleteEvent(7));
  const std::string sql = "DELETE FROM EVENT WHERE eventID = 7";
  EXPECT_THAT(trace.take(), ElementsAre("journal deleteEvent 7", "lock", "exec " + sql, "unlock",
                                        "log 182: deleteEvent() " + sql,
                                        "log 0: CApiDb::deleteEvent() delete eventID = 7"));
  EXPECT_THAT(rowsOf("SELECT eventID FROM EVENT"), ElementsAre("8"));
}

TEST_F(WritesTest, DeleteStreamJournalsFirst) {
  addStream(9, 1, 100, 0);
  DbTrace trace;
  EXPECT_EQ(9u, db_.deleteStream(9));
  const std::string sql = "DELETE FROM STREAM WHERE streamID = 9";
  EXPECT_THAT(trace.take(), ElementsAre("journal deleteStream 9", "lock", "exec " + sql, "unlock",
                                        "log 182: deleteStream() " + sql,
                                        "log 0: CApiDb::deleteStream() delete streamID = 9"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM STREAM"), ElementsAre("0"));
}

TEST_F(WritesTest, DeleteOfAnAbsentKeyIsJournaledAndReturnsTheKey) {
  DbTrace trace;
  EXPECT_EQ(123u, db_.deleteEvent(123));
  const std::string sql = "DELETE FROM EVENT WHERE eventID = 123";
  EXPECT_THAT(trace.take(), ElementsAre("journal deleteEvent 123", "lock", "exec " + sql, "unlock",
                                        "log 182: deleteEvent() " + sql,
                                        "log 0: CApiDb::deleteEvent() delete eventID = 123"));
  EXPECT_EQ(0u, db_.getCmdTuple());
}

TEST_F(WritesTest, DeleteThatTheJournalRefusesGoesOn) {
  addEvent(7, 1, 100, 200);
  addStream(9, 1, 100, 0);
  fakeJournal().result = false;
  DbTrace trace;
  EXPECT_EQ(7u, db_.deleteEvent(7));
  EXPECT_THAT(trace.take("log 3: "), ElementsAre("CApiDb::deleteEvent() DB log write error"));
  EXPECT_EQ(9u, db_.deleteStream(9));
  EXPECT_THAT(trace.take("log 3: "), ElementsAre("CApiDb::deleteStream() DB log write error"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM EVENT"), ElementsAre("0"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM STREAM"), ElementsAre("0"));
}

TEST_F(WritesTest, WideArgumentsAreCutTo32Bits) {
  if (sizeof(unsigned long) == 4) GTEST_SKIP() << "this machine has no wider argument";
  DbTrace trace;
  EXPECT_EQ(5u, db_.deleteEvent(static_cast<unsigned long>(0x700000005ull)));
  EXPECT_THAT(
      trace.take(),
      testing::IsSupersetOf({"journal deleteEvent 5", "exec DELETE FROM EVENT WHERE eventID = 5",
                             "log 0: CApiDb::deleteEvent() delete eventID = 5"}));
  EXPECT_EQ(6u, db_.deleteStream(static_cast<unsigned long>(0x700000006ull)));
  EXPECT_THAT(trace.take("exec "), ElementsAre("DELETE FROM STREAM WHERE streamID = 6"));
  EXPECT_EQ(0, db_.deleteEventOlderTime(static_cast<unsigned long>(0x700000007ull)));
  EXPECT_THAT(trace.take("table "),
              ElementsAre("SELECT eventID FROM EVENT WHERE startDate < 7 ORDER BY eventID DESC"));
}

TEST_F(WritesTest, DeleteOlderTimeWithNothingOlderRunsOneQuery) {
  addEvent(1, 1, 500, 600);
  DbTrace trace;
  testing::internal::CaptureStdout();
  EXPECT_EQ(0, db_.deleteEventOlderTime(500));
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_THAT(trace.take(),
              ElementsAre("lock",
                          "table SELECT eventID FROM EVENT WHERE startDate < 500 ORDER BY eventID "
                          "DESC",
                          "unlock"));
}

TEST_F(WritesTest, DeleteOlderTimeAlsoDeletesWhatWasInsertedBeforeTheNewestOldEvent) {
  addEvent(1, 1, 900, 901);  // began late but was inserted before event 4
  addEvent(2, 1, 100, 101);
  addEvent(4, 1, 200, 201);
  addEvent(5, 1, 950, 951);
  DbTrace trace;
  testing::internal::CaptureStdout();
  EXPECT_EQ(3, db_.deleteEventOlderTime(500));
  EXPECT_EQ("newestEventID = 4delete eventID = 4\ndelete eventID = 2\ndelete eventID = 1\n",
            testing::internal::GetCapturedStdout());
  EXPECT_THAT(rowsOf("SELECT eventID FROM EVENT"), ElementsAre("5"));
  const std::vector<std::string> lines = trace.take();
  std::vector<std::string> statements;
  for (const std::string& line : lines) {
    if (line.rfind("table ", 0) == 0 || line.rfind("exec ", 0) == 0 ||
        line.rfind("journal ", 0) == 0) {
      statements.push_back(line);
    }
  }
  EXPECT_THAT(
      statements,
      ElementsAre("table SELECT eventID FROM EVENT WHERE startDate < 500 ORDER BY eventID DESC",
                  "journal deleteEvent 4", "exec DELETE FROM EVENT WHERE eventID = 4",
                  "journal deleteEvent 2", "exec DELETE FROM EVENT WHERE eventID = 2",
                  "table SELECT eventID FROM EVENT WHERE eventID < 4", "journal deleteEvent 1",
                  "exec DELETE FROM EVENT WHERE eventID = 1"));
}

TEST_F(WritesTest, DeleteOlderTimeOfAnEventWithKeyZeroEndsAfterTheFirstPass) {
  addEvent(0, 1, 100, 101);
  DbTrace trace;
  testing::internal::CaptureStdout();
  EXPECT_EQ(1, db_.deleteEventOlderTime(500));
  EXPECT_EQ("newestEventID = 0delete eventID = 0\n", testing::internal::GetCapturedStdout());
  EXPECT_EQ(1u, trace.take("table ").size());
}

TEST_F(WritesTest, DeleteOlderTimeWritesTheKeyAsA32BitMachineDoes) {
  addEvent(2147483648u, 1, 100, 101);
  DbTrace trace;
  testing::internal::CaptureStdout();
  EXPECT_EQ(1, db_.deleteEventOlderTime(500));
  EXPECT_EQ("newestEventID = 2147483648delete eventID = 2147483648\n",
            testing::internal::GetCapturedStdout());
  EXPECT_THAT(trace.take("table SELECT eventID FROM EVENT WHERE eventID < "),
              ElementsAre("-2147483648"));
}

TEST_F(WritesTest, TellsWhetherTheStatementWasDone) {
  db_.setSql("SELECT * FROM EVENT");
  EXPECT_TRUE(db_.lastStatementDone()) << "nothing found is an answer";
  DbTrace trace;
  db_.setSql("SELECT * FROM NOTHING");
  EXPECT_FALSE(db_.lastStatementDone());
  db_.setSqlNoResult("DELETE FROM EVENT");
  EXPECT_TRUE(db_.lastStatementDone());
}

TEST_F(WritesTest, TellsWhetherTheChangeIsInTheJournalAndOnTheCard) {
  DB_EVENT event = anEvent();
  db_.insertEvent(&event);
  EXPECT_TRUE(db_.lastChangeJournaled());
  fakeJournal().onCard = false;
  db_.insertEvent(&event);
  EXPECT_FALSE(db_.lastChangeJournaled());
  EXPECT_EQ(2u, db_.updateEvent(0x10, &event));
  EXPECT_FALSE(db_.lastChangeJournaled());
  fakeJournal().onCard = true;
  EXPECT_EQ(2u, db_.deleteEvent(2));
  EXPECT_TRUE(db_.lastChangeJournaled());
  fakeJournal().result = false;
  EXPECT_EQ(1u, db_.deleteEvent(1));
  EXPECT_FALSE(db_.lastChangeJournaled());
}

TEST_F(WritesTest, AStrictInsertThatFailsIsNotJournaled) {
  DB_EVENT event = anEvent();
  EXPECT_EQ(1u, db_.insertEvent(&event));
  rowsOf("DROP TABLE EVENT");
  db_.setStrict(true);
  DbTrace trace;
  EXPECT_EQ(0u, db_.insertEvent(&event));
  EXPECT_FALSE(db_.lastChangeJournaled());
  const std::vector<std::string> seen = trace.take();
  EXPECT_THAT(seen, testing::Contains("log 3: CApiDb::insertEvent() setSql error = 1"));
  EXPECT_THAT(seen, testing::Not(testing::Contains("journal insertEvent 1")));
}

TEST_F(WritesTest, AStrictDeleteThatTheJournalRefusesLeavesTheRow) {
  DB_STREAM stream = aStream();
  EXPECT_EQ(1u, db_.insertStream(&stream));
  db_.setStrict(true);
  fakeJournal().result = false;
  DbTrace trace;
  EXPECT_EQ(0u, db_.deleteStream(1));
  EXPECT_THAT(trace.take(), ElementsAre("journal deleteStream 1",
                                        "log 3: CApiDb::deleteStream() DB log write error"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM STREAM"), ElementsAre("1"));
}

TEST_F(WritesTest, ARestoredRowIsNoMatterOfTheJournal) {
  DB_STREAM stream = aStream();
  EXPECT_EQ(1u, db_.insertStream(&stream));
  stream.recSize = 1234;
  DbTrace trace;
  EXPECT_TRUE(db_.restoreStream(kStreamRegRecSize, &stream));
  EXPECT_THAT(trace.take("journal"), IsEmpty());
  EXPECT_THAT(rowsOf("SELECT recSize FROM STREAM"), ElementsAre("1234"));
  EXPECT_FALSE(db_.restoreStream(0, &stream));
}

}  // namespace
