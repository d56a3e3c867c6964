#pragma once

#include <cstddef>
#include <cstring>

#include "db/DbRecordFormat.h"

namespace tarn {

// "INSERT … VALUES( ?, … ), ( ?, … )": a statement of so many rows, as prepared statements want it.
// `insert` is the statement as far as "INTO table( columns )". At most kRows rows of kMostColumns.
class GroupText {
 public:
  static constexpr size_t kRows = 32;  // spares a row the parser and the table of counters
  static constexpr size_t kMostColumns = kStreamColumns;

  GroupText(const char* insert, size_t columns, size_t rows) {
    add(insert);
    add(" VALUES");
    for (size_t row = 0; row < rows; ++row) {
      add(row == 0 ? "( ?" : ", ( ?");
      for (size_t column = 1; column < columns; ++column) add(", ?");
      add(" )");
    }
  }
  const char* c_str() const { return text_; }

 private:
  static constexpr size_t kPieces = kRows * (kMostColumns + 2);
  static constexpr size_t kPieceRoom = 5;
  static constexpr size_t kInsertRoom = 256;

  void add(const char* piece) {
    const size_t length = strlen(piece);
    if (length_ + length >= sizeof text_) return;
    memcpy(text_ + length_, piece, length + 1);
    length_ += length;
  }

  size_t length_ = 0;
  char text_[kInsertRoom + kPieces * kPieceRoom] = "";
};

}  // namespace tarn
