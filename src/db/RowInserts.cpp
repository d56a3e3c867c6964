#include "db/RowInserts.h"

#include <sqlite3.h>

#include <cstring>

#include "db/CApiDb.h"
#include "db/DatabaseFile.h"
#include "db/GroupText.h"
#include "db/SemLock.h"
#include "db/SqlText.h"

namespace tarn {
namespace {

constexpr char kValues[] = " VALUES";

}  // namespace

RowInserts::RowInserts(CApiDb* db, const char* insert, size_t columns)
    : db_(db), insert_(insert), columns_(columns) {}

RowInserts::~RowInserts() { sqlite3_finalize(statement_); }

bool RowInserts::add(const uint32_t* values) {
  memcpy(values_ + count_ * columns_, values, columns_ * sizeof values[0]);
  if (++count_ < kRows) return true;
  if (prepare() && insertGroup()) {
    count_ = 0;
    return true;
  }
  return insertEach();
}

bool RowInserts::finish() { return insertEach(); }

// False where it cannot be: the single statements say why.
bool RowInserts::prepare() {
  if (prepared_) return statement_ != nullptr;
  prepared_ = true;
  if (!db_->m_connected) db_->connect(kDatabasePath);
  const GroupText text(insert_, columns_, kRows);
  const CApiDb::SemLock lock(*db_);
  return db_->m_db != nullptr &&
         sqlite3_prepare_v2(db_->m_db, text.c_str(), -1, &statement_, nullptr) == SQLITE_OK;
}

bool RowInserts::insertGroup() {
  const CApiDb::SemLock lock(*db_);
  if (!lock.held() || !db_->inTransaction()) return false;
  const int total = static_cast<int>(count_ * columns_);
  for (int i = 0; i < total; ++i) sqlite3_bind_int64(statement_, i + 1, values_[i]);
  const int result = sqlite3_step(statement_);
  const bool done = result == SQLITE_DONE;
  if (!done && !db_->inTransaction()) noteLostTransaction(result);
  sqlite3_reset(statement_);
  return done;
}

// Where there is no room SQLite takes the whole transaction back. That was this group's first
// attempt, and there is no second: what it would insert stood alone in the table.
void RowInserts::noteLostTransaction(int result) {
  writeText(0, failed_);
  db_->reportFailure(result & 0xFF, failed_, sqlite3_mprintf("%s", sqlite3_errmsg(db_->m_db)));
}

bool RowInserts::insertEach() {
  const size_t count = count_;
  count_ = 0;
  if (failed_[0] != '\0') return false;
  char texts[kRows][kTextRoom];
  const char* statements[kRows] = {};
  for (size_t row = 0; row < count; ++row) {
    writeText(row, texts[row]);
    statements[row] = texts[row];
  }
  const size_t done = db_->setSqlEach(statements, count);
  if (done < count) memcpy(failed_, texts[done], sizeof failed_);
  return done == count;
}

void RowInserts::writeText(size_t row, char* text) const {
  SqlText sql(insert_);
  sql.add(kValues).add("( '").add(values_[row * columns_]);
  for (size_t column = 1; column < columns_; ++column) {
    sql.add("', '").add(values_[row * columns_ + column]);
  }
  sql.add("' )");
  strncpy(text, sql.c_str(), kTextRoom - 1);
  text[kTextRoom - 1] = '\0';
}

}  // namespace tarn
