// Questions about events: whole statements and answers.
#include <cstring>

#include "db/DbTest.h"

namespace {

using namespace tarn_test;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long kLast = 0xFFFFFFFF;

class EventQueriesTest : public DbTest {
 protected:
  EventQueriesTest() { db_.connect(kDbPath); }

  // Events 1 to 6, one a hundred seconds, 50 seconds long, triggers 1 and 2 by turns.
  static void addSix() {
    for (uint32_t i = 1; i <= 6; ++i) addEvent(i, i % 2 == 1 ? 1 : 2, i * 100, i * 100 + 50);
  }

  std::vector<uint32_t> list(unsigned long count, unsigned long start, unsigned long end,
                             unsigned long from, unsigned short trigger, unsigned char descending) {
    DB_EVENT events[16];
    const uint32_t found =
        db_.selectEventList(count, start, end, from, trigger, descending, events);
    return keys(events, found);
  }

  std::vector<uint32_t> view(unsigned long limit, std::vector<unsigned short> triggers,
                             unsigned long start, unsigned long end, unsigned long after,
                             unsigned long before, unsigned char descending) {
    DB_EVENT events[16];
    const uint32_t found = db_.selectViewerList(events, limit, triggers.data(), triggers.size(),
                                                start, end, after, before, descending);
    return keys(events, found);
  }

  DB_EVENT event_ = {};
};

TEST_F(EventQueriesTest, EventIsFoundByKeyAndFilledWhole) {
  rowsOf("INSERT INTO EVENT VALUES( 7, 1, 2, 3, 4, 5, 6, 8 )");
  DbTrace trace;
  EXPECT_EQ(1u, db_.selectEvent(7, &event_));
  EXPECT_THAT(trace.take("table "), ElementsAre("SELECT * FROM EVENT  WHERE eventID = 7"));
  const DB_EVENT expected = {7, 1, 2, 3, 4, 5, 6, 8};
  EXPECT_EQ(0, memcmp(&expected, &event_, sizeof expected));
}

TEST_F(EventQueriesTest, AbsentEventIsNotFoundAndNothingIsWritten) {
  memset(&event_, 0xCC, sizeof event_);
  const DB_EVENT before = event_;
  EXPECT_EQ(0u, db_.selectEvent(7, &event_));
  EXPECT_EQ(0u, db_.selectEvent(0, &event_));
  EXPECT_EQ(0u, db_.selectEvent(kLast, &event_));
  EXPECT_EQ(0, memcmp(&before, &event_, sizeof before));
}

TEST_F(EventQueriesTest, FirstAndLastEventHaveCodesOfTheirOwn) {
  addSix();
  DbTrace trace;
  EXPECT_EQ(1u, db_.selectEvent(0, &event_));
  EXPECT_EQ(1u, event_.eventID);
  EXPECT_EQ(1u, db_.selectEvent(kLast, &event_));
  EXPECT_EQ(6u, event_.eventID);
  EXPECT_THAT(trace.take("table "),
              ElementsAre("SELECT * FROM EVENT  ORDER BY eventID ASC LIMIT 1",
                          "SELECT * FROM EVENT  ORDER BY eventID DESC LIMIT 1"));
}

TEST_F(EventQueriesTest, SixteenBitFieldsKeepTheirLowBits) {
  rowsOf("INSERT INTO EVENT VALUES( 7, 65537, 65538, 3, 4, 131077, 65542, 8 )");
  EXPECT_EQ(1u, db_.selectEvent(7, &event_));
  EXPECT_EQ(1u, event_.extTrg);
  EXPECT_EQ(2u, event_.preSec);
  EXPECT_EQ(5u, event_.startMSec);
  EXPECT_EQ(6u, event_.endMSec);
}

TEST_F(EventQueriesTest, ConversionRefusesAResultOfAnotherShape) {
  memset(&event_, 0xCC, sizeof event_);
  const DB_EVENT before = event_;
  db_.setSql("SELECT 1, 2, 3");
  DbTrace trace;
  EXPECT_EQ(0xFFFFFFFFu, db_.getEventValue(0, &event_));
  EXPECT_THAT(trace.take(), ElementsAre("log 3: CApiDb::getEventValue() m_ncol error = 3"));
  EXPECT_EQ(0, memcmp(&before, &event_, sizeof before));
}

TEST_F(EventQueriesTest, TableWithAColumnTooManyIsLoggedAndNotRead) {
  addSix();
  rowsOf("ALTER TABLE EVENT ADD COLUMN more INTEGER");
  DbTrace trace;
  EXPECT_EQ(0u, db_.selectEvent(1, &event_));
  EXPECT_THAT(trace.take("log "), ElementsAre("3: CApiDb::getEventValue() m_ncol error = 9"));
}

TEST_F(EventQueriesTest, ListMovesAKeyCursorOneStatementAnEvent) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(list(3, 0, 0, 2, 0, 0), ElementsAre(2, 3, 4));
  EXPECT_THAT(trace.take("table SELECT * FROM EVENT "),
              ElementsAre("WHERE 2 <= eventID ORDER BY eventID ASC LIMIT 1",
                          "WHERE 2 < eventID ORDER BY eventID ASC LIMIT 1",
                          "WHERE 3 < eventID ORDER BY eventID ASC LIMIT 1"));
  EXPECT_THAT(list(3, 0, 0, 5, 0, 1), ElementsAre(5, 4, 3));
  EXPECT_THAT(trace.take("table SELECT * FROM EVENT "),
              ElementsAre("WHERE eventID <= 5 ORDER BY eventID DESC LIMIT 1",
                          "WHERE eventID < 5 ORDER BY eventID DESC LIMIT 1",
                          "WHERE eventID < 4 ORDER BY eventID DESC LIMIT 1"));
}

