// Statements, their result and its cells, transactions.
#include <sqlite3.h>

#include "db/DbTest.h"

namespace {

using namespace tarn_test;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

class StatementTest : public DbTest {
 protected:
  StatementTest() { db_.connect(kDbPath); }
};

TEST_F(StatementTest, ResultIsHeldAndReadByCell) {
  DbTrace trace;
  EXPECT_EQ(0u, db_.setSql("SELECT 1 AS a, 22 AS b UNION ALL SELECT 3, 4294967295"));
  EXPECT_EQ(2u, db_.getNTuple());
  EXPECT_EQ(2u, db_.getNColumn());
  EXPECT_EQ(1u, db_.getValue(0, 0));
  EXPECT_EQ(22u, db_.getValue(0, 1));
  EXPECT_EQ(3u, db_.getValue(1, 0));
  EXPECT_EQ(4294967295u, db_.getValue(1, 1));
  EXPECT_THAT(trace.take("log "), IsEmpty());
}

TEST_F(StatementTest, EachStatementCostsOneLockPairAndOneCall) {
  DbTrace trace;
  db_.setSql("SELECT 1");
  db_.setSqlNoResult("DELETE FROM EVENT");
  EXPECT_THAT(trace.take(), ElementsAre("lock", "table SELECT 1", "unlock", "lock",
                                        "exec DELETE FROM EVENT", "unlock"));
}

TEST_F(StatementTest, FailingStatementIsTriedTwiceHalfASecondApartUnderOneLock) {
  DbTrace trace;
  EXPECT_EQ(0u, db_.setSql("SELECT * FROM NONE"));
  EXPECT_THAT(
      trace.take(),
      ElementsAre("lock", "table SELECT * FROM NONE",  //
                  "log 3: SQLite Err no such table: NONE",
                  "log 3: setSql() errorSQL = (SELECT * FROM NONE)",
                  "log 4:  error [no such table: NONE] SQL=SELECT * FROM NONE", "sleep 500000",
                  "table SELECT * FROM NONE", "log 3: SQLite Err no such table: NONE",
                  "log 3: setSql() errorSQL = (SELECT * FROM NONE)",
                  "log 4:  error [no such table: NONE] SQL=SELECT * FROM NONE", "sleep 500000",
                  "unlock"));
  EXPECT_EQ(0u, db_.getNTuple());
  EXPECT_EQ(0u, db_.getNColumn());
}

TEST_F(StatementTest, FailingStatementWithoutResultIsTriedTwiceWithTheSameLines) {
  DbTrace trace;
  EXPECT_EQ(0u, db_.setSqlNoResult("DELETE FROM NONE"));
  EXPECT_THAT(
      trace.take(),
      ElementsAre("lock", "exec DELETE FROM NONE", "log 3: SQLite Err no such table: NONE",
                  "log 3: setSql() errorSQL = (DELETE FROM NONE)",
                  "log 4:  error [no such table: NONE] SQL=DELETE FROM NONE", "sleep 500000",
                  "exec DELETE FROM NONE", "log 3: SQLite Err no such table: NONE",
                  "log 3: setSql() errorSQL = (DELETE FROM NONE)",
                  "log 4:  error [no such table: NONE] SQL=DELETE FROM NONE", "sleep 500000",
                  "unlock"));
}

TEST_F(StatementTest, SeveralStatementsTakeTheLockOnceAndEndWithTheFirstThatFails) {
  const char* const sql[] = {"DELETE FROM EVENT", "DELETE FROM NONE", "DELETE FROM STREAM"};
  db_.begin();
  DbTrace trace;
  EXPECT_EQ(1u, db_.setSqlEach(sql, 3));
  EXPECT_FALSE(db_.lastStatementDone());
  EXPECT_THAT(trace.take(), ElementsAre("lock", "exec DELETE FROM EVENT", "exec DELETE FROM NONE",
                                        "log 3: SQLite Err no such table: NONE",
                                        "log 3: setSql() errorSQL = (DELETE FROM NONE)",
                                        "log 4:  error [no such table: NONE] SQL=DELETE FROM NONE",
                                        "sleep 500000", "exec DELETE FROM NONE",
                                        "log 3: SQLite Err no such table: NONE",
                                        "log 3: setSql() errorSQL = (DELETE FROM NONE)",
                                        "log 4:  error [no such table: NONE] SQL=DELETE FROM NONE",
                                        "sleep 500000", "unlock"));
  EXPECT_EQ(1u, db_.setSqlEach(sql, 1));
  EXPECT_TRUE(db_.lastStatementDone());
  EXPECT_EQ(0u, db_.setSqlEach(sql, 0));
}

TEST_F(StatementTest, OfSeveralStatementsTheOneThatIsOutsideOfATransactionIsTheLast) {
  const char* const sql[] = {"DELETE FROM EVENT", "END", "DELETE FROM STREAM"};
  EXPECT_EQ(0u, db_.setSqlEach(sql, 1));
  db_.begin();
  DbTrace trace;
  EXPECT_EQ(1u, db_.setSqlEach(sql, 3));
  EXPECT_THAT(trace.take(), ElementsAre("lock", "exec DELETE FROM EVENT", "exec END", "unlock"));
}

TEST_F(StatementTest, ConstraintViolationIsTriedOnce) {
  addEvent(1, 1, 1, 1);
  const std::string sql = "INSERT INTO EVENT( eventID ) VALUES( 1 )";
  const std::string why = "UNIQUE constraint failed: EVENT.eventID";
  DbTrace trace;
  EXPECT_EQ(0u, db_.setSqlNoResult(sql.c_str()));
  EXPECT_THAT(trace.take(), ElementsAre("lock", "exec " + sql, "log 3: SQLite Err " + why,
                                        "log 3: setSql() errorSQL = (" + sql + ")",
                                        "log 4:  error [" + why + "] SQL=" + sql,
                                        "log 4:  SQL error no retry", "unlock"));
  EXPECT_EQ(0u, db_.setSql(sql.c_str()));
  EXPECT_EQ(0u, db_.getNTuple());
  EXPECT_THAT(trace.take(), ElementsAre("lock", "table " + sql, "log 3: SQLite Err " + why,
                                        "log 3: setSql() errorSQL = (" + sql + ")",
                                        "log 4:  error [" + why + "] SQL=" + sql,
                                        "log 4:  SQL error no retry", "unlock"));
}

TEST_F(StatementTest, SecondAttemptThatSucceedsIsASuccess) {
  sqlite3* blocker = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(kDbPath, &blocker));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(blocker, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr));
  DbTrace trace;
  trace.onSleep = [&] { sqlite3_exec(blocker, "END", nullptr, nullptr, nullptr); };
  const std::string sql = "SELECT COUNT(*) FROM EVENT";
  EXPECT_EQ(0u, db_.setSql(sql.c_str()));
  EXPECT_THAT(trace.take(),
              ElementsAre("lock", "table " + sql, "log 3: SQLite Err database is locked",
                          "log 3: setSql() errorSQL = (" + sql + ")",
                          "log 4:  error [database is locked] SQL=" + sql, "sleep 500000",
                          "exec END", "table " + sql, "unlock"));
  EXPECT_EQ(1u, db_.getNTuple());
  sqlite3_close(blocker);
}

