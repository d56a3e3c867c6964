#include "dblog/RepairRig.h"

namespace tarn_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class EventRepair : public RepairTest {
 protected:
  // A closed recording from kNoon on, of 100 seconds.
  void layStream(uint32_t id = 7, uint32_t start = kNoon, uint32_t end = kNoon + 100) {
    Recording r;
    r.id = id;
    r.start = start;
    r.backOffset = 64 * (id - 6);
    DB_STREAM row = openRow(r);
    row.recSize = 5;
    row.endDate = end;
    insert(row);
  }
  static LogLine statementLine(const std::string& eventStart, const std::string& sql) {
    return {LOG_ERR, "Stream[" + number(kNoon) + "-" + number(kNoon + 100) +
                         "] eventStart:" + eventStart + "  sql=" + sql};
  }
};

TEST_F(EventRepair, TheLastEventEndsWithTheNewestRecording) {
  layStream();
  layStream(8, kNoon - 500, kNoon - 400);
  const DB_EVENT earlier = event(1, kNoon - 10, 0);
  DB_EVENT last = event(2, kNoon + 99, 0);
  insert(earlier);
  insert(last);
  EXPECT_EQ(restore.fixLastEventDb(), 0);
  EXPECT_THAT(lines(), ElementsAre(statementLine(number(last.startDate),
                                                 "UPDATE EVENT SET endDate = " +
                                                     number(kNoon + 100) + " WHERE eventID = 2")));
  last.endDate = kNoon + 100;  // its milliseconds stay
  EXPECT_EQ(eventBytes(2), eventRecord(last));
  expectPair(0, 64, eventRecord(last));
  EXPECT_EQ(eventBytes(1), eventRecord(earlier));
  expectPair(0, 32, eventRecord(earlier));
  log.clear();
  EXPECT_EQ(restore.fixLastEventDb(), 0);
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EventRepair, ALastEventThatBeginsAtTheEndOrLaterIsDeleted) {
  for (uint32_t start : {kNoon + 100, kNoon + 101}) {
    layStream();
    const DB_EVENT last = event(2, start, 0);
    insert(event(1, kNoon, kNoon + 1));
    insert(last);
    log.clear();
    EXPECT_EQ(restore.fixLastEventDb(), 0);
    EXPECT_THAT(lines(),
                ElementsAre(statementLine(number(start), "DELETE FROM EVENT WHERE eventID = 2")));
    EXPECT_EQ(eventBytes(2), Bytes());
    expectPair(0, 64, eventRecord(last, 0xFFFFFFEF));
    EXPECT_NE(eventBytes(1), Bytes());
  }
}

TEST_F(EventRepair, AClosedLastEventStaysAlsoWhenAnEarlierOneIsOpen) {
  layStream();
  const DB_EVENT open = event(1, kNoon, 0);
  insert(open);
  insert(event(2, kNoon, kNoon + 3));
  EXPECT_EQ(restore.fixLastEventDb(), 0);
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(eventBytes(1), eventRecord(open));
}

TEST_F(EventRepair, WithoutEventsOrWithoutRecordingsNothingIsDone) {
  EXPECT_EQ(restore.fixLastEventDb(), 0);
  const DB_EVENT open = event(1, kNoon, 0);
  insert(open);
  EXPECT_EQ(restore.fixLastEventDb(), 0);
  EXPECT_THAT(lines(), IsEmpty());
  EXPECT_EQ(eventBytes(1), eventRecord(open));
}

TEST_F(EventRepair, TimesBehind2038PrintAsTheTargetPrintsThem) {
  layStream(7, 0x80000000, 0x80000010);
  insert(event(1, 0xFFFFFFFF, 0));
  EXPECT_EQ(restore.fixLastEventDb(), 0);
  EXPECT_THAT(lines(), ElementsAre(LogLine{LOG_ERR,
                                           "Stream[-2147483648--2147483632] eventStart:-1  "
                                           "sql=DELETE FROM EVENT WHERE eventID = 1"}));
}