TEST_F(EventQueriesTest, ListWithoutAKeyStartsAtTheEnd) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(list(1, 0, 0, 0, 0, 0), ElementsAre(1));
  EXPECT_THAT(list(1, 0, 0, 0, 0, 255), ElementsAre(6));
  EXPECT_THAT(trace.take("table "),
              ElementsAre("SELECT * FROM EVENT  ORDER BY eventID ASC LIMIT 1",
                          "SELECT * FROM EVENT  ORDER BY eventID DESC LIMIT 1"));
}

TEST_F(EventQueriesTest, ListOfEveryEventEndsWithTheColumnMessage) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(list(0, 0, 0, 0, 0, 0), ElementsAre(1, 2, 3, 4, 5, 6));
  const std::vector<std::string> lines = trace.take();
  EXPECT_EQ("log 3: CApiDb::getEventValue() m_ncol error = 0", lines.back());
}

TEST_F(EventQueriesTest, ListOfMoreThanThereIsIsShort) {
  addSix();
  EXPECT_THAT(list(10, 0, 0, 5, 0, 0), ElementsAre(5, 6));
  EXPECT_THAT(list(10, 0, 0, 77, 0, 0), IsEmpty());
}

TEST_F(EventQueriesTest, ListOfAPeriodHoldsEventsThatStartInIt) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(list(10, 200, 400, 0, 0, 0), ElementsAre(2, 3, 4));
  EXPECT_EQ("WHERE 200 <= startDate AND startDate <= 400 ORDER BY eventID ASC LIMIT 1",
            trace.take("table SELECT * FROM EVENT ")[0]);
  EXPECT_THAT(list(10, 200, 400, 3, 2, 0), ElementsAre(4));
  EXPECT_EQ(
      "WHERE 200 <= startDate AND startDate <= 400 AND extTrg = 2 AND 3 <= eventID ORDER BY "
      "eventID ASC LIMIT 1",
      trace.take("table SELECT * FROM EVENT ")[0]);
}

TEST_F(EventQueriesTest, ListOfAMomentHoldsEventsInProgress) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(list(10, 320, 0, 0, 0, 1), ElementsAre(3));
  EXPECT_THAT(trace.take("table SELECT * FROM EVENT "),
              ElementsAre("WHERE startDate <= 320 AND 320 <= endDate ORDER BY eventID DESC LIMIT 1",
                          "WHERE startDate <= 320 AND 320 <= endDate AND eventID < 3 ORDER BY "
                          "eventID DESC LIMIT 1"));
}

TEST_F(EventQueriesTest, ListIgnoresAnEndWithoutAStart) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(list(10, 0, 200, 0, 0, 0), ElementsAre(1, 2, 3, 4, 5, 6));
  EXPECT_EQ(" ORDER BY eventID ASC LIMIT 1", trace.take("table SELECT * FROM EVENT ")[0]);
}

TEST_F(EventQueriesTest, ListFiltersByTrigger) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(list(2, 0, 0, 4, 2, 1), ElementsAre(4, 2));
  EXPECT_THAT(trace.take("table SELECT * FROM EVENT "),
              ElementsAre("WHERE extTrg = 2 AND eventID <= 4 ORDER BY eventID DESC LIMIT 1",
                          "WHERE extTrg = 2 AND eventID < 4 ORDER BY eventID DESC LIMIT 1"));
}