TEST_F(StatementTest, StatementWithoutTheLockIsLoggedAndGoesOnAndGivesNothingBack) {
  DbTrace trace;
  DbTrace::failLocks(true);
  EXPECT_EQ(0u, db_.setSql("SELECT 8"));
  EXPECT_EQ(8u, db_.getValue(0, 0));
  EXPECT_EQ(0u, db_.setSqlNoResult("SELECT 9"));
  EXPECT_THAT(
      trace.take(),
      ElementsAre("lock fails", "log 3: cannot lock SQLite_SEM SQL(SELECT 8)", "table SELECT 8",
                  "lock fails", "log 3: cannot lock SQLite_SEM SQL(SELECT 9)", "exec SELECT 9"));
}

TEST_F(StatementTest, StatementWithoutResultLeavesTheHeldOne) {
  db_.setSql("SELECT 41, 42");
  db_.setSqlNoResult("INSERT INTO EVENT( extTrg ) VALUES( 1 ); SELECT * FROM STREAM");
  EXPECT_EQ(1u, db_.getNTuple());
  EXPECT_EQ(2u, db_.getNColumn());
  EXPECT_EQ(42u, db_.getValue(0, 1));
  EXPECT_THAT(rowsOf("SELECT extTrg FROM EVENT"), ElementsAre("1"));
}

