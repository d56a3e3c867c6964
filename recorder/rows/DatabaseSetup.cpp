#include "recorder/rows/DatabaseSetup.h"

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "db/CApiDb.h"
#include "db/DatabaseFile.h"
#include "recorder/card/NoThrow.h"
#include "recorder/rows/DatabaseLock.h"
#include "recorder/rows/EventStartIndex.h"

namespace tarn {
namespace {

// CApiDb keeps this much of a path; a longer one would name another file.
constexpr size_t kLongestPath = 127;
constexpr mode_t kFileMode = 0644;
// What SQLite may have left beside a file of this name. A stale rollback journal would be played
// back into the new, empty file.
constexpr const char* kSidecars[] = {"-journal", "-wal", "-shm"};

// AUTOINCREMENT keeps the greatest key ever given out in sqlite_sequence, so that the key of a
// deleted row is never used again: journal records name rows by key.
//
// The indexes: the stream that covers a moment (startDate), the oldest and newest stream of a chunk
// (chunkID), and the row whose journal record is about to be overwritten (backOffset). On
// EVENT(startDate) there is one only where the planner takes it as it should (EventStartIndex). No
// others: STREAM(endDate) would decide ties of the newest end in another order.
constexpr char kSqlSchema[] =
    "BEGIN;"
    "CREATE TABLE EVENT( eventID INTEGER PRIMARY KEY AUTOINCREMENT, extTrg INTEGER, "
    "preSec INTEGER, startDate INTEGER, endDate INTEGER, startMSec INTEGER, endMSec INTEGER, "
    "backOffset INTEGER );"
    "CREATE TABLE STREAM( streamID INTEGER PRIMARY KEY AUTOINCREMENT, inTrg INTEGER, "
    "frameSet INTEGER, bitrateSet INTEGER, recSize INTEGER, chunkID INTEGER, chunkOffset INTEGER, "
    "chunkSize INTEGER, status INTEGER, startDate INTEGER, endDate INTEGER, startMSec INTEGER, "
    "endMSec INTEGER, backOffset INTEGER );"
    "CREATE INDEX EVENT_backOffset ON EVENT( backOffset );"
    "CREATE INDEX STREAM_backOffset ON STREAM( backOffset );"
    "CREATE INDEX STREAM_chunkID ON STREAM( chunkID );"
    "CREATE INDEX STREAM_startDate ON STREAM( startDate );"
    "COMMIT;";

// 1 when the columns are exactly these, in this order, and the key is AUTOINCREMENT. The rows of
// pragma_table_info come in column order.
constexpr char kSqlEventShape[] =
    "SELECT ( SELECT ifnull( group_concat( name || ' ' || upper( type ) || ' ' || pk ), '' ) FROM "
    "pragma_table_info( 'EVENT' ) ) = 'eventID INTEGER 1,extTrg INTEGER 0,preSec INTEGER 0,"
    "startDate INTEGER 0,endDate INTEGER 0,startMSec INTEGER 0,endMSec INTEGER 0,"
    "backOffset INTEGER 0' AND EXISTS( SELECT 1 FROM sqlite_master WHERE type = 'table' AND "
    "name = 'EVENT' AND sql LIKE '%AUTOINCREMENT%' )";
constexpr char kSqlStreamShape[] =
    "SELECT ( SELECT ifnull( group_concat( name || ' ' || upper( type ) || ' ' || pk ), '' ) FROM "
    "pragma_table_info( 'STREAM' ) ) = 'streamID INTEGER 1,inTrg INTEGER 0,frameSet INTEGER 0,"
    "bitrateSet INTEGER 0,recSize INTEGER 0,chunkID INTEGER 0,chunkOffset INTEGER 0,"
    "chunkSize INTEGER 0,status INTEGER 0,startDate INTEGER 0,endDate INTEGER 0,"
    "startMSec INTEGER 0,endMSec INTEGER 0,backOffset INTEGER 0' AND EXISTS( SELECT 1 FROM "
    "sqlite_master WHERE type = 'table' AND name = 'STREAM' AND sql LIKE '%AUTOINCREMENT%' )";

// A table that never held a row has no counter yet.
constexpr char kSqlRaiseCounter[] =
    "UPDATE sqlite_sequence SET seq = %" PRIu32 " WHERE name = '%s' AND seq < %" PRIu32
    "; INSERT INTO sqlite_sequence( name, seq ) SELECT '%s', %" PRIu32
    " WHERE NOT EXISTS( SELECT 1 FROM sqlite_sequence WHERE name = '%s' )";
constexpr char kSqlCounterReached[] =
    "SELECT ifnull( max( seq ), 0 ) >= %" PRIu32 " FROM sqlite_sequence WHERE name = '%s'";

bool failed(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

bool failedErrno(std::string* error, const std::string& text) {
  return failed(error, text + ": " + strerror(errno));
}

bool pathFits(const char* path, std::string* error) {
  if (strlen(path) <= kLongestPath) return true;
  return failed(error, std::string("name longer than 127 characters: ") + path);
}

bool removeFile(const std::string& path, std::string* error) {
  if (unlink(path.c_str()) == 0 || errno == ENOENT) return true;
  return failedErrno(error, "cannot remove " + path);
}

bool removeSidecars(const std::string& path, std::string* error) {
  for (const char* suffix : kSidecars) {
    if (!removeFile(path + suffix, error)) return false;
  }
  return true;
}

bool removeOld(const std::string& path, std::string* error) {
  const DatabaseLock lock;
  if (!lock.held()) return failed(error, "cannot take the database lock");
  return removeFile(path, error) && removeSidecars(path, error);
}

// An empty file of its own name beside `path`; empty string on failure.
std::string makeTemporary(const std::string& path, std::string* error) {
  const std::string pattern = path + ".XXXXXX";
  std::vector<char> name(pattern.c_str(), pattern.c_str() + pattern.size() + 1);
  const int fd = mkstemp(name.data());
  if (fd < 0) {
    failedErrno(error, "cannot create " + pattern);
    return "";
  }
  const bool readable = fchmod(fd, kFileMode) == 0;
  if (!readable) failedErrno(error, std::string("cannot set the mode of ") + name.data());
  close(fd);
  if (readable) return name.data();
  unlink(name.data());
  return "";
}

bool addSchema(sqlite3* db) {
  return sqlite3_exec(db, kSqlSchema, nullptr, nullptr, nullptr) == SQLITE_OK &&
         EventStartIndex::add(db);
}

// Nobody else knows the file yet, so this runs without the lock.
bool fillSchema(const std::string& file, std::string* error) {
  sqlite3* db = nullptr;
  int result = sqlite3_open(file.c_str(), &db);
  if (result == SQLITE_OK) result = addSchema(db) ? SQLITE_OK : SQLITE_ERROR;
  if (result != SQLITE_OK)
    failed(error, "cannot create the tables: " + std::string(sqlite3_errmsg(db)));
  const int closed = sqlite3_close(db);
  if (result == SQLITE_OK && closed != SQLITE_OK) return failed(error, "cannot close " + file);
  return result == SQLITE_OK;
}

bool putInPlace(const std::string& file, const std::string& path, std::string* error) {
  const DatabaseLock lock;
  if (!lock.held()) return failed(error, "cannot take the database lock");
  if (!removeSidecars(path, error)) return false;
  if (rename(file.c_str(), path.c_str()) == 0) return true;
  return failedErrno(error, "cannot rename " + file + " to " + path);
}

bool discard(const std::string& file) {
  unlink(file.c_str());
  unlink((file + kSidecars[0]).c_str());
  return false;
}

bool isWritableFile(const char* path, std::string* error) {
  struct stat info;
  if (stat(path, &info) != 0) return failedErrno(error, std::string("no database at ") + path);
  if (!S_ISREG(info.st_mode)) return failed(error, std::string(path) + " is not a regular file");
  if (access(path, R_OK | W_OK) == 0) return true;
  return failedErrno(error, std::string("cannot read and write ") + path);
}

// True when the statement gives one cell that is not 0.
bool holds(CApiDb& db, const char* sql) {
  db.setSql(sql);
  return db.getNTuple() == 1 && db.getValue(0, 0) != 0;
}

// Everything that a database defines, as text; false when it does not tell.
bool schemaText(sqlite3* db, std::string* text) {
  constexpr char kSql[] =
      "SELECT type || '|' || name || '|' || tbl_name || '|' || ifnull( sql, '' ) "
      "FROM sqlite_master ORDER BY type, name";
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db, kSql, -1, &statement, nullptr) != SQLITE_OK) return false;
  int result = sqlite3_step(statement);
  for (; result == SQLITE_ROW; result = sqlite3_step(statement)) {
    const unsigned char* row = sqlite3_column_text(statement, 0);
    if (row != nullptr) *text += std::string(reinterpret_cast<const char*>(row)) + "\n";
  }
  sqlite3_finalize(statement);
  return result == SQLITE_DONE;
}

bool seedTable(CApiDb& db, const char* table, uint32_t key, std::string* error) {
  if (key == 0) return true;
  char sql[512];
  snprintf(sql, sizeof sql, kSqlRaiseCounter, key, table, key, table, key, table);
  db.setSqlNoResult(sql);
  snprintf(sql, sizeof sql, kSqlCounterReached, key, table);
  if (holds(db, sql)) return true;
  return failed(error, std::string("cannot set the key counter of ") + table);
}

}  // namespace

