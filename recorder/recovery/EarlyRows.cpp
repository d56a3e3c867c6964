#include "recorder/recovery/EarlyRows.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include "base/UniqueFd.h"
#include "chunk/CTARNDBChunk.h"
#include "db/DatabaseFile.h"
#include "db/GroupText.h"
#include "dblog/ReplayRows.h"
#include "recorder/rows/DatabaseLock.h"
#include "recorder/rows/DatabaseSetup.h"

namespace tarn {
namespace {

// Nobody needs this file before it is whole.
constexpr char kSqlBegin[] =
    "PRAGMA journal_mode = OFF; PRAGMA synchronous = OFF; PRAGMA locking_mode = EXCLUSIVE; BEGIN";
constexpr char kSqlIsEmpty[] =
    "SELECT NOT EXISTS( SELECT 1 FROM EVENT ) AND NOT EXISTS( SELECT 1 FROM STREAM )";

// A connection to a file that is there; null where there is none.
class Connection {
 public:
  explicit Connection(const char* path) {
    if (sqlite3_open_v2(path, &db_, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK) return;
    sqlite3_close(db_);
    db_ = nullptr;
  }
  ~Connection() { sqlite3_close(db_); }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  sqlite3* get() const { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

bool execute(sqlite3* db, const char* sql) {
  return sqlite3_exec(db, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

// Rows in statements of many. What fails is not tried again: the replay says why.
class Group {
 public:
  Group(sqlite3* db, const ReplayRows& rows) : db_(db), rows_(rows) {}
  ~Group() { sqlite3_finalize(statement_); }
  Group(const Group&) = delete;
  Group& operator=(const Group&) = delete;

  bool add(const uint8_t* record) {
    rows_.values(record, values_ + count_ * rows_.columns);
    return ++count_ < GroupText::kRows || insert();
  }
  bool finish() { return count_ == 0 || insert(); }

 private:
  bool insert() {
    if (!prepare()) return false;
    const int total = static_cast<int>(count_ * rows_.columns);
    for (int i = 0; i < total; ++i) sqlite3_bind_int64(statement_, i + 1, values_[i]);
    const bool done = sqlite3_step(statement_) == SQLITE_DONE;
    sqlite3_reset(statement_);
    count_ = 0;
    return done;
  }
  bool prepare() {
    if (count_ == prepared_) return true;
    sqlite3_finalize(statement_);
    statement_ = nullptr;
    prepared_ = count_;
    const GroupText text(rows_.sql, rows_.columns, count_);
    return sqlite3_prepare_v2(db_, text.c_str(), -1, &statement_, nullptr) == SQLITE_OK;
  }

  sqlite3* const db_;
  const ReplayRows& rows_;
  sqlite3_stmt* statement_ = nullptr;
  size_t prepared_ = 0;  // rows of the statement
  size_t count_ = 0;
  uint32_t values_[GroupText::kRows * GroupText::kMostColumns];
};

// Records and rows are in memory at the same time here, 24 MiB and 40 MiB of full journals; behind
// the reading half of the records are gone by then. False also where the system does not tell.
bool hasMemoryToSpare() {
  constexpr unsigned long kSpareKiB = 128 * 1024;
  char text[1024] = "";
  const UniqueFd file(open("/proc/meminfo", O_RDONLY | O_CLOEXEC));
  if (!file.valid() || read(file.get(), text, sizeof text - 1) <= 0) return false;
  const char* line = strstr(text, "MemAvailable:");
  return line != nullptr && strtoul(line + strlen("MemAvailable:"), nullptr, 10) >= kSpareKiB;
}

// What dbsetup has made, which may be another program than ours.
bool isOurEmptyDatabase() {
  const DatabaseLock lock;
  if (!lock.held()) return false;
  const Connection connection(kDatabasePath);
  sqlite3* db = connection.get();
  if (db == nullptr || !DatabaseSetup::hasOurSchema(db)) return false;
  sqlite3_stmt* statement = nullptr;
  const bool empty = sqlite3_prepare_v2(db, kSqlIsEmpty, -1, &statement, nullptr) == SQLITE_OK &&
                     sqlite3_step(statement) == SQLITE_ROW && sqlite3_column_int(statement, 0) != 0;
  sqlite3_finalize(statement);
  return empty;
}

bool cardHasImage() {
  const long size = CTARNDBChunk().getDBSize(kRestoredImagePath);
  return size != 0 && size != -1;
}

}  // namespace

EarlyRows::EarlyRows(const JournalBytes* events, const JournalBytes* streams)
    : events_{events}, streams_{streams} {
  unlink(kEarlyDatabasePath);  // of a start that was killed
}

EarlyRows::~EarlyRows() { drop(); }

void EarlyRows::read(JournalKind kind, uint32_t end) {
  if (!asked_ && end >= kFewestRecords * journalTraits(kind).recordSize) begin();
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    journalOf(kind).end = end;
  }
  changed_.notify_one();
}

void EarlyRows::ended(JournalKind kind, uint32_t records, bool flawless) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    Journal& journal = journalOf(kind);
    journal.records = records;
    journal.end = records * journalTraits(kind).recordSize;
    journal.ended = true;
  }
  changed_.notify_one();
  if (flawless) return;
  asked_ = true;
  drop();
}

void EarlyRows::begin() {
  asked_ = true;
  std::string error;
  if (access(kDatabasePath, F_OK) == 0 || sqlite3_threadsafe() == 0 || !hasMemoryToSpare() ||
      cardHasImage() || !DatabaseSetup::createEmpty(kEarlyDatabasePath, &error)) {
    return;
  }
  try {
    thread_ = std::thread([this] { run(); });
  } catch (const std::exception&) {
    drop();
  }
}

void EarlyRows::run() {
  const Connection connection(kEarlyDatabasePath);
  done_ = connection.get() != nullptr && fill(connection.get());
}

bool EarlyRows::fill(sqlite3* db) {
  return execute(db, kSqlBegin) && insertAll(db, kReplayEvents) && insertAll(db, kReplayStreams) &&
         execute(db, "COMMIT");
}

bool EarlyRows::insertAll(sqlite3* db, const ReplayRows& rows) {
  const JournalTraits& traits = journalTraits(rows.kind);
  const Journal& journal = journalOf(rows.kind);
  Group group(db, rows);
  uint32_t end = 0;
  for (uint32_t at = 0; waitFor(journal, at, &end);) {
    if (at == end) return group.finish();
    for (; at < end; at += traits.recordSize) {
      const uint8_t* record = journal.bytes->at(at);
      if (record == nullptr) return false;
      if (journalMarker(record) == traits.liveMarker && !group.add(record)) return false;
    }
  }
  return false;
}

// Until there is more than `at`, or the journal's end is known, which is *end then. False when
// nobody wants it any more.
bool EarlyRows::waitFor(const Journal& journal, uint32_t at, uint32_t* end) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait(lock, [&] { return stop_ || journal.end > at || journal.ended; });
  *end = journal.end;
  return !stop_;
}

bool EarlyRows::moveInto() {
  if (!thread_.joinable()) return false;
  if (!events_.ended || !streams_.ended) {
    drop();
    return false;
  }
  thread_.join();
  std::string error;
  return done_ && isOurEmptyDatabase() &&
         DatabaseSetup::replace(kEarlyDatabasePath, kDatabasePath, &error);
}

void EarlyRows::drop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  changed_.notify_one();
  if (thread_.joinable()) thread_.join();
  unlink(kEarlyDatabasePath);
}

}  // namespace tarn