TEST_F(StatementTest, FailedStatementReleasesTheHeldResult) {
  db_.setSql("SELECT 41");
  DbTrace trace;
  db_.setSql("SELECT * FROM NONE");
  trace.take();
  EXPECT_EQ(0u, db_.getValue(0, 0));
  EXPECT_THAT(trace.take(), ElementsAre("log 3:  Column or Row over: [0<0||0<0]"));
}

TEST_F(StatementTest, EmptyResultHasNoCells) {
  db_.setSql("SELECT * FROM EVENT");
  EXPECT_EQ(0u, db_.getNTuple());
  DbTrace trace;
  EXPECT_EQ(0u, db_.getValue(0, 0));
  EXPECT_EQ(0u, db_.getValue64(0, 0));
  EXPECT_THAT(trace.take(), ElementsAre("log 3:  Column or Row over: [0<0||0<0]",
                                        "log 3:  Column or Row over: [0<0||0<0]"));
}

TEST_F(StatementTest, CellsOutsideTheResultAreOver) {
  db_.setSql("SELECT 1, 2, 3");
  DbTrace trace;
  EXPECT_EQ(0u, db_.getValue(1, 0));
  EXPECT_EQ(0u, db_.getValue(0, 3));
  EXPECT_EQ(0u, db_.getValue(-2, 0));
  EXPECT_EQ(0u, db_.getValue(0, -1));
  EXPECT_EQ(0u, db_.getValue64(7, 9));
  EXPECT_THAT(trace.take(), ElementsAre("log 3:  Column or Row over: [1<1||3<0]",
                                        "log 3:  Column or Row over: [1<0||3<3]",
                                        "log 3:  Column or Row over: [1<-2||3<0]",
                                        "log 3:  Column or Row over: [1<0||3<-1]",
                                        "log 3:  Column or Row over: [1<7||3<9]"));
}

TEST_F(StatementTest, ReleasedResultHasNoCells) {
  db_.setSql("SELECT 1");
  db_.freeTable();
  db_.freeTable();
  DbTrace trace;
  EXPECT_EQ(0u, db_.getValue(0, 0));
  EXPECT_THAT(trace.take(), ElementsAre("log 3:  Column or Row over: [1<0||1<0]"));
}

TEST_F(StatementTest, RowBeforeTheFirstIsTheHeader) {
  db_.setSql("SELECT 5 AS \"77name\", 6 AS plain");
  DbTrace trace;
  EXPECT_EQ(77u, db_.getValue(-1, 0));
  EXPECT_EQ(0u, db_.getValue(-1, 1));
  EXPECT_EQ(77u, db_.getValue64(-1, 0));
  EXPECT_THAT(trace.take(), IsEmpty());
}

TEST_F(StatementTest, NullCellIsAWarningIn32BitsAndAnErrorIn64) {
  db_.setSql("SELECT 1, NULL");
  DbTrace trace;
  EXPECT_EQ(0u, db_.getValue(0, 1));
  EXPECT_EQ(0u, db_.getValue64(0, 1));
  EXPECT_THAT(trace.take(),
              ElementsAre("log 4:  getCValue [0,1] is NULL", "log 3:  getCValue [0,1] is NULL"));
}

TEST_F(StatementTest, TextConvertsAsCNumbersDo) {
  db_.setSql("SELECT '010', '0x10', '12ab', '', 'x', ' 7', '+8', '09'");
  const uint32_t expected[] = {8, 16, 12, 0, 0, 7, 8, 0};
  for (long column = 0; column < 8; ++column) {
    EXPECT_EQ(expected[column], db_.getValue(0, column)) << column;
    EXPECT_EQ(expected[column], db_.getValue64(0, column)) << column;
  }
}

