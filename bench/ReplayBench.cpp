// Both journals replayed at their greatest, against the same statements alone; and what reading and
// checking their records takes of it.
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
constexpr size_t kStatementsPerCall = 16;

class ReplayRig : public Rig {
 public:
  ReplayRig()
      : card_(Medium::kRam, kCardSize),
        events_(manyEvents(kEvents)),
        streams_(manyStreams(card_, kStreams)) {
    writeEventJournal(&card_, events_);
    writeStreamJournal(&card_, streams_);
    makeStatements();
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
    share_ = std::max(share_, readingSeconds() / seconds);
    return seconds;
  }

  double bare() override {
    std::string error;
    if (!tarn::DatabaseSetup::createEmpty(kBareDatabase, &error)) give_up(error);
    sqlite3* db = nullptr;
    sqlite3_open(kBareDatabase, &db);
    const double seconds = timed([&] {
      for (const auto* calls : {&eventCalls_, &streamCalls_}) {
        execute(db, "BEGIN");
        for (const std::string& call : *calls) execute(db, call.c_str());
        execute(db, "END");
      }
    });
    sqlite3_close(db);
    return seconds;
  }

  std::map<std::string, double> figures() override { return {{"rows", kEvents + kStreams}}; }

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

  static void addCall(std::vector<std::string>* calls, size_t index, const char* sql) {
    if (index % kStatementsPerCall == 0) {
      calls->emplace_back(sql);
    } else {
      (calls->back() += ';') += sql;
    }
  }

  void makeStatements() {
    char sql[1024];
    for (size_t i = 0; i < events_.size(); ++i) {
      const DB_EVENT& row = events_[i];
      snprintf(sql, sizeof sql,
               "INSERT OR REPLACE INTO EVENT( eventID, extTrg, preSec, startDate, startMSec, "
               "endDate, endMSec, backOffset ) VALUES( '%u', '%u', '%u', '%u', '%u', '%u', '%u', "
               "'%zu' )",
               row.eventID, row.extTrg, row.preSec, row.startDate, row.startMSec, row.endDate,
               row.endMSec, i * tarn::kEventRecordSize);
      addCall(&eventCalls_, i, sql);
    }
    for (size_t i = 0; i < streams_.size(); ++i) {
      const DB_STREAM& row = streams_[i];
      snprintf(sql, sizeof sql,
               "INSERT OR REPLACE INTO STREAM( streamID, inTrg, frameSet, bitrateSet, recSize, "
               "chunkID, chunkOffset, chunkSize, status, startDate, endDate, startMSec, endMSec, "
               "backOffset ) VALUES( '%u', '%u', '%u', '%u', '%u', '%u', '%u', '%u', '%u', '%u', "
               "'%u', '%u', '%u', '%zu' )",
               row.streamID, row.inTrg, row.frameSet, row.bitrateSet, row.recSize, row.chunkID,
               row.chunkOffset, row.chunkSize, row.status, row.startDate, row.endDate,
               row.startMSec, row.endMSec, i * tarn::kStreamRecordSize);
      addCall(&streamCalls_, i, sql);
    }
  }

  Card card_;
  std::vector<DB_EVENT> events_;
  std::vector<DB_STREAM> streams_;
  std::vector<std::string> eventCalls_, streamCalls_;
  double share_ = 0;  // the greatest of all turns
};

const bool kReplay = add(
    {"replay", "replay/full", Goal::kCost, 1.1, 5, [] { return std::make_unique<ReplayRig>(); }});

}  // namespace
