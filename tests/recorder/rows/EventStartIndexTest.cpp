#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "db/CApiDb.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/rows/EventStartIndex.h"

namespace tarn_test {
namespace {

constexpr char kWith[] = "/tmp/with.dat";
constexpr char kWithout[] = "/tmp/without.dat";
constexpr uint32_t kFirst = 1700000000;
constexpr uint32_t kRows = 400;

void run(const char* path, const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open(path, &db));
  ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr))
      << sqlite3_errmsg(db);
  sqlite3_close(db);
}

std::string oneCell(sqlite3* db, const char* sql) {
  sqlite3_stmt* statement = nullptr;
  std::string cell;
  EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(db, sql, -1, &statement, nullptr)) << sql;
  if (sqlite3_step(statement) == SQLITE_ROW)
    cell = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
  sqlite3_finalize(statement);
  return cell;
}

std::string numbers(std::initializer_list<uint32_t> values) {
  std::string text;
  for (const uint32_t value : values) text += (text.empty() ? "" : ", ") + std::to_string(value);
  return text;
}

// The same rows twice, the second time in a database without the index: starts out of the order of
// the keys, many of them equal, some events still open.
class EventStartIndexTest : public testing::Test {
 protected:
  EventStartIndexTest() {
    std::string error;
    std::string rows = "BEGIN;";
    for (uint32_t i = 1; i <= kRows; ++i) {
      const uint32_t start = kFirst + below(60);
      rows += "INSERT INTO EVENT VALUES( " +
              numbers({2 * i, below(6), 5, start, below(8) == 0 ? 0 : start + below(20),
                       below(1000), below(1000), 32 * i}) +
              " );";
    }
    for (const char* path : {kWith, kWithout}) {
      EXPECT_TRUE(tarn::DatabaseSetup::createEmpty(path, &error)) << error;
      if (path == kWithout) run(path, "DROP INDEX EVENT_startDate; DROP TABLE sqlite_stat1");
      run(path, rows + "COMMIT");
    }
    with_.connect(kWith);
    without_.connect(kWithout);
  }
  ~EventStartIndexTest() override {
    with_.finish();
    without_.finish();
    for (const char* path : {kWith, kWithout}) unlink(path);
  }
  uint32_t below(uint32_t bound) { return static_cast<uint32_t>(random_() % bound); }
  uint32_t moment() { return below(5) == 0 ? 0 : kFirst - 3 + below(66); }
  uint32_t key() { return below(2) == 0 ? 0 : below(2 * kRows + 4); }

  template <typename Query>
  void expectTheSame(const std::string& what, Query query) {
    std::vector<DB_EVENT> first(kRows);
    std::vector<DB_EVENT> second(kRows);
    const auto count = query(&with_, first.data());
    ASSERT_EQ(count, query(&without_, second.data())) << what;
    found_ += count;
    EXPECT_EQ(0, memcmp(first.data(), second.data(), kRows * sizeof(DB_EVENT))) << what;
  }

  std::mt19937 random_{20240501};
  CApiDb with_;
  CApiDb without_;
  uint64_t found_ = 0;
};

TEST_F(EventStartIndexTest, PagesOfAPeriodAndTheirCountsAreTheSameWithAndWithoutIt) {
  for (int i = 0; i < 300; ++i) {
    const uint32_t limit = below(3) == 0 ? 0 : 1 + below(50);
    const uint32_t from = moment(), to = moment(), after = key(), before = key();
    const auto down = static_cast<unsigned char>(below(2));
    unsigned short triggers[3];
    for (unsigned short& trigger : triggers) trigger = static_cast<unsigned short>(below(6));
    const uint32_t count = below(4);
    expectTheSame(
        numbers({limit, from, to, after, before, down, count}), [&](CApiDb* db, DB_EVENT* out) {
          return db->selectViewerList(out, limit, triggers, count, from, to, after, before, down);
        });
  }
  EXPECT_GT(found_, 3000u);
}

TEST_F(EventStartIndexTest, EventListsAreTheSameWithAndWithoutIt) {
  for (int i = 0; i < 40; ++i) {
    const uint32_t limit = 1 + below(30);
    const uint32_t from = moment(), to = moment(), first = key();
    const auto trigger = static_cast<unsigned short>(below(4));
    const auto down = static_cast<unsigned char>(below(2));
    expectTheSame(numbers({limit, from, to, first, trigger, down}), [&](CApiDb* db, DB_EVENT* out) {
      return db->selectEventList(limit, from, to, first, trigger, down, out);
    });
  }
  EXPECT_GT(found_, 200u);
}

// What this SQLite is told by default, and what another one might make of it.
TEST(EventStartIndex, IsLeftOutWhereThePlannerWouldTakeItForEventLists) {
  constexpr char kSchema[] =
      "CREATE TABLE EVENT( eventID INTEGER PRIMARY KEY, extTrg INTEGER, preSec INTEGER, startDate "
      "INTEGER, endDate INTEGER, startMSec INTEGER, endMSec INTEGER, backOffset INTEGER );"
      "CREATE INDEX EVENT_backOffset ON EVENT( backOffset );";
  constexpr char kThings[] =
      "SELECT ifnull( group_concat( name ), '' ) FROM ( SELECT name FROM "
      "sqlite_master ORDER BY name )";
  for (const bool harm : {false, true}) {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(":memory:", &db));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr));
    EXPECT_TRUE(harm ? tarn::EventStartIndex::add(db, "400000 1") : tarn::EventStartIndex::add(db));
    EXPECT_EQ(oneCell(db, kThings), harm ? "EVENT,EVENT_backOffset"
                                         : "EVENT,EVENT_backOffset,EVENT_startDate,sqlite_stat1");
    sqlite3_close(db);
  }
}

TEST(EventStartIndex, ADatabaseThatCannotBeWrittenIsAFailure) {
  std::string error;
  ASSERT_TRUE(tarn::DatabaseSetup::createEmpty(kWith, &error)) << error;
  run(kWith, "DROP INDEX EVENT_startDate");
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open_v2(kWith, &db, SQLITE_OPEN_READONLY, nullptr));
  EXPECT_FALSE(tarn::EventStartIndex::add(db));
  sqlite3_close(db);
  unlink(kWith);
}

}  // namespace
}  // namespace tarn_test
