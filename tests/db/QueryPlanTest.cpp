// How SQLite carries out the statements: by key or by an index, never by reading a whole table
// where the recorder cannot afford it.
#include "db/DbTest.h"

namespace {

using namespace tarn_test;
using testing::ElementsAre;

class QueryPlanTest : public DbTest {
 protected:
  QueryPlanTest() { db_.connect(kDbPath); }

  // The plan of the one SELECT that `query` runs, a line a step.
  std::vector<std::string> planOf(const std::function<void()>& query) {
    DbTrace trace;
    query();
    const std::vector<std::string> statements = trace.take("table ");
    EXPECT_FALSE(statements.empty());
    return plan(statements.empty() ? "" : statements[0]);
  }
  static std::vector<std::string> plan(const std::string& statement) {
    std::vector<std::string> steps;
    for (const std::string& row : rowsOf("EXPLAIN QUERY PLAN " + statement)) {
      steps.push_back(row.substr(row.rfind('|') + 1));
    }
    return steps;
  }

  DB_EVENT events_[4] = {};
  DB_STREAM streams_[4] = {};
};

constexpr char kEventByKey[] = "SEARCH EVENT USING INTEGER PRIMARY KEY (rowid=?)";

TEST_F(QueryPlanTest, SingleEventsAreFoundByKeyOrAtTheEndOfTheKeys) {
  EXPECT_THAT(planOf([&] { db_.selectEvent(7, events_); }), ElementsAre(kEventByKey));
  // A scan in key order that stops at the first row; no sort.
  EXPECT_THAT(planOf([&] { db_.selectEvent(0, events_); }), ElementsAre("SCAN EVENT"));
  EXPECT_THAT(planOf([&] { db_.selectEvent(0xFFFFFFFF, events_); }), ElementsAre("SCAN EVENT"));
}

TEST_F(QueryPlanTest, SingleStreamsAreFoundByKeyOrByStart) {
  EXPECT_THAT(planOf([&] { db_.selectStream(7, streams_); }),
              ElementsAre("SEARCH STREAM USING INTEGER PRIMARY KEY (rowid=?)"));
  EXPECT_THAT(planOf([&] { db_.selectStreamTime(7, streams_); }),
              ElementsAre("SEARCH STREAM USING INDEX STREAM_startDate (startDate<?)"));
  EXPECT_THAT(planOf([&] { db_.selectStreamTimeNext(7, streams_); }),
              ElementsAre("SEARCH STREAM USING INDEX STREAM_startDate (startDate>?)"));
  EXPECT_THAT(planOf([&] { db_.selectStreamOldest(streams_); }), ElementsAre("SCAN STREAM"));
  EXPECT_THAT(planOf([&] { db_.selectStreamOldestTime(streams_); }),
              ElementsAre("SCAN STREAM USING INDEX STREAM_startDate"));
}

TEST_F(QueryPlanTest, EventListWalksTheKeysWithoutASort) {
  EXPECT_THAT(planOf([&] { db_.selectEventList(1, 0, 0, 5, 0, 0, events_); }),
              ElementsAre("SEARCH EVENT USING INTEGER PRIMARY KEY (rowid>?)"));
  EXPECT_THAT(planOf([&] { db_.selectEventList(1, 100, 200, 5, 3, 1, events_); }),
              ElementsAre("SEARCH EVENT USING INTEGER PRIMARY KEY (rowid<?)"));
  // By the start each step would sort a whole period.
  EXPECT_THAT(planOf([&] { db_.selectEventList(1, 100, 200, 5, 0, 0, events_); }),
              ElementsAre("SEARCH EVENT USING INTEGER PRIMARY KEY (rowid>?)"));
  EXPECT_THAT(planOf([&] { db_.selectEventList(1, 100, 0, 5, 0, 0, events_); }),
              ElementsAre("SEARCH EVENT USING INTEGER PRIMARY KEY (rowid>?)"));
  EXPECT_THAT(planOf([&] { db_.selectEventList(1, 100, 200, 0, 3, 0, events_); }),
              ElementsAre("SCAN EVENT"));
  EXPECT_THAT(planOf([&] { db_.selectEventList(1, 100, 200, 0, 0, 1, events_); }),
              ElementsAre("SCAN EVENT"));
}

TEST_F(QueryPlanTest, ViewerPageByKeyWalksTheKeysWithoutASort) {
  EXPECT_THAT(planOf([&] { db_.selectViewerList(events_, 4, nullptr, 0, 0, 0, 5, 0, 0); }),
              ElementsAre("SEARCH EVENT USING INTEGER PRIMARY KEY (rowid>?)"));
  EXPECT_THAT(planOf([&] { db_.selectViewerList(events_, 4, nullptr, 0, 0, 0, 5, 9, 1); }),
              ElementsAre("SEARCH EVENT USING INTEGER PRIMARY KEY (rowid>? AND rowid<?)"));
}

constexpr char kEventsOfPeriod[] =
    "SEARCH EVENT USING INDEX EVENT_startDate (startDate>? AND startDate<?)";

TEST_F(QueryPlanTest, ViewerPageByPeriodReadsThePeriodInItsOrder) {
  EXPECT_THAT(planOf([&] { db_.selectViewerList(events_, 4, nullptr, 0, 100, 200, 0, 0, 0); }),
              ElementsAre(kEventsOfPeriod));
  const unsigned short triggers[] = {3, 5};
  EXPECT_THAT(planOf([&] { db_.selectViewerList(events_, 4, triggers, 2, 100, 200, 0, 0, 1); }),
              ElementsAre(kEventsOfPeriod));
  EXPECT_THAT(planOf([&] { db_.selectViewerList(events_, 4, triggers, 2, 100, 200, 5, 9, 1); }),
              ElementsAre(kEventsOfPeriod));
  EXPECT_THAT(planOf([&] { db_.selectViewerList(events_, 4, nullptr, 0, 0, 200, 0, 0, 1); }),
              ElementsAre("SEARCH EVENT USING INDEX EVENT_startDate (startDate<?)"));
}

TEST_F(QueryPlanTest, ViewerCountOfAPeriodReadsTheIndexAlone) {
  EXPECT_THAT(planOf([&] { db_.selectViewerList(events_, 0, nullptr, 0, 100, 200, 0, 0, 0); }),
              ElementsAre("SEARCH EVENT USING COVERING INDEX EVENT_startDate (startDate>? AND "
                          "startDate<?)"));
}

TEST_F(QueryPlanTest, RipListWalksTheKeysWithoutASort) {
  EXPECT_THAT(planOf([&] { db_.selectRipList(streams_, 4, 0, 100, 200, 0); }),
              ElementsAre("SCAN STREAM"));
}

TEST_F(QueryPlanTest, StreamCountUsesTheStartIndexForBothHalves) {
  DbTrace trace;
  db_.selectCount(100, 200, 0);
  EXPECT_THAT(plan(trace.take("exec ")[0]),
              ElementsAre("MULTI-INDEX OR", "INDEX 1",
                          "SEARCH STREAM USING INDEX STREAM_startDate (startDate<?)", "INDEX 2",
                          "SEARCH STREAM USING INDEX STREAM_startDate (startDate>? AND "
                          "startDate<?)"));
}

TEST_F(QueryPlanTest, JournalLookUpsUseKeyAndBackOffset) {
  EXPECT_THAT(plan("SELECT backOffset FROM EVENT WHERE eventID = 7"), ElementsAre(kEventByKey));
  EXPECT_THAT(plan("SELECT backOffset FROM STREAM WHERE streamID = 7"),
              ElementsAre("SEARCH STREAM USING INTEGER PRIMARY KEY (rowid=?)"));
  EXPECT_THAT(plan("SELECT eventID FROM EVENT WHERE backOffset = 32"),
              ElementsAre("SEARCH EVENT USING COVERING INDEX EVENT_backOffset (backOffset=?)"));
  EXPECT_THAT(plan("SELECT streamID FROM STREAM WHERE backOffset = 64"),
              ElementsAre("SEARCH STREAM USING COVERING INDEX STREAM_backOffset (backOffset=?)"));
}

TEST_F(QueryPlanTest, StreamsOfAChunkAreFoundByTheChunkIndexInKeyOrder) {
  EXPECT_THAT(
      plan("SELECT chunkOffset FROM STREAM WHERE chunkID = 5 ORDER BY streamID ASC LIMIT 1"),
      ElementsAre("SEARCH STREAM USING INDEX STREAM_chunkID (chunkID=?)"));
  EXPECT_THAT(plan("SELECT chunkID FROM STREAM ORDER BY streamID DESC LIMIT 1"),
              ElementsAre("SCAN STREAM"));
}

TEST_F(QueryPlanTest, UpdatesAndDeletesGoByKey) {
  EXPECT_THAT(plan("UPDATE EVENT SET  extTrg = 3 WHERE eventID = 7"), ElementsAre(kEventByKey));
  EXPECT_THAT(plan("DELETE FROM EVENT WHERE eventID = 7"), ElementsAre(kEventByKey));
  EXPECT_THAT(plan("SELECT eventID, backOffset FROM EVENT WHERE startDate >= 100"),
              ElementsAre("SCAN EVENT"))
      << "in the order of the keys";
  EXPECT_THAT(plan("SELECT eventID FROM EVENT WHERE startDate < 100 ORDER BY eventID DESC"),
              ElementsAre("SCAN EVENT"));
  EXPECT_THAT(plan("SELECT eventID FROM EVENT WHERE eventID < 4"),
              ElementsAre("SEARCH EVENT USING INTEGER PRIMARY KEY (rowid<?)"));
}

}  // namespace
