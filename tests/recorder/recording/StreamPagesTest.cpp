#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

#include "db/CApiDb.h"
#include "recorder/recording/StreamPages.h"
#include "recorder/rows/DatabaseSetup.h"

namespace tarn_test {
namespace {

constexpr char kPath[] = "/tmp/pages.dat";
constexpr uint32_t kFirst = 1700000000;
constexpr uint32_t kRows = 300;

class StreamPagesTest : public testing::Test {
 protected:
  StreamPagesTest() {
    std::string error;
    EXPECT_TRUE(tarn::DatabaseSetup::createEmpty(kPath, &error)) << error;
    std::string sql = "BEGIN;";
    for (uint32_t i = 1; i <= kRows; ++i) {
      const uint32_t start = kFirst + below(100);
      const uint32_t end = below(9) == 0 ? 0 : start + below(30);
      sql += "INSERT INTO STREAM VALUES( " + std::to_string(3 * i) + ", " +
             std::to_string(below(3)) + ", 0, 0, 5, 1, 0, 192, 2, " + std::to_string(start) + ", " +
             std::to_string(end) + ", 0, 0, " + std::to_string(64 * i) + " );";
    }
    run(sql + "COMMIT");
    db_.connect(kPath);
  }
  ~StreamPagesTest() override {
    db_.finish();
    unlink(kPath);
  }
  static void run(const std::string& sql) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(kPath, &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr))
        << sqlite3_errmsg(db);
    sqlite3_close(db);
  }
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }

  static std::vector<uint32_t> keys(const DB_STREAM* rows, int32_t count) {
    std::vector<uint32_t> keys;
    for (int32_t i = 0; i < count; ++i) keys.push_back(rows[i].streamID);
    return keys;
  }
  std::vector<uint32_t> allPages(uint32_t from, uint32_t to, uint32_t trigger, uint32_t room) {
    std::vector<uint32_t> all;
    tarn::StreamPages pages(&db_, from, to, trigger);
    std::vector<DB_STREAM> page(room);
    for (;;) {
      const int32_t count = pages.next(page.data(), room);
      EXPECT_GE(count, 0);
      const std::vector<uint32_t> more = keys(page.data(), count);
      all.insert(all.end(), more.begin(), more.end());
      if (count < static_cast<int32_t>(room)) return all;
    }
  }

  std::mt19937 random_{7};
  CApiDb db_;
};

TEST_F(StreamPagesTest, TogetherAreTheRowsOfThePeriodInTheOrderOfTheirKeys) {
  std::vector<DB_STREAM> rows(kRows);
  size_t found = 0;
  for (int i = 0; i < 60; ++i) {
    const uint32_t from = below(4) == 0 ? 0 : kFirst + below(120);
    const uint32_t to = below(4) == 0 ? UINT32_MAX : kFirst + below(140);
    const uint32_t trigger = below(3);
    const int32_t count = db_.selectRipList(rows.data(), kRows, 0, from, to, trigger);
    const std::vector<uint32_t> expected = keys(rows.data(), count);
    EXPECT_EQ(allPages(from, to, trigger, 1 + below(70)), expected) << from << " " << to;
    found += expected.size();
  }
  EXPECT_GT(found, 2000u);
}

TEST_F(StreamPagesTest, ARowThatGoesBetweenTwoPagesLetsNoOtherBeLeftOut) {
  tarn::StreamPages pages(&db_, 0, UINT32_MAX, 0);
  DB_STREAM page[10];
  ASSERT_EQ(pages.next(page, 10), 10);
  ASSERT_EQ(page[9].streamID, 30u);
  run("DELETE FROM STREAM WHERE streamID <= 15");
  ASSERT_EQ(pages.next(page, 10), 10);
  EXPECT_EQ(page[0].streamID, 33u);
}

TEST_F(StreamPagesTest, ADatabaseThatDoesNotAnswerIsNoEnd) {
  run("DROP TABLE STREAM");
  tarn::StreamPages pages(&db_, 0, UINT32_MAX, 0);
  DB_STREAM page[10];
  EXPECT_EQ(pages.next(page, 10), -1);
}

// Each page begins where the last one ended, and walks the keys.
TEST_F(StreamPagesTest, APageReadsNoRowInFrontOfIt) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(kPath, &db));
  sqlite3_stmt* statement = nullptr;
  ASSERT_EQ(SQLITE_OK,
            sqlite3_prepare_v2(db,
                               "EXPLAIN QUERY PLAN SELECT * FROM STREAM WHERE streamID > 7 AND ( ( "
                               "startDate <= 1 AND ( 1 <= endDate OR endDate = 0 ) ) OR ( 1 <= "
                               "startDate AND startDate <= 2 ) ) ORDER BY streamID ASC LIMIT 64",
                               -1, &statement, nullptr));
  ASSERT_EQ(SQLITE_ROW, sqlite3_step(statement));
  const std::string step = reinterpret_cast<const char*>(sqlite3_column_text(statement, 3));
  EXPECT_NE(step.find("INTEGER PRIMARY KEY (rowid>?)"), std::string::npos) << step;
  EXPECT_EQ(SQLITE_DONE, sqlite3_step(statement)) << "no sort";
  sqlite3_finalize(statement);
  sqlite3_close(db);
}

}  // namespace
}  // namespace tarn_test
