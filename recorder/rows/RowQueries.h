#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"

class CApiDb;

namespace tarn {

class DatabaseWatch;

// Look-ups whose answer is acted upon: "there is no such row" is told from "could not be asked". A
// recorder that takes the one for the other gives room away that is in use.
//
// Runs its statements on the given connection, whose held result is lost. Used by one thread.
class TARN_API RowQueries {
 public:
  enum class Answer { kRow, kNone, kFailed };

  // `watch` may be null. Both must live as long as this.
  RowQueries(CApiDb* db, const DatabaseWatch* watch) : db_(db), watch_(watch) {}

  // First row of a SELECT * of the table.
  Answer stream(const char* sql, DB_STREAM* row);
  Answer event(const char* sql, DB_EVENT* row);
  // All its rows.
  bool streams(const char* sql, std::vector<DB_STREAM>* rows);
  bool events(const char* sql, std::vector<DB_EVENT>* rows);
  // At most `room` rows; their number in *count.
  bool events(const char* sql, DB_EVENT* rows, int room, int* count);
  // The only value of a statement that always gives one.
  bool number(const char* sql, uint32_t* value);
  // Whether the database still counts its recordings behind `key`, the greatest one known to have
  // been given: rows are missing in an older or an empty one that was copied over it. Asked before
  // missing rows are taken for room.
  bool countsBehind(uint32_t key);

  // Why the last one failed, for a person.
  const char* failure() const { return failure_; }

  // Runs a statement whose result the caller reads from the connection. False when it failed or was
  // not made.
  bool run(const char* sql);

 private:
  bool fail(const char* text);

  CApiDb* db_;
  const DatabaseWatch* watch_;
  const char* failure_ = "";
};

}  // namespace tarn
