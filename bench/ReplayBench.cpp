// Both journals replayed at their greatest, against the fastest way that the database has to take
// the same rows: one prepared statement of many rows,
// in the order of the keys, without a journal of its own.
// What reading and checking the records takes of it is counted apart.
#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "CardContents.h"
#include "Machine.h"
#include "Pair.h"
#include "dblog/CDbRestore.h"
#include "dblog/JournalFormat.h"
#include "recorder/recovery/JournalSurvey.h"
#include "recorder/rows/DatabaseSetup.h"

namespace {

using namespace bench;

constexpr uint32_t kEvents = 393216;   // 12 MiB
constexpr uint32_t kStreams = 196608;  // 12 MiB
constexpr uint64_t kCardSize = 64 * kGiB;
constexpr char kBareDatabase[] = "/tmp/bare.dat";
constexpr int kEventColumns = 8;
constexpr int kStreamColumns = 14;
constexpr size_t kRowsAtOnce =
    32;  // more are not faster; one at a time takes more than twice as long
constexpr char kInsertEvent[] =
    "INSERT INTO EVENT( eventID, extTrg, preSec, startDate, startMSec, endDate, endMSec, "
    "backOffset )";
constexpr char kInsertStream[] =
    "INSERT INTO STREAM( streamID, inTrg, frameSet, bitrateSet, recSize, chunkID, chunkOffset, "
    "chunkSize, status, startDate, endDate, startMSec, endMSec, backOffset )";
static_assert(kEvents % kRowsAtOnce == 0 && kStreams % kRowsAtOnce == 0);

class ReplayRig : public Rig {
 public:
  ReplayRig()
      : card_(Medium::kRam, kCardSize),
        events_(manyEvents(kEvents)),
        streams_(manyStreams(card_, kStreams)) {
    writeEventJournal(&card_, events_);
    writeStreamJournal(&card_, streams_);
    makeValues();
  }

  double ours() override {
    makeEmptyDatabase();
    const double seconds = timed([] {
      CDbRestore restore;
      if (restore.restoreEventDb() != 0 ||
          restore.restoreStreamDb(tarn::kStreamJournalChunk) != 0) {
        give_up("the replay failed");
      }
    });
    if (rowsIn(kDatabase) != kEvents + kStreams) give_up("the replay lost rows");
    const double reading = readingSeconds();
    share_ = std::max(share_, reading / seconds);
    survey_ = std::min(survey_, 2 * reading);
    return seconds;
  }

  double bare() override {
    std::string error;
    if (!tarn::DatabaseSetup::createEmpty(kBareDatabase, &error)) give_up(error);
    sqlite3* db = nullptr;
    sqlite3_open(kBareDatabase, &db);
    execute(db, "PRAGMA journal_mode=OFF");
    const double seconds = timed([&] {
      execute(db, "BEGIN");
      insertAll(db, kInsertEvent, eventValues_, kEventColumns);
      insertAll(db, kInsertStream, streamValues_, kStreamColumns);
      execute(db, "END");
    });
    sqlite3_close(db);
    return seconds;
  }

  std::map<std::string, double> figures() override {
    return {{"rows", kEvents + kStreams},
            {"reading_percent", share_ * 100},
            {"survey_ms", survey_ * 1e3}};
  }

 private:
  // Reading and checking every record of both copies and nothing else. The replay reads one copy.
  static double readingSeconds() {
    tarn::JournalSurvey survey;
    const auto both = timed([&] {
      for (const auto kind : {tarn::JournalKind::kEvent, tarn::JournalKind::kStream}) {
        if (tarn::surveyJournal(kind, &survey) != 0) give_up("the survey failed");
      }
    });
    return both / 2;
  }

  static void execute(sqlite3* db, const char* sql) {
    if (sqlite3_exec(db, sql, nullptr, nullptr, nullptr) != SQLITE_OK) give_up(sqlite3_errmsg(db));
  }

  static uint32_t rowsIn(const char* path) {
    sqlite3* db = nullptr;
    sqlite3_open(path, &db);
    char** table = nullptr;
    int rows = 0, columns = 0;
    uint32_t count = 0;
    if (sqlite3_get_table(db,
                          "SELECT ( SELECT COUNT(*) FROM EVENT ) + ( SELECT COUNT(*) FROM STREAM )",
                          &table, &rows, &columns, nullptr) == SQLITE_OK) {
      count = static_cast<uint32_t>(atoi(table[1]));
      sqlite3_free_table(table);
    }
    sqlite3_close(db);
    return count;
  }

  static std::string manyRows(const char* insert, int columns) {
    std::string row = "( ?";
    for (int column = 1; column < columns; ++column) row += ", ?";
    std::string sql = std::string(insert) + " VALUES" + row + " )";
    for (size_t i = 1; i < kRowsAtOnce; ++i) sql += ", " + row + " )";
    return sql;
  }

  static void insertAll(sqlite3* db, const char* insert, const std::vector<uint32_t>& values,
                        int columns) {
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(db, manyRows(insert, columns).c_str(), -1, &statement, nullptr) !=
        SQLITE_OK) {
      give_up(sqlite3_errmsg(db));
    }
    const int bound = static_cast<int>(kRowsAtOnce) * columns;
    for (auto value = values.begin(); value != values.end();) {
      for (int i = 1; i <= bound; ++i) sqlite3_bind_int64(statement, i, *value++);
      if (sqlite3_step(statement) != SQLITE_DONE) give_up(sqlite3_errmsg(db));
      sqlite3_reset(statement);
    }
    sqlite3_finalize(statement);
  }

  void makeValues() {
    uint32_t place = 0;
    for (const DB_EVENT& row : events_) {
      for (const uint32_t value :
           {row.eventID, uint32_t{row.extTrg}, uint32_t{row.preSec}, row.startDate,
            uint32_t{row.startMSec}, row.endDate, uint32_t{row.endMSec}, place}) {
        eventValues_.push_back(value);
      }
      place += tarn::kEventRecordSize;
    }
    place = 0;
    for (const DB_STREAM& row : streams_) {
      for (const uint32_t value :
           {row.streamID, uint32_t{row.inTrg}, uint32_t{row.frameSet}, row.bitrateSet, row.recSize,
            row.chunkID, row.chunkOffset, row.chunkSize, row.status, row.startDate, row.endDate,
            uint32_t{row.startMSec}, uint32_t{row.endMSec}, place}) {
        streamValues_.push_back(value);
      }
      place += tarn::kStreamRecordSize;
    }
  }

  Card card_;
  std::vector<DB_EVENT> events_;
  std::vector<DB_STREAM> streams_;
  std::vector<uint32_t> eventValues_, streamValues_;
  double share_ = 0;   // the greatest of all turns
  double survey_ = 1;  // seconds for both copies of both journals, the least of all turns
};

const bool kReplay = add(
    {"replay", "replay/full", Goal::kCost, 1.3, 5, [] { return std::make_unique<ReplayRig>(); }});

}  // namespace
