// Rows that go to the database in groups: what comes out, what is logged and what stays is as for
// single statements.
#include <sqlite3.h>

#include "db/DbTest.h"
#include "db/RowInserts.h"
#include "support/IoFaults.h"

namespace {

using namespace tarn_test;
using tarn::RowInserts;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

constexpr char kInsert[] = "INSERT OR REPLACE INTO EVENT( eventID, extTrg, startDate )";
constexpr size_t kColumns = 3;
constexpr uint32_t kGroup = RowInserts::kRows;

std::string single(uint32_t key, uint32_t trigger, uint32_t start) {
  return std::string(kInsert) + " VALUES( '" + std::to_string(key) + "', '" +
         std::to_string(trigger) + "', '" + std::to_string(start) + "' )";
}

class RowInsertsTest : public DbTest {
 protected:
  RowInsertsTest() { db_.connect(kDbPath); }

  // Rows of the keys first to last; false after the first that failed.
  static bool addRows(RowInserts* rows, uint32_t first, uint32_t last) {
    for (uint32_t key = first; key <= last; ++key) {
      const uint32_t values[kColumns] = {key, 7, 1000 + key};
      if (!rows->add(values)) return false;
    }
    return true;
  }

  static std::vector<std::string> keys() {
    return rowsOf("SELECT ifnull( group_concat( eventID ), '' ) FROM EVENT");
  }

