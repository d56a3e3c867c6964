// Questions about streams: whole statements and answers.
#include <cstring>

#include "db/DbTest.h"

namespace {

using namespace tarn_test;
using testing::ElementsAre;
using testing::IsEmpty;

class StreamQueriesTest : public DbTest {
 protected:
  StreamQueriesTest() { db_.connect(kDbPath); }

  // 1: 100 to 200, 2: 300 to 400, 3: 500 and still open.
  static void addThree() {
    addStream(1, 1, 100, 200);
    addStream(2, 2, 300, 400);
    addStream(3, 1, 500, 0);
  }

  std::vector<uint32_t> rip(unsigned long limit, unsigned long offset, unsigned long start,
                            unsigned long end, unsigned long trigger) {
    DB_STREAM streams[8];
    const int32_t found = db_.selectRipList(streams, limit, offset, start, end, trigger);
    return keys(streams, static_cast<size_t>(found));
  }

  DB_STREAM stream_ = {};
};

TEST_F(StreamQueriesTest, StreamIsFoundByKeyAndFilledWhole) {
  rowsOf("INSERT INTO STREAM VALUES( 9, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14 )");
  DbTrace trace;
  EXPECT_EQ(1u, db_.selectStream(9, &stream_));
  EXPECT_THAT(trace.take("table "), ElementsAre("SELECT * FROM STREAM WHERE streamID = 9"));
  const DB_STREAM expected = {9, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14};
  EXPECT_EQ(0, memcmp(&expected, &stream_, sizeof expected));
}

TEST_F(StreamQueriesTest, AbsentStreamIsNotFoundAndNothingIsWritten) {
  memset(&stream_, 0xCC, sizeof stream_);
  const DB_STREAM before = stream_;
  EXPECT_EQ(0u, db_.selectStream(9, &stream_));
  EXPECT_EQ(0u, db_.selectStreamTime(9, &stream_));
  EXPECT_EQ(0u, db_.selectStreamTimeNext(9, &stream_));
  EXPECT_EQ(0u, db_.selectStreamOldest(&stream_));
  EXPECT_EQ(0u, db_.selectStreamOldestTime(&stream_));
  EXPECT_EQ(0, memcmp(&before, &stream_, sizeof before));
}

TEST_F(StreamQueriesTest, SixteenBitFieldsKeepTheirLowBits) {
  rowsOf(
      "INSERT INTO STREAM VALUES( 9, 65537, 65538, 3, 4, 5, 6, 7, 8, 10, 11, 65548, 65549, 14 )");
  EXPECT_EQ(1u, db_.selectStream(9, &stream_));
  EXPECT_EQ(1u, stream_.inTrg);
  EXPECT_EQ(2u, stream_.frameSet);
  EXPECT_EQ(12u, stream_.startMSec);
  EXPECT_EQ(13u, stream_.endMSec);
}

TEST_F(StreamQueriesTest, ConversionRefusesAResultOfAnotherShape) {
  db_.setSql("SELECT * FROM EVENT UNION ALL SELECT 1, 2, 3, 4, 5, 6, 7, 8");
  memset(&stream_, 0xCC, sizeof stream_);
  const DB_STREAM before = stream_;
  DbTrace trace;
  EXPECT_EQ(0xFFFFFFFFu, db_.getStreamValue(0, &stream_));
  EXPECT_THAT(trace.take(), ElementsAre("log 3: CApiDb::getStreamValue() m_ncol error = 8"));
  EXPECT_EQ(0, memcmp(&before, &stream_, sizeof before));
}

TEST_F(StreamQueriesTest, MomentInsideAStreamGivesThatStream) {
  addThree();
  DbTrace trace;
  EXPECT_EQ(1u, db_.selectStreamTime(150, &stream_));
  EXPECT_EQ(1u, stream_.streamID);
  EXPECT_THAT(trace.take("table "),
              ElementsAre("SELECT * FROM STREAM  WHERE startDate <= 150 ORDER BY StartDate DESC, "
                          "streamID DESC LIMIT 1"));
  EXPECT_EQ(1u, db_.selectStreamTime(300, &stream_));
  EXPECT_EQ(2u, stream_.streamID);
  EXPECT_EQ(1u, db_.selectStreamTime(400, &stream_));
  EXPECT_EQ(2u, stream_.streamID);
}

TEST_F(StreamQueriesTest, MomentInAGapGivesTheStreamAfterIt) {
  addThree();
  DbTrace trace;
  EXPECT_EQ(2u, db_.selectStreamTime(250, &stream_));
  EXPECT_EQ(2u, stream_.streamID);
  EXPECT_THAT(trace.take("table "),
              ElementsAre("SELECT * FROM STREAM  WHERE startDate <= 250 ORDER BY StartDate DESC, "
                          "streamID DESC LIMIT 1",
                          "SELECT * FROM STREAM WHERE 250 < startDate ORDER BY startDate ASC LIMIT "
                          "1"));
  EXPECT_EQ(2u, db_.selectStreamTime(50, &stream_));
  EXPECT_EQ(1u, stream_.streamID);
}

TEST_F(StreamQueriesTest, OpenStreamCoversEveryMomentFromItsStartOn) {
  addThree();
  for (const unsigned long moment : {500ul, 501ul, 4000000000ul}) {
    EXPECT_EQ(1u, db_.selectStreamTime(moment, &stream_));
    EXPECT_EQ(3u, stream_.streamID);
  }
}

TEST_F(StreamQueriesTest, MomentAfterTheLastEndedStreamGivesNoneAndLeavesThatOneRead) {
  addStream(1, 1, 100, 200);
  EXPECT_EQ(0u, db_.selectStreamTime(201, &stream_));
  EXPECT_EQ(1u, stream_.streamID);
}

TEST_F(StreamQueriesTest, OfStreamsThatStartTogetherTheNewestCovers) {
  addStream(1, 1, 100, 200);
  addStream(2, 1, 100, 200);
  EXPECT_EQ(1u, db_.selectStreamTime(150, &stream_));
  EXPECT_EQ(2u, stream_.streamID);
}

TEST_F(StreamQueriesTest, StreamThatCannotBeConvertedEndsTheSearch) {
  addThree();
  rowsOf("ALTER TABLE STREAM ADD COLUMN more INTEGER");
  DbTrace trace;
  EXPECT_EQ(0u, db_.selectStreamTime(150, &stream_));
  const std::vector<std::string> lines = trace.take();
  EXPECT_EQ("log 3: CApiDb::getStreamValue() m_ncol error = 15", lines.back());
  EXPECT_EQ(1, std::count_if(lines.begin(), lines.end(),
                             [](const std::string& line) { return line.rfind("table ", 0) == 0; }));
}

TEST_F(StreamQueriesTest, NextStreamStartsStrictlyAfter) {
  addThree();
  EXPECT_EQ(1u, db_.selectStreamTimeNext(299, &stream_));
  EXPECT_EQ(2u, stream_.streamID);
  EXPECT_EQ(1u, db_.selectStreamTimeNext(300, &stream_));
  EXPECT_EQ(3u, stream_.streamID);
  EXPECT_EQ(0u, db_.selectStreamTimeNext(500, &stream_));
}

TEST_F(StreamQueriesTest, OldestIsByKeyOrByStart) {
  addStream(5, 1, 900, 950);
  addStream(6, 1, 100, 200);
  DbTrace trace;
  EXPECT_EQ(1u, db_.selectStreamOldest(&stream_));
  EXPECT_EQ(5u, stream_.streamID);
  EXPECT_EQ(1u, db_.selectStreamOldestTime(&stream_));
  EXPECT_EQ(6u, stream_.streamID);
  EXPECT_THAT(trace.take("table "),
              ElementsAre("SELECT * FROM STREAM  ORDER BY streamID ASC LIMIT 1",
                          "SELECT * FROM STREAM  ORDER BY startDate ASC LIMIT 1"));
}

TEST_F(StreamQueriesTest, CountHoldsStreamsInProgressOrStartingAndLeavesTheHeldResult) {
  addThree();
  db_.setSql("SELECT 77");
  DbTrace trace;
  EXPECT_EQ(2u, db_.selectCount(150, 300, 0));
  const std::string sql =
      "SELECT COUNT(*) FROM STREAM WHERE ( ( startDate <= 150 AND ( 150 <= endDate OR endDate = 0 "
      ") ) OR ( 150 <= startDate AND startDate <= 300 ) )";
  EXPECT_THAT(trace.take(), ElementsAre("lock", "exec " + sql, "unlock"));
  EXPECT_EQ(77u, db_.getValue(0, 0));
  EXPECT_EQ(1u, db_.selectCount(150, 300, 2));
  EXPECT_THAT(trace.take("exec "), ElementsAre(sql + " AND ( inTrg = 2 )"));
  EXPECT_EQ(1u, db_.selectCount(600, 700, 0));
  EXPECT_EQ(0u, db_.selectCount(250, 260, 0));
}

TEST_F(StreamQueriesTest, CountConnectsByItself) {
  addThree();
  CApiDb db;
  DbTrace trace;
  EXPECT_EQ(3u, db.selectCount(100, 500, 0));
  EXPECT_THAT(trace.take("open "), ElementsAre("/tmp/DB.dat"));
}

TEST_F(StreamQueriesTest, CountThatFailsIsTriedOnceAndGivesZero) {
  rowsOf("DROP TABLE STREAM");
  DbTrace trace;
  EXPECT_EQ(0u, db_.selectCount(1, 2, 0));
  const std::vector<std::string> lines = trace.take();
  ASSERT_EQ(4u, lines.size());
  EXPECT_EQ("lock", lines[0]);
  EXPECT_EQ("log 4:  getRecordNum sqlite3_exec error no such table: STREAM", lines[2]);
  EXPECT_EQ("unlock", lines[3]);
}

TEST_F(StreamQueriesTest, CountWithoutTheLockIsLoggedAndGoesOn) {
  addThree();
  DbTrace trace;
  DbTrace::failLocks(true);
  EXPECT_EQ(3u, db_.selectCount(100, 500, 0));
  EXPECT_THAT(trace.take("log "), ElementsAre("3: cannot lock SQLite_SEM getRecordNum"));
}

TEST_F(StreamQueriesTest, CountCallbackStoresTheFirstColumnAndGoesOn) {
  uint32_t count = 5;
  char text[] = "12";
  char* values[] = {text, nullptr};
  EXPECT_EQ(0, CApiDb::m_CountCallback(&count, 2, values, nullptr));
  EXPECT_EQ(12u, count);
  EXPECT_EQ(0, CApiDb::m_CountCallback(&count, 1, values + 1, nullptr));
  EXPECT_EQ(12u, count);
}

TEST_F(StreamQueriesTest, RipListPagesTheStreamsOfAPeriodByKey) {
  addThree();
  DbTrace trace;
  EXPECT_THAT(rip(2, 0, 150, 600, 0), ElementsAre(1, 2));
  EXPECT_THAT(rip(2, 2, 150, 600, 0), ElementsAre(3));
  EXPECT_THAT(rip(8, 0, 150, 600, 1), ElementsAre(1, 3));
  const std::string base =
      "WHERE ( ( startDate <= 150 AND ( 150 <= endDate OR endDate = 0 ) ) OR ( 150 <= startDate "
      "AND startDate <= 600 ) )";
  EXPECT_THAT(trace.take("table SELECT * FROM STREAM "),
              ElementsAre(base + " ORDER BY streamID ASC LIMIT 2",
                          base + " ORDER BY streamID ASC LIMIT 2 OFFSET 2",
                          base + " AND ( inTrg = 1 ) ORDER BY streamID ASC LIMIT 8"));
}

TEST_F(StreamQueriesTest, RipListWithLimitZeroIsEmpty) {
  addThree();
  EXPECT_EQ(0, db_.selectRipList(nullptr, 0, 0, 100, 600, 0));
}

TEST_F(StreamQueriesTest, FailedQueriesLookLikeEmptyOnes) {
  rowsOf("DROP TABLE STREAM");
  DbTrace trace;
  EXPECT_EQ(0u, db_.selectStream(1, &stream_));
  EXPECT_EQ(0u, db_.selectStreamTime(1, &stream_));
  EXPECT_EQ(0u, db_.selectStreamOldest(&stream_));
  EXPECT_EQ(0u, db_.selectStreamOldestTime(&stream_));
  EXPECT_EQ(0, db_.selectRipList(&stream_, 1, 0, 1, 2, 0));
  EXPECT_EQ(12u, trace.take("log 3: SQLite Err no such table: STREAM").size());
}

TEST_F(StreamQueriesTest, WideArgumentsAreCutTo32Bits) {
  if (sizeof(unsigned long) == 4) GTEST_SKIP() << "this machine has no wider argument";
  addThree();
  const auto wide = [](uint64_t value) {
    return static_cast<unsigned long>(0x900000000ull + value);
  };
  EXPECT_EQ(1u, db_.selectStream(wide(2), &stream_));
  EXPECT_EQ(1u, db_.selectStreamTime(wide(150), &stream_));
  EXPECT_EQ(1u, stream_.streamID);
  EXPECT_EQ(1u, db_.selectStreamTimeNext(wide(150), &stream_));
  EXPECT_EQ(2u, stream_.streamID);
  EXPECT_EQ(2u, db_.selectCount(wide(150), wide(300), wide(0)));
  EXPECT_THAT(rip(wide(1), wide(1), wide(150), wide(600), wide(1)), ElementsAre(3));
}

}  // namespace