const char* DatabaseSetup::defaultPath() { return kDatabasePath; }

bool DatabaseSetup::createEmpty(const char* path, std::string* error) {
  return orNoMemory(
      "DatabaseSetup",
      [&]() -> bool {
        // The old file goes first: whatever fails below, or a power loss, leaves none that could
        // pass for a fresh one.
        if (!pathFits(path, error) || !removeOld(path, error)) return false;
        const std::string file = makeTemporary(path, error);
        if (file.empty()) return false;
        if (fillSchema(file, error) && putInPlace(file, path, error)) return true;
        return discard(file);
      },
      [&]() -> bool { return memoryOut(error) == 0; });
}

bool DatabaseSetup::replace(const char* file, const char* path, std::string* error) {
  return orNoMemory(
      "DatabaseSetup",
      [&]() -> bool { return pathFits(path, error) && putInPlace(file, path, error); },
      [&]() -> bool { return memoryOut(error) == 0; });
}

bool DatabaseSetup::check(const char* path, std::string* error) {
  return orNoMemory(
      "DatabaseSetup",
      [&]() -> bool {
        // Asked first, because connecting would create what is missing.
        if (!pathFits(path, error) || !isWritableFile(path, error)) return false;
        CApiDb db;
        db.connect(path);
        if (!db.isConnected()) return failed(error, std::string("cannot open ") + path);
        if (!holds(db, kSqlEventShape)) {
          return failed(error, std::string("table EVENT is missing or wrong in ") + path);
        }
        if (!holds(db, kSqlStreamShape)) {
          return failed(error, std::string("table STREAM is missing or wrong in ") + path);
        }
        return true;
      },
      [&]() -> bool { return memoryOut(error) == 0; });
}

bool DatabaseSetup::hasOurSchema(sqlite3* db) {
  sqlite3* fresh = nullptr;
  std::string ours;
  std::string theirs;
  const bool known =
      sqlite3_open(":memory:", &fresh) == SQLITE_OK && addSchema(fresh) && schemaText(fresh, &ours);
  sqlite3_close(fresh);
  return known && schemaText(db, &theirs) && ours == theirs;
}

bool DatabaseSetup::seedKeys(const char* path, uint32_t greatestEventID, uint32_t greatestStreamID,
                             std::string* error) {
  return orNoMemory(
      "DatabaseSetup",
      [&]() -> bool {
        if (!pathFits(path, error) || !isWritableFile(path, error)) return false;
        CApiDb db;
        db.connect(path);
        if (!db.isConnected()) return failed(error, std::string("cannot open ") + path);
        return seedTable(db, "EVENT", greatestEventID, error) &&
               seedTable(db, "STREAM", greatestStreamID, error);
      },
      [&]() -> bool { return memoryOut(error) == 0; });
}

}  // namespace tarn
