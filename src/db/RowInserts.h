#pragma once

#include <cstddef>
#include <cstdint>

#include "db/GroupText.h"

class CApiDb;
struct sqlite3_stmt;

namespace tarn {

// Inserts many rows of one table between begin() and end() of a database object. Rows gather; a
// full group goes to the database as one prepared statement under one lock, which spares each row
// the parser, the lock and the table of counters. A group that the database does not take is taken
// apart and its rows go one by one as statements of text, so what is logged, how often a row is
// tried and which rows stay is as for single statements; so do the rows that are left at the end.
//
// Not part of the interface. Used by one thread. The database object stays the caller's, outlives
// this and is not closed meanwhile.
class RowInserts {
 public:
  static constexpr size_t kRows = GroupText::kRows;
  static constexpr size_t kMostColumns = GroupText::kMostColumns;

  // `insert` is the statement as far as "INTO table( columns )" and outlives this; `columns` of
  // them.
  RowInserts(CApiDb* db, const char* insert, size_t columns);
  ~RowInserts();
  RowInserts(const RowInserts&) = delete;
  RowInserts& operator=(const RowInserts&) = delete;

  // Takes one row, its values in the order of the columns. False when a row failed, this one or one
  // before it, or the transaction was lost: nothing more may be added then.
  bool add(const uint32_t* values);
  // Inserts what has gathered; the same result.
  bool finish();
  // After a false: the statement that failed, as text.
  const char* failed() const { return failed_; }

 private:
  static constexpr size_t kTextRoom = 512;  // the longest has about 400 characters

  bool prepare();
  bool insertGroup();
  bool insertEach();
  void noteLostTransaction(int result);
  void writeText(size_t row, char* text) const;

  CApiDb* const db_;
  const char* const insert_;
  const size_t columns_;
  size_t count_ = 0;
  bool prepared_ = false;              // once, whatever came of it
  sqlite3_stmt* statement_ = nullptr;  // of a full group
  uint32_t values_[kRows * kMostColumns];
  char failed_[kTextRoom] = "";
};

}  // namespace tarn
