// Lists at three sizes of the tables, against the same statements run bare.
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "Machine.h"
#include "Pair.h"
#include "db/CApiDb.h"
#include "recorder/rows/DatabaseSetup.h"

namespace {

using namespace bench;

constexpr uint32_t kFirstDate = 1700000000;
constexpr uint32_t kSpacing = 60;  // seconds from row to row
constexpr uint32_t kEvents = 1000;
constexpr uint32_t kStreams = 100;

uint32_t dateOf(uint32_t key) { return kFirstDate + kSpacing * key; }

void execute(sqlite3* db, const char* sql) {
  if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) give_up(sqlite3_errmsg(db));
}

// A database with so many rows in either table.
std::string makeTables(uint32_t rows) {
  const std::string path = "/tmp/rows-" + std::to_string(rows) + ".dat";
  std::string error;
  if (!tarn::DatabaseSetup::createEmpty(path.c_str(), &error)) give_up(error);
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) give_up("no database");
  char sql[1024];
  snprintf(
      sql, sizeof sql,
      "BEGIN; WITH RECURSIVE n( i ) AS ( SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %u ) "
      "INSERT INTO EVENT( extTrg, preSec, startDate, endDate, startMSec, endMSec, backOffset ) "
      "SELECT i %% 16, 5, %u + %u * i, %u + %u * i + 30, 120, 340, 32 * i FROM n; "
      "WITH RECURSIVE n( i ) AS ( SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %u ) "
      "INSERT INTO STREAM( inTrg, frameSet, bitrateSet, recSize, chunkID, chunkOffset, "
      "chunkSize, status, startDate, endDate, startMSec, endMSec, backOffset ) "
      "SELECT i %% 4, 2, 4000000, 900, i %% 64, 32 * i, 28832, 0, %u + %u * i, %u + %u * i + 60, "
      "0, 0, 64 * i FROM n; COMMIT",
      rows, kFirstDate, kSpacing, kFirstDate, kSpacing, rows, kFirstDate, kSpacing, kFirstDate,
      kSpacing);
  execute(db, sql);
  sqlite3_close(db);
  return path;
}

enum class List {
  kEventList,     // 1,000 events by key from the table's middle on
  kViewerKeys,    // a page of 1,000 events behind a key in the middle
  kViewerPeriod,  // a page of 1,000 events of a period in the middle
  kRipFirst,      // 100 streams of a period that begins with the table
  kRipMiddle,     // 100 streams of a period that begins in its middle
  kCount,         // number of streams of that period
};

class QueryRig : public Rig {
 public:
  QueryRig(List list, uint32_t rows, int turns)
      : list_(list), middle_(rows / 2), turns_(turns), path_(makeTables(rows)) {
    db_.connect(path_.c_str());
    if (sqlite3_open(path_.c_str(), &bare_) != SQLITE_OK) give_up("no bare connection");
    events_.resize(kEvents);
    streams_.resize(kStreams);
    checkBothAgree();
  }
  ~QueryRig() override {
    sqlite3_close(bare_);
    db_.finish();
    remove(path_.c_str());
  }

  double ours() override {
    return timed([this] {
             for (int i = 0; i < turns_; ++i) oursOnce();
           }) /
           turns_;
  }
  double bare() override {
    return timed([this] {
             for (int i = 0; i < turns_; ++i) bareOnce();
           }) /
           turns_;
  }

 private:
  uint32_t oursOnce() {
    const uint32_t from = dateOf(middle_);
    switch (list_) {
      case List::kEventList:
        return db_.selectEventList(kEvents, 0, 0, middle_, 0, 0, events_.data());
      case List::kViewerKeys:
        return db_.selectViewerList(events_.data(), kEvents, nullptr, 0, 0, 0, middle_, 0, 0);
      case List::kViewerPeriod:
        return db_.selectViewerList(events_.data(), kEvents, nullptr, 0, from,
                                    from + kSpacing * (kEvents - 1), 0, 0, 0);
      case List::kRipFirst:
        return static_cast<uint32_t>(
            db_.selectRipList(streams_.data(), kStreams, 0, dateOf(1), dateOf(middle_), 0));
      case List::kRipMiddle:
        return static_cast<uint32_t>(
            db_.selectRipList(streams_.data(), kStreams, 0, from, from + kSpacing * kStreams, 0));
      case List::kCount:
        return db_.selectCount(from, from + kSpacing * kStreams, 0);
    }
    return 0;
  }

