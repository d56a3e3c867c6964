#include "recorder/rows/RowQueries.h"

#include "db/CApiDb.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/RowMessages.h"

namespace tarn {
namespace {

// An empty table has no row in the list of counters.
constexpr char kSqlCounter[] =
    "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = 'STREAM'), 0)";

}  // namespace

bool RowQueries::fail(const char* text) {
  failure_ = text;
  return false;
}

bool RowQueries::run(const char* sql) {
  const DatabaseWatch::Verdict verdict =
      watch_ != nullptr ? watch_->check() : DatabaseWatch().check();
  if (verdict != DatabaseWatch::Verdict::kGood) return fail(DatabaseWatch::text(verdict));
  db_->setSql(sql);
  return db_->lastStatementDone() || fail(kErrDatabase);
}

RowQueries::Answer RowQueries::stream(const char* sql, DB_STREAM* row) {
  if (!run(sql)) return Answer::kFailed;
  if (db_->getNTuple() == 0) return Answer::kNone;
  if (db_->getStreamValue(0, row) == 0) return Answer::kRow;
  fail(kErrDatabase);
  return Answer::kFailed;
}

RowQueries::Answer RowQueries::event(const char* sql, DB_EVENT* row) {
  int count = 0;
  if (!events(sql, row, 1, &count)) return Answer::kFailed;
  return count == 1 ? Answer::kRow : Answer::kNone;
}

bool RowQueries::streams(const char* sql, std::vector<DB_STREAM>* rows) {
  if (!run(sql)) return false;
  const uint32_t count = db_->getNTuple();
  rows->resize(count);
  for (uint32_t i = 0; i < count; ++i) {
    if (db_->getStreamValue(static_cast<long>(i), &(*rows)[i]) != 0) return fail(kErrDatabase);
  }
  return true;
}

bool RowQueries::events(const char* sql, std::vector<DB_EVENT>* rows) {
  if (!run(sql)) return false;
  rows->resize(db_->getNTuple());
  int count = 0;
  for (DB_EVENT& row : *rows) {
    if (db_->getEventValue(count++, &row) != 0) return fail(kErrDatabase);
  }
  return true;
}

bool RowQueries::events(const char* sql, DB_EVENT* rows, int room, int* count) {
  *count = 0;
  if (!run(sql)) return false;
  const int there = static_cast<int>(db_->getNTuple());
  for (; *count < room && *count < there; ++*count) {
    if (db_->getEventValue(*count, &rows[*count]) != 0) return fail(kErrDatabase);
  }
  return true;
}

bool RowQueries::number(const char* sql, uint32_t* value) {
  if (!run(sql)) return false;
  if (db_->getNTuple() != 1) return fail(kErrDatabase);
  *value = db_->getValue(0, 0);
  return true;
}

bool RowQueries::countsBehind(uint32_t key) {
  uint32_t counter = 0;
  if (!number(kSqlCounter, &counter)) return false;
  return counter >= key || fail(kErrDatabaseOlder);
}

}  // namespace tarn