TEST_F(EventRepair, FailedStatementsAreReported) {
  layStream();
  const DB_EVENT late = event(1, kNoon + 200, 0);
  insert(late);
  run("CREATE TRIGGER d BEFORE DELETE ON EVENT BEGIN SELECT RAISE(ABORT, 'no'); END");
  run("CREATE TRIGGER u BEFORE UPDATE ON EVENT BEGIN SELECT RAISE(ABORT, 'no'); END");
  EXPECT_EQ(restore.fixLastEventDb(), -1);
  EXPECT_THAT(lines(), Contains(LogLine{LOG_ERR, "DataBase access error."}));
  expectPair(0, 32, eventRecord(late));
  const DB_EVENT open = event(3, kNoon, 0);
  insert(open);
  log.clear();
  EXPECT_EQ(restore.fixLastEventDb(), -1);
  EXPECT_THAT(lines(),
              Contains(LogLine{LOG_ERR, "fixLastEventDb event DB update error. eventID = 3"}));
  expectPair(0, 96, eventRecord(open));
}

TEST_F(EventRepair, FailedSelectsAreReported) {
  insert(event(1, kNoon, 0));
  run("DROP TABLE STREAM");
  EXPECT_EQ(restore.fixLastEventDb(), -1);
  EXPECT_EQ(log.count(LOG_ERR, "fixLastEventDb SELECT ERROR."), 1u);
  run("DROP TABLE EVENT");
  log.clear();
  EXPECT_EQ(restore.fixLastEventDb(), -1);
  EXPECT_EQ(log.count(LOG_ERR, "fixLastEventDb SELECT ERROR."), 1u);
}

TEST_F(EventRepair, ARecordThatTheDeviceDoesNotGiveIsLoggedOnly) {
  layStream();
  DB_EVENT last = event(1, kNoon, 0);
  insert(last);
  card.truncate(card.chunkStart(tarn::kFileJournal, 1) + 32);  // the mirror's record is gone
  EXPECT_EQ(restore.fixLastEventDb(), 0);
  EXPECT_THAT(lines(), Contains(LogLine{LOG_ERR, " error : can't read file"}));
  last.endDate = kNoon + 100;
  EXPECT_EQ(eventBytes(1), eventRecord(last));
  EXPECT_EQ(journal(0, 32, 32), eventRecord(last));
}

TEST_F(EventRepair, EventsFromADateOnAreDeletedWithTheirRecords) {
  const DB_EVENT before = event(1, kNoon - 1, 0);
  insert(before);
  for (uint32_t id : {2u, 3u, 4u}) insert(event(id, kNoon + id - 2, kNoon + 5));
  EXPECT_EQ(restore.cleanupEventDb(kNoon), 0);
  EXPECT_EQ(eventBytes(1), eventRecord(before));
  expectPair(0, 32, eventRecord(before));
  for (uint32_t id : {2u, 3u, 4u}) {
    EXPECT_EQ(eventBytes(id), Bytes());
    expectPair(0, 32 * id, eventRecord(event(id, kNoon + id - 2, kNoon + 5), 0xFFFFFFEF));
  }
  EXPECT_THAT(lines(), IsEmpty());
}

TEST_F(EventRepair, AnEventThatCannotBeDeletedDoesNotKeepTheOthers) {
  insert(event(1, kNoon, 0));
  insert(event(2, kNoon, 0));
  run("CREATE TRIGGER d BEFORE DELETE ON EVENT WHEN old.eventID = 1 "
      "BEGIN SELECT RAISE(ABORT, 'no'); END");
  EXPECT_EQ(restore.cleanupEventDb(kNoon), 0);
  EXPECT_EQ(log.count(LOG_ERR, "DataBase access error."), 1u);
  EXPECT_EQ(eventBytes(1), eventRecord(event(1, kNoon, 0)));
  EXPECT_EQ(eventBytes(2), Bytes());
  expectPair(0, 32, eventRecord(event(1, kNoon, 0), 0xFFFFFFEF));
  expectPair(0, 64, eventRecord(event(2, kNoon, 0), 0xFFFFFFEF));
}

TEST_F(EventRepair, ACleanUpWithoutATableIsReported) {
  run("DROP TABLE EVENT");
  log.clear();
  EXPECT_EQ(restore.cleanupEventDb(kNoon), -1);
  const std::string sql =
      "SELECT eventID, backOffset FROM EVENT WHERE startDate >= " + std::to_string(kNoon);
  const std::vector<LogLine> attempt = {{LOG_ERR, "SQLite Err no such table: EVENT"},
                                        {LOG_ERR, "setSql() errorSQL = (" + sql + ")"},
                                        {LOG_WARNING, " error [no such table: EVENT] SQL=" + sql}};
  std::vector<LogLine> expected = attempt;
  expected.insert(expected.end(), attempt.begin(), attempt.end());
  expected.push_back({LOG_ERR, "DataBase access error."});
  EXPECT_EQ(log.lines(), expected);
}

}  // namespace
}  // namespace tarn_test