  static std::string keysTo(uint32_t last) {
    std::string text;
    for (uint32_t key = 1; key <= last; ++key) text += (key > 1 ? "," : "") + std::to_string(key);
    return text;
  }
};

TEST_F(RowInsertsTest, AGroupTakesTheLockOnceAndNoTextIsRead) {
  db_.begin();
  RowInserts rows(&db_, kInsert, kColumns);
  ASSERT_TRUE(addRows(&rows, 1, kGroup));
  DbTrace trace;
  ASSERT_TRUE(addRows(&rows, kGroup + 1, 2 * kGroup));
  EXPECT_TRUE(rows.finish());
  EXPECT_THAT(trace.take(), ElementsAre("lock", "unlock"));
  db_.end();
  EXPECT_THAT(keys(), ElementsAre(keysTo(2 * kGroup)));
}

TEST_F(RowInsertsTest, WhatIsLeftAtTheEndGoesAsSingleStatements) {
  db_.begin();
  RowInserts rows(&db_, kInsert, kColumns);
  DbTrace trace;
  ASSERT_TRUE(addRows(&rows, 1, 2));
  EXPECT_THAT(trace.take(), IsEmpty());
  EXPECT_TRUE(rows.finish());
  EXPECT_THAT(trace.take(), ElementsAre("lock", "exec " + single(1, 7, 1001),
                                        "exec " + single(2, 7, 1002), "unlock"));
  EXPECT_TRUE(rows.finish());
  EXPECT_THAT(trace.take(), IsEmpty());
}

// Text in a column of numbers and a bound number are the same row, the same type, the same place in
// each index, and the same counter of keys, also where rows are replaced and keys come out of
// order.
TEST_F(RowInsertsTest, RowsTypesCountersAndIndexesAreThoseOfSingleStatements) {
  constexpr uint32_t kAll = 5 * kGroup + 3;
  db_.begin();
  CApiDb other;
  other.connect("/tmp/other.dat");
  for (const std::string& sql :
       rowsOf("SELECT sql FROM sqlite_master WHERE name NOT LIKE 'sqlite%'"))
    other.setSqlNoResult(sql.c_str());
  RowInserts rows(&db_, kInsert, kColumns);
  for (uint32_t i = 0; i < kAll; ++i) {
    const uint32_t key = (i + kAll / 2) % (kAll - 10) + 1;  // as a ring that has come round
    const uint32_t values[kColumns] = {key, i % 3 == 0 ? 0xFFFFFFFF : i % 5, 0xFFFFFFFF - i};
    ASSERT_TRUE(rows.add(values));
    other.setSqlNoResult(single(values[0], values[1], values[2]).c_str());
  }
  ASSERT_TRUE(rows.finish());
  db_.end();
  other.finish();
  for (const char* sql :
       {"SELECT *, typeof( eventID ), typeof( extTrg ), typeof( startDate ) FROM EVENT",
        "SELECT * FROM sqlite_sequence", "SELECT eventID FROM EVENT ORDER BY backOffset",
        "PRAGMA integrity_check"}) {
    EXPECT_EQ(rowsOf(sql), rowsOf(sql, "/tmp/other.dat")) << sql;
  }
  EXPECT_EQ(rowsOf("SELECT COUNT(*) FROM EVENT"),
            std::vector<std::string>{std::to_string(kAll - 10)});
}

TEST_F(RowInsertsTest, AGroupWithARowThatFailsIsTakenApart) {
  db_.setSqlNoResult(
      "CREATE TRIGGER no_third BEFORE INSERT ON EVENT WHEN NEW.eventID = 3 BEGIN SELECT "
      "abs( -9223372036854775805 - NEW.eventID ); END");
  db_.begin();
  RowInserts rows(&db_, kInsert, kColumns);
  DbTrace trace;
  EXPECT_FALSE(addRows(&rows, 1, kGroup));
  const std::string sql = single(3, 7, 1003);
  EXPECT_EQ(rows.failed(), sql);
  EXPECT_THAT(
      trace.take(),
      ElementsAre("lock", "unlock", "lock", "unlock", "lock", "exec " + single(1, 7, 1001),
                  "exec " + single(2, 7, 1002), "exec " + sql, "log 3: SQLite Err integer overflow",
                  "log 3: setSql() errorSQL = (" + sql + ")",
                  "log 4:  error [integer overflow] SQL=" + sql, "sleep 500000", "exec " + sql,
                  "log 3: SQLite Err integer overflow", "log 3: setSql() errorSQL = (" + sql + ")",
                  "log 4:  error [integer overflow] SQL=" + sql, "sleep 500000", "unlock"));
  db_.end();
  EXPECT_THAT(keys(), ElementsAre("1,2"));
}

TEST_F(RowInsertsTest, AGroupThatPassesRowByRowGoesOn) {
  db_.begin();
  RowInserts rows(&db_, kInsert, kColumns);
  ASSERT_TRUE(addRows(&rows, 1, kGroup));
  // Fails a statement with more than one row, and none with one.
  db_.setSqlNoResult(
      "CREATE TRIGGER one BEFORE INSERT ON EVENT WHEN ( SELECT COUNT(*) FROM EVENT ) % 32 = 8 AND "
      "NOT EXISTS( SELECT 1 FROM sqlite_sequence WHERE seq >= NEW.eventID - 1 ) BEGIN SELECT "
      "RAISE( "
      "ABORT, 'more than one' ); END");
  EXPECT_TRUE(addRows(&rows, kGroup + 1, 3 * kGroup));
  EXPECT_TRUE(rows.finish());
  db_.end();
  EXPECT_THAT(keys(), ElementsAre(keysTo(3 * kGroup)));
}

TEST_F(RowInsertsTest, ALostTransactionIsLoggedOnceAndNothingIsTriedOutsideOfIt) {
  db_.setSqlNoResult(
      "CREATE TRIGGER gone BEFORE INSERT ON EVENT WHEN NEW.eventID = 40 BEGIN SELECT RAISE( "
      "ROLLBACK, 'no room' ); END");
  db_.begin();
  RowInserts rows(&db_, kInsert, kColumns);
  ASSERT_TRUE(addRows(&rows, 1, kGroup));
  DbTrace trace;
  EXPECT_FALSE(addRows(&rows, kGroup + 1, 2 * kGroup));
  const std::string sql = single(kGroup + 1, 7, 1001 + kGroup);
  EXPECT_EQ(rows.failed(), sql);
  EXPECT_THAT(
      trace.take(),
      ElementsAre("lock", "log 3: SQLite Err no room", "log 3: setSql() errorSQL = (" + sql + ")",
                  "log 4:  error [no room] SQL=" + sql, "log 4:  SQL error no retry", "unlock"));
  EXPECT_FALSE(rows.finish());
  EXPECT_THAT(keys(), ElementsAre(""));
}

TEST_F(RowInsertsTest, AFullDiskIsNoted) {
  db_.setSqlNoResult("PRAGMA max_page_count = 12");
  db_.begin();
  RowInserts rows(&db_, kInsert, kColumns);
  EXPECT_FALSE(addRows(&rows, 1, 100000));
  EXPECT_TRUE(db_.ranFull());
  db_.end();
}

TEST_F(RowInsertsTest, WithoutTheTableTheFirstRowSaysSo) {
  db_.setSqlNoResult("DROP TABLE EVENT");
  db_.begin();
  RowInserts rows(&db_, kInsert, kColumns);
  DbTrace trace;
  EXPECT_FALSE(addRows(&rows, 1, kGroup));
  EXPECT_EQ(rows.failed(), single(1, 7, 1001));
  EXPECT_THAT(trace.take("log 3: SQLite Err "), testing::Each("no such table: EVENT"));
}

TEST_F(RowInsertsTest, WithoutTheLockTheRowsGoOneByOneAndSaySo) {
  db_.begin();
  RowInserts rows(&db_, kInsert, kColumns);
  ASSERT_TRUE(addRows(&rows, 1, kGroup));
  DbTrace trace;
  DbTrace::failLocks(true);
  EXPECT_TRUE(addRows(&rows, kGroup + 1, 2 * kGroup));
  DbTrace::failLocks(false);
  EXPECT_EQ(trace.take("log 3: cannot lock SQLite_SEM SQL").size(), kGroup);
}

TEST_F(RowInsertsTest, TheConnectionClosesBehindAGroup) {
  db_.begin();
  {
    RowInserts rows(&db_, kInsert, kColumns);
    ASSERT_TRUE(addRows(&rows, 1, kGroup));
  }
  db_.end();
  EXPECT_EQ(db_.finish(), 0u) << "a statement that is left would keep it open";
}

}  // namespace
