#include "recorder/rows/EventStartIndex.h"

#include <sqlite3.h>

#include <string>

namespace tarn {
namespace {

// ANALYZE is what makes the table that the planner reads; of empty tables it writes nothing there.
constexpr char kSqlAdd[] =
    "SAVEPOINT startIndex;"
    "CREATE INDEX EVENT_startDate ON EVENT( startDate );"
    "ANALYZE EVENT;"
    "DELETE FROM sqlite_stat1;"
    "INSERT INTO sqlite_stat1( tbl, idx, stat ) VALUES( 'EVENT', 'EVENT_startDate', '";
// The last row read is the one that says how large the table is.
constexpr char kSqlAddEnd[] =
    "' ), ( 'EVENT', 'EVENT_backOffset', '9 1' );"
    "ANALYZE sqlite_master;";
constexpr char kSqlKeep[] = "RELEASE startIndex";
constexpr char kSqlTakeBack[] = "ROLLBACK TO startIndex; RELEASE startIndex";

constexpr char kIndex[] = "USING INDEX EVENT_startDate";
constexpr char kCovering[] = "USING COVERING INDEX EVENT_startDate";
constexpr char kKeys[] = "USING INTEGER PRIMARY KEY";
constexpr char kKeyRange[] = "USING INTEGER PRIMARY KEY (rowid>? AND rowid<?)";
constexpr char kBackOffset[] = "EVENT_backOffset";
constexpr char kScan[] = "SCAN ";  // in key order, to the first row that fits

// A statement, and what the one step of its plan must say; a sort would be a second step.
struct Wanted {
  const char* sql;
  const char* step;
};
constexpr Wanted kWanted[] = {
    // Pages and counts of a period, with triggers and keys.
    {"SELECT * FROM EVENT WHERE ( ( 1 <= startDate AND startDate <= 2 ) ) "
     "ORDER BY StartDate ASC, eventID ASC LIMIT 9",
     kIndex},
    {"SELECT * FROM EVENT WHERE ( ( 1 <= startDate AND startDate <= 2 ) AND ( 5 < eventID ) AND "
     "( extTrg = 3 OR extTrg = 5 ) ) ORDER BY StartDate DESC, eventID DESC LIMIT 9",
     kIndex},
    {"SELECT * FROM EVENT WHERE ( startDate <= 2 ) ORDER BY StartDate ASC, eventID ASC LIMIT 9",
     kIndex},
    {"SELECT COUNT(*) FROM EVENT WHERE ( ( 1 <= startDate AND startDate <= 2 ) )", kCovering},
    // The first and the next step of a list, of a period and of a moment.
    {"SELECT * FROM EVENT WHERE 1 <= startDate AND startDate <= 2 ORDER BY eventID ASC LIMIT 1",
     kScan},
    {"SELECT * FROM EVENT WHERE 1 <= startDate AND startDate <= 2 AND 7 < eventID "
     "ORDER BY eventID ASC LIMIT 1",
     kKeys},
    {"SELECT * FROM EVENT WHERE 1 <= startDate AND startDate <= 2 AND extTrg = 3 AND eventID < 7 "
     "ORDER BY eventID DESC LIMIT 1",
     kKeys},
    {"SELECT * FROM EVENT WHERE startDate <= 1 AND 1 <= endDate AND 7 < eventID "
     "ORDER BY eventID ASC LIMIT 1",
     kKeys},
    // What goes through the events in the order of their keys, by itself or without asking for it.
    {"SELECT eventID FROM EVENT WHERE startDate < 1 ORDER BY eventID DESC", kScan},
    {"SELECT eventID, backOffset FROM EVENT WHERE startDate >= 1", kScan},
    {"SELECT eventID FROM EVENT WHERE eventID < 4", kKeys},
    {"SELECT eventID FROM EVENT WHERE backOffset = 32 ORDER BY eventID DESC LIMIT 1", kBackOffset},
    // Whatever goes by keys alone, with both bounds.
    {"SELECT * FROM EVENT WHERE eventID = 7", kKeys},
    {"SELECT * FROM EVENT WHERE ( 5 < eventID AND eventID < 9 ) "
     "ORDER BY eventID DESC, StartDate DESC LIMIT 9",
     kKeyRange},
    {"SELECT COUNT(*) FROM EVENT WHERE ( 5 < eventID AND eventID < 9 )", kKeyRange},
};

// The plan's steps, a line each; empty when it is not told.
std::string planOf(sqlite3* db, const char* sql) {
  const std::string asked = std::string("EXPLAIN QUERY PLAN ") + sql;
  sqlite3_stmt* statement = nullptr;
  std::string plan;
  if (sqlite3_prepare_v2(db, asked.c_str(), -1, &statement, nullptr) != SQLITE_OK) return plan;
  while (sqlite3_step(statement) == SQLITE_ROW) {
    const unsigned char* step = sqlite3_column_text(statement, 3);
    if (step != nullptr) plan += std::string(reinterpret_cast<const char*>(step)) + "\n";
  }
  sqlite3_finalize(statement);
  return plan;
}

bool isAsWanted(sqlite3* db, const Wanted& wanted) {
  const std::string plan = planOf(db, wanted.sql);
  if (plan.empty() || plan.find('\n') + 1 != plan.size()) return false;
  if (wanted.step == kScan && plan.find("USING") != std::string::npos) return false;
  return plan.find(wanted.step) != std::string::npos;
}

bool allAsWanted(sqlite3* db) {
  for (const Wanted& wanted : kWanted) {
    if (!isAsWanted(db, wanted)) return false;
  }
  return true;
}

bool execute(sqlite3* db, const std::string& sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

}  // namespace

bool EventStartIndex::add(sqlite3* db, const char* stat) {
  const bool added = execute(db, kSqlAdd + std::string(stat) + kSqlAddEnd);
  // An SQLite that was built without ANALYZE does not know the word.
  if (!added && sqlite3_errcode(db) != SQLITE_ERROR) return false;
  return execute(db, added && allAsWanted(db) ? kSqlKeep : kSqlTakeBack);
}

}  // namespace tarn