TEST_F(EventQueriesTest, RowOfKeyZeroDoesNotMakeTheListEndless) {
  addEvent(0, 1, 100, 150);
  addSix();
  EXPECT_THAT(list(0, 0, 0, 0, 0, 0), ElementsAre(0, 1, 2, 3, 4, 5, 6));
  EXPECT_THAT(list(0, 0, 0, 2, 0, 1), ElementsAre(2, 1, 0));
}

TEST_F(EventQueriesTest, KeysThat32BitsCannotHoldDoNotMakeTheListEndless) {
  addEvent(4294967295u, 1, 100, 150);
  rowsOf("INSERT INTO EVENT( eventID ) VALUES( 4294967297 )");
  EXPECT_THAT(list(0, 0, 0, 4294967295u, 0, 0), ElementsAre(4294967295u));
  rowsOf("INSERT INTO EVENT( eventID ) VALUES( -3 )");
  rowsOf("INSERT INTO EVENT( eventID ) VALUES( -2 )");
  EXPECT_THAT(list(0, 0, 0, 9, 0, 1), ElementsAre(4294967294u));
}

TEST_F(EventQueriesTest, ViewerPageOfAPeriodAndTriggers) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(view(20, {3, 5}, 100, 200, 0, 0, 0), IsEmpty());
  EXPECT_THAT(view(20, {2, 5}, 100, 400, 0, 0, 1), ElementsAre(4, 2));
  EXPECT_THAT(
      trace.take("table "),
      ElementsAre("SELECT * FROM EVENT WHERE ( ( 100 <= startDate AND startDate <= 200 ) AND ( "
                  "extTrg = 3 OR extTrg = 5 ) ) ORDER BY StartDate ASC, eventID ASC LIMIT 20",
                  "SELECT * FROM EVENT WHERE ( ( 100 <= startDate AND startDate <= 400 ) AND ( "
                  "extTrg = 2 OR extTrg = 5 ) ) ORDER BY StartDate DESC, eventID DESC LIMIT 20"));
}

TEST_F(EventQueriesTest, ViewerPeriodMayComeInEitherOrder) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(view(10, {}, 300, 100, 0, 0, 0), ElementsAre(1, 2, 3));
  EXPECT_THAT(view(10, {}, 0, 200, 0, 0, 0), ElementsAre(1, 2));
  EXPECT_THAT(view(10, {}, 200, 0, 0, 0, 0), ElementsAre(1, 2));
  EXPECT_THAT(
      trace.take("table SELECT * FROM EVENT"),
      ElementsAre(" WHERE ( ( 100 <= startDate AND startDate <= 300 ) ) ORDER BY StartDate ASC, "
                  "eventID ASC LIMIT 10",
                  " WHERE ( startDate <= 200 ) ORDER BY StartDate ASC, eventID ASC LIMIT 10",
                  " WHERE ( startDate <= 200 ) ORDER BY StartDate ASC, eventID ASC LIMIT 10"));
}

TEST_F(EventQueriesTest, ViewerKeysAreExclusiveBounds) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(view(10, {}, 0, 0, 2, 0, 0), ElementsAre(3, 4, 5, 6));
  EXPECT_THAT(view(10, {}, 0, 0, 2, 5, 1), ElementsAre(4, 3));
  EXPECT_THAT(view(10, {1}, 0, 0, 0, 5, 0), ElementsAre(1, 3));
  EXPECT_THAT(view(10, {}, 100, 400, 1, 4, 0), ElementsAre(2, 3));
  EXPECT_THAT(
      trace.take("table SELECT * FROM EVENT"),
      ElementsAre(
          " WHERE ( 2 < eventID ) ORDER BY eventID ASC, StartDate ASC LIMIT 10",
          " WHERE ( 2 < eventID AND eventID < 5 ) ORDER BY eventID DESC, StartDate DESC LIMIT 10",
          " WHERE ( 0 < eventID AND eventID < 5 AND ( extTrg = 1 ) ) ORDER BY eventID ASC, "
          "StartDate ASC LIMIT 10",
          " WHERE ( ( 100 <= startDate AND startDate <= 400 ) AND ( 1 < eventID AND eventID < 4 ) "
          ") ORDER BY StartDate ASC, eventID ASC LIMIT 10"));
}

