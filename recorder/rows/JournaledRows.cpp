#include "recorder/rows/JournaledRows.h"

#include <syslog.h>

#include <cinttypes>
#include <cstdio>

#include "db/CApiDb.h"
#include "db/JournalCalls.h"
#include "dblog/CDbLog.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/RamReserve.h"
#include "recorder/rows/RowMessages.h"

namespace tarn {
namespace {

// What the two tables differ in.
uint32_t insertInto(CApiDb* db, DB_EVENT* row) { return db->insertEvent(row); }
uint32_t insertInto(CApiDb* db, DB_STREAM* row) { return db->insertStream(row); }
uint32_t updateIn(CApiDb* db, DB_EVENT_REG_BIT mask, const DB_EVENT& row) {
  return db->updateEvent(mask, &row);
}
uint32_t updateIn(CApiDb* db, DB_STREAM_REG_BIT mask, const DB_STREAM& row) {
  return db->updateStream(mask, &row);
}
bool restoreIn(CApiDb* db, DB_EVENT_REG_BIT mask, const DB_EVENT& row) {
  return db->restoreEvent(mask, &row);
}
bool restoreIn(CApiDb* db, DB_STREAM_REG_BIT mask, const DB_STREAM& row) {
  return db->restoreStream(mask, &row);
}

template <typename Row>
struct Table;
template <>
struct Table<DB_EVENT> {
  static constexpr char kSqlDelete[] = "DELETE FROM EVENT WHERE eventID = %" PRIu32;
  static uint32_t remove(CApiDb* db, uint32_t key) { return db->deleteEvent(key); }
  static bool markDeleted(uint32_t key) { return CDbLog::getInstance()->deleteEvent(key); }
};
template <>
struct Table<DB_STREAM> {
  static constexpr char kSqlDelete[] = "DELETE FROM STREAM WHERE streamID = %" PRIu32;
  static uint32_t remove(CApiDb* db, uint32_t key) { return db->deleteStream(key); }
  static bool markDeleted(uint32_t key) { return CDbLog::getInstance()->deleteStream(key); }
};

// The row alone: its record is dealt with, or there is none.
template <typename Row>
bool deleteRowAlone(CApiDb* db, uint32_t key) {
  char sql[sizeof Table<Row>::kSqlDelete + 16];
  snprintf(sql, sizeof sql, Table<Row>::kSqlDelete, key);
  db->setSqlNoResult(sql);
  return db->lastStatementDone();
}

// The connection belongs to somebody else, who may not expect it strict.
class Strict {
 public:
  explicit Strict(CApiDb* db) : db_(db), before_(db->isStrict()) { db_->setStrict(true); }
  ~Strict() { db_->setStrict(before_); }
  Strict(const Strict&) = delete;
  Strict& operator=(const Strict&) = delete;

 private:
  CApiDb* db_;
  const bool before_;
};

}  // namespace

JournaledRows::Outcome JournaledRows::fail(Outcome outcome, const char* text) {
  failure_ = text;
  return outcome;
}

bool JournaledRows::mayAsk() {
  const DatabaseWatch::Verdict verdict =
      watch_ != nullptr ? watch_->check() : DatabaseWatch().check();
  failure_ = DatabaseWatch::text(verdict);
  return verdict == DatabaseWatch::Verdict::kGood;
}

template <typename Statement>
bool JournaledRows::withReserve(Statement statement) {
  return statement() || (RamReserve::giveUpWhenFull(db_->ranFull()) && statement());
}

template <typename Row>
JournaledRows::Outcome JournaledRows::insertRow(Row* row) {
  if (!mayAsk()) return Outcome::kDatabase;
  const journal_calls::InsertLock
      lock;  // the place stays this row's until its record is gone again
  const Strict strict(db_);
  uint32_t key = 0;
  if (!withReserve([&] { return (key = insertInto(db_, row)) != 0; })) {
    return fail(Outcome::kDatabase, kErrRow);
  }
  if (db_->lastChangeJournaled()) return Outcome::kDone;
  // One copy of it may have got onto the card, from which the next start would make a row again.
  // The record is found through the row, so it goes first.
  Table<Row>::markDeleted(key);
  deleteRowAlone<Row>(db_, key);
  return fail(Outcome::kJournal, kErrJournal);
}

template <typename Mask, typename Row>
JournaledRows::Outcome JournaledRows::updateRow(Mask mask, const Row& before, const Row& after) {
  if (!mayAsk()) return Outcome::kDatabase;
  const Strict strict(db_);
  if (!withReserve([&] { return updateIn(db_, mask, after) != 0; })) {
    return fail(Outcome::kDatabase, kErrRow);
  }
  if (db_->lastChangeJournaled()) return Outcome::kDone;
  // Without a row there is no record to be found either.
  const bool there = db_->getCmdTuple() != 0;
  if (there) restoreIn(db_, mask, before);
  return fail(there ? Outcome::kJournal : Outcome::kDatabase, there ? kErrJournal : kErrRow);
}

template <typename Row>
JournaledRows::Outcome JournaledRows::removeRow(uint32_t key) {
  if (!mayAsk()) return Outcome::kDatabase;
  const Strict strict(db_);
  if (Table<Row>::remove(db_, key) != 0) return Outcome::kDone;
  if (!db_->lastChangeJournaled()) return fail(Outcome::kJournal, kErrJournal);
  // The record is deleted, so the row has to go as well.
  if (RamReserve::giveUpWhenFull(db_->ranFull()) && deleteRowAlone<Row>(db_, key))
    return Outcome::kDone;
  return fail(Outcome::kDatabase, kErrDeleteRow);
}

JournaledRows::Outcome JournaledRows::insert(DB_EVENT* row) { return insertRow(row); }
JournaledRows::Outcome JournaledRows::insert(DB_STREAM* row) { return insertRow(row); }

JournaledRows::Outcome JournaledRows::update(DB_EVENT_REG_BIT mask, const DB_EVENT& before,
                                             const DB_EVENT& after) {
  return updateRow(mask, before, after);
}
JournaledRows::Outcome JournaledRows::update(DB_STREAM_REG_BIT mask, const DB_STREAM& before,
                                             const DB_STREAM& after) {
  return updateRow(mask, before, after);
}

JournaledRows::Outcome JournaledRows::removeEvent(uint32_t eventID) {
  return removeRow<DB_EVENT>(eventID);
}
JournaledRows::Outcome JournaledRows::removeStream(uint32_t streamID) {
  return removeRow<DB_STREAM>(streamID);
}

}  // namespace tarn