  uint32_t bareOnce() {
    const uint32_t from = dateOf(middle_);
    char sql[512];
    switch (list_) {
      case List::kEventList:
        return bareEventList();
      case List::kViewerKeys:
        snprintf(sql, sizeof sql,
                 "SELECT * FROM EVENT WHERE ( %u < eventID ) ORDER BY eventID ASC, StartDate ASC "
                 "LIMIT %u",
                 middle_, kEvents);
        return rowsOf(sql);
      case List::kViewerPeriod:
        snprintf(sql, sizeof sql,
                 "SELECT * FROM EVENT WHERE ( ( %u <= startDate AND startDate <= %u ) ) "
                 "ORDER BY StartDate ASC, eventID ASC LIMIT %u",
                 from, from + kSpacing * (kEvents - 1), kEvents);
        return rowsOf(sql);
      case List::kRipFirst:
        return bareRipList(dateOf(1), dateOf(middle_));
      case List::kRipMiddle:
        return bareRipList(from, from + kSpacing * kStreams);
      case List::kCount:
        snprintf(sql, sizeof sql,
                 "SELECT COUNT(*) FROM STREAM WHERE ( ( startDate <= %u AND ( %u <= endDate OR "
                 "endDate = 0 ) ) OR ( %u <= startDate AND startDate <= %u ) )",
                 from, from, from, from + kSpacing * kStreams);
        return bareCount(sql);
    }
    return 0;
  }

  uint32_t bareEventList() {
    uint32_t cursor = middle_;
    uint32_t found = 0;
    for (; found < kEvents; ++found) {
      char sql[256];
      snprintf(sql, sizeof sql,
               "SELECT * FROM EVENT WHERE %u %s eventID ORDER BY eventID ASC LIMIT 1", cursor,
               found == 0 ? "<=" : "<");
      char** table = nullptr;
      int rows = 0, columns = 0;
      if (sqlite3_get_table(bare_, sql, &table, &rows, &columns, nullptr) != SQLITE_OK) {
        give_up(sqlite3_errmsg(bare_));
      }
      if (rows == 1) cursor = static_cast<uint32_t>(strtoul(table[columns], nullptr, 10));
      sqlite3_free_table(table);
      if (rows != 1) break;
    }
    return found;
  }

  uint32_t bareRipList(uint32_t from, uint32_t to) {
    char sql[512];
    snprintf(
        sql, sizeof sql,
        "SELECT * FROM STREAM WHERE ( ( startDate <= %u AND ( %u <= endDate OR endDate = 0 ) ) "
        "OR ( %u <= startDate AND startDate <= %u ) ) ORDER BY streamID ASC LIMIT %u",
        from, from, from, to, kStreams);
    return rowsOf(sql);
  }

  uint32_t rowsOf(const char* sql) {
    char** table = nullptr;
    int rows = 0, columns = 0;
    if (sqlite3_get_table(bare_, sql, &table, &rows, &columns, nullptr) != SQLITE_OK) {
      give_up(sqlite3_errmsg(bare_));
    }
    sqlite3_free_table(table);
    return static_cast<uint32_t>(rows);
  }

  uint32_t bareCount(const char* sql) {
    uint32_t count = 0;
    const auto take = [](void* out, int, char** values, char**) {
      *static_cast<uint32_t*>(out) = static_cast<uint32_t>(atoi(values[0]));
      return 0;
    };
    if (sqlite3_exec(bare_, sql, take, &count, nullptr) != SQLITE_OK)
      give_up(sqlite3_errmsg(bare_));
    return count;
  }

  void checkBothAgree() {
    const uint32_t ours = oursOnce(), bare = bareOnce();
    if (ours != bare || ours == 0) {
      give_up("the list has " + std::to_string(ours) + " rows, the bare one " +
              std::to_string(bare));
    }
  }

  List list_;
  uint32_t middle_;
  int turns_;
  std::string path_;
  CApiDb db_;
  sqlite3* bare_ = nullptr;
  std::vector<DB_EVENT> events_;
  std::vector<DB_STREAM> streams_;
};

bool addSizes(const char* name, List list, bool judged, int turns) {
  for (const uint32_t rows : {4000u, 40000u, 400000u}) {
    const bool scans =
        list == List::kViewerPeriod || list == List::kRipMiddle || list == List::kCount;
    const int repeated = scans ? std::max(1, turns / static_cast<int>(rows / 4000)) : turns;
    add({"query", std::string(name) + "/" + std::to_string(rows),
         judged ? Goal::kCost : Goal::kNone, judged ? 1.15 : 0, 9,
         [=] { return std::make_unique<QueryRig>(list, rows, repeated); }});
  }
  return true;
}

const bool kAll = addSizes("list/events", List::kEventList, true, 2) &&
                  addSizes("list/viewer_keys", List::kViewerKeys, true, 10) &&
                  addSizes("list/viewer_period", List::kViewerPeriod, true, 10) &&
                  addSizes("list/rip_first", List::kRipFirst, true, 50) &&
                  addSizes("list/rip_middle", List::kRipMiddle, true, 50) &&
                  addSizes("list/count", List::kCount, true, 50);

}  // namespace