TEST_F(EventQueriesTest, ViewerPageWithoutFilterIsByKey) {
  addSix();
  DbTrace trace;
  EXPECT_THAT(view(2, {}, 0, 0, 0, 0, 0), ElementsAre(1, 2));
  EXPECT_THAT(view(2, {}, 0, 0, 0, 0, 1), ElementsAre(6, 5));
  EXPECT_THAT(view(2, {2}, 0, 0, 0, 0, 0), ElementsAre(2, 4));
  EXPECT_THAT(trace.take("table SELECT * FROM EVENT"),
              ElementsAre(" ORDER BY eventID ASC, StartDate ASC LIMIT 2",
                          " ORDER BY eventID DESC, StartDate DESC LIMIT 2",
                          " WHERE ( extTrg = 2 ) ORDER BY eventID ASC, StartDate ASC LIMIT 2"));
}

TEST_F(EventQueriesTest, ViewerTakesOneToSixteenTriggersAndIgnoresLongerLists) {
  addSix();
  std::vector<unsigned short> triggers(17, 65535);
  triggers[15] = 1;
  DbTrace trace;
  EXPECT_EQ(6u, view(10, triggers, 0, 0, 0, 0, 0).size());
  EXPECT_THAT(trace.take("table SELECT * FROM EVENT"),
              ElementsAre(" ORDER BY eventID ASC, StartDate ASC LIMIT 10"));
  triggers.pop_back();
  EXPECT_THAT(view(10, triggers, 4294967295, 4294967294, 4294967295, 4294967294, 0), IsEmpty());
  std::string all;
  for (int i = 0; i < 15; ++i) all += "extTrg = 65535 OR ";
  EXPECT_THAT(
      trace.take("table "),
      ElementsAre("SELECT * FROM EVENT WHERE ( ( 4294967294 <= startDate AND startDate <= "
                  "4294967295 ) AND ( 4294967295 < eventID AND eventID < 4294967294 ) AND ( " +
                  all + "extTrg = 1 ) ) ORDER BY StartDate ASC, eventID ASC LIMIT 10"));
}

TEST_F(EventQueriesTest, ViewerCountsWithLimitZeroAndWritesNothing) {
  addSix();
  DbTrace trace;
  const unsigned short triggers[] = {1};
  EXPECT_EQ(2u, db_.selectViewerList(nullptr, 0, triggers, 1, 100, 400, 0, 0, 0));
  EXPECT_EQ(6u, db_.selectViewerList(nullptr, 0, nullptr, 0, 0, 0, 0, 0, 1));
  EXPECT_THAT(
      trace.take("table "),
      ElementsAre("SELECT COUNT(*) FROM EVENT WHERE ( ( 100 <= startDate AND startDate <= 400 ) "
                  "AND ( extTrg = 1 ) )",
                  "SELECT COUNT(*) FROM EVENT"));
}

TEST_F(EventQueriesTest, FailedQueriesLookLikeEmptyOnes) {
  rowsOf("DROP TABLE EVENT");
  DbTrace trace;
  DB_EVENT events[2];
  EXPECT_EQ(0u, db_.selectEvent(1, events));
  EXPECT_EQ(0u, db_.selectEventList(2, 0, 0, 0, 0, 0, events));
  EXPECT_EQ(0u, db_.selectViewerList(events, 2, nullptr, 0, 0, 0, 0, 0, 0));
  EXPECT_EQ(0u, db_.selectViewerList(events, 0, nullptr, 0, 0, 0, 0, 0, 0));
  EXPECT_EQ(8u, trace.take("log 3: SQLite Err no such table: EVENT").size());
}

TEST_F(EventQueriesTest, WideArgumentsAreCutTo32Bits) {
  if (sizeof(unsigned long) == 4) GTEST_SKIP() << "this machine has no wider argument";
  addSix();
  const auto wide = [](uint64_t value) {
    return static_cast<unsigned long>(0x900000000ull + value);
  };
  DbTrace trace;
  EXPECT_EQ(1u, db_.selectEvent(wide(0), &event_));
  EXPECT_EQ(1u, db_.selectEvent(~0ul, &event_));
  EXPECT_THAT(list(wide(1), wide(100), wide(200), wide(2), 0, 0), ElementsAre(2));
  EXPECT_THAT(view(wide(3), {}, wide(1), wide(300), wide(1), wide(3), 0), ElementsAre(2));
  EXPECT_THAT(
      trace.take("table SELECT * FROM EVENT "),
      ElementsAre(" ORDER BY eventID ASC LIMIT 1", " ORDER BY eventID DESC LIMIT 1",
                  "WHERE 100 <= startDate AND startDate <= 200 AND 2 <= eventID ORDER BY eventID "
                  "ASC LIMIT 1",
                  "WHERE ( ( 1 <= startDate AND startDate <= 300 ) AND ( 1 < eventID AND eventID < "
                  "3 ) ) ORDER BY StartDate ASC, eventID ASC LIMIT 3"));
}

}  // namespace