TEST_F(StatementTest, NumbersSaturateAtTheirWidthAsOnA32BitMachine) {
  db_.setSql(
      "SELECT 4294967295, 4294967296, '99999999999999999999', -1, '-4294967295', '-4294967296', "
      "'18446744073709551615', '- 5'");
  const uint32_t expected[] = {4294967295, 4294967295, 4294967295, 4294967295,
                               1,          4294967295, 4294967295, 0};
  for (long column = 0; column < 8; ++column) {
    EXPECT_EQ(expected[column], db_.getValue(0, column)) << column;
  }
  EXPECT_EQ(4294967296ull, db_.getValue64(0, 1));
  EXPECT_EQ(18446744073709551615ull, db_.getValue64(0, 2));
  EXPECT_EQ(18446744073709551615ull, db_.getValue64(0, 6));
}

TEST_F(StatementTest, ChangedRowsAreReadUnderTheLock) {
  addEvent(1, 1, 1, 1);
  addEvent(2, 1, 1, 1);
  db_.setSqlNoResult("UPDATE EVENT SET extTrg = 2");
  DbTrace trace;
  EXPECT_EQ(2u, db_.getCmdTuple());
  EXPECT_THAT(trace.take(), ElementsAre("lock", "changes", "unlock"));
}

TEST_F(StatementTest, StatusIsOneAfterSuccessAndLoggedAfterAnError) {
  db_.setSql("SELECT 1");
  EXPECT_EQ(1u, db_.getStatus());
  DbTrace trace;
  db_.setSql("SELEKT");
  trace.take();
  EXPECT_EQ(0u, db_.getStatus());
  EXPECT_THAT(trace.take(), ElementsAre("log 3: SQLite Err near \"SELEKT\": syntax error"));
}

TEST_F(StatementTest, TransactionTakesTheLockForEachStep) {
  DbTrace trace;
  EXPECT_EQ(0u, db_.begin());
  db_.setSqlNoResult("INSERT INTO EVENT( extTrg ) VALUES( 4 )");
  EXPECT_THAT(rowsOf("SELECT extTrg FROM EVENT"), IsEmpty());
  EXPECT_EQ(0u, db_.end());
  EXPECT_THAT(rowsOf("SELECT extTrg FROM EVENT"), ElementsAre("4"));
  EXPECT_THAT(trace.take(), ElementsAre("lock", "exec BEGIN", "unlock", "lock",
                                        "exec INSERT INTO EVENT( extTrg ) VALUES( 4 )", "unlock",
                                        "lock", "exec END", "unlock"));
}

TEST_F(StatementTest, StatementInterruptedByAnotherTransactionIsRetriedAndThenGivenUp) {
  CApiDb other;
  other.begin();
  other.setSqlNoResult("INSERT INTO EVENT( extTrg ) VALUES( 4 )");
  DbTrace trace;
  db_.setSqlNoResult("INSERT INTO EVENT( extTrg ) VALUES( 5 )");
  EXPECT_EQ(2u, trace.take("exec INSERT").size());
  other.end();
  EXPECT_THAT(rowsOf("SELECT extTrg FROM EVENT"), ElementsAre("4"));
}

TEST_F(StatementTest, HeldResultMayBeWalkedWhileASecondObjectRunsStatements) {
  addEvent(1, 1, 1, 1);
  addEvent(2, 2, 1, 1);
  db_.setSql("SELECT eventID FROM EVENT ORDER BY eventID");
  CApiDb second;
  second.setSql("SELECT * FROM EVENT WHERE eventID = 1");
  EXPECT_EQ(2u, db_.getNTuple());
  EXPECT_EQ(2u, db_.getValue(1, 0));
}

TEST_F(StatementTest, ManyThreadsWithObjectsOfTheirOwnWorkAtOnce) {
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      CApiDb db;
      for (int n = 0; n < 25; ++n) db.setSqlNoResult("INSERT INTO EVENT( extTrg ) VALUES( 1 )");
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM EVENT"), ElementsAre("100"));
}

}  // namespace
