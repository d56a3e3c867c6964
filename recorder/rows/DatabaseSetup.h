#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

struct sqlite3;

namespace tarn {

// Makes the recorder's database file and judges one that is there. The library itself never
// creates, alters or drops a table.
//
// Columns stand in record order (db/DbRecords.h) with integer affinity; keys are AUTOINCREMENT, so
// that a key is never given out twice, not even that of a deleted row. Every operation waits for
// the machine's database semaphore, returns false on failure and then says in *error, one line,
// what failed. Names of at most 127 characters. Use by one thread at a time.
class TARN_API DatabaseSetup {
 public:
  // The one database file of the recorder.
  static const char* defaultPath();

  // Makes an empty database at `path`. An existing file and what SQLite keeps beside it go first,
  // and the new one appears whole under its name: a reader sees the old one, none, or the whole new
  // one, and after a failure there is none that could pass for a fresh one.
  static bool createEmpty(const char* path, std::string* error);

  // Puts the database `file`, which nobody uses, in the place of `path`, in the same directory.
  // What SQLite keeps beside an old one goes.
  static bool replace(const char* file, const char* path, std::string* error);

  // True when `path` is a writable database with both tables in the right shape; rows do not
  // matter.
  static bool check(const char* path, std::string* error);

  // True when this database's tables, indexes and all else are those of createEmpty(), letter for
  // letter: no trigger, view or virtual table that would be run by whoever asks for a row. Runs
  // nothing of what the database brings along.
  static bool hasOurSchema(sqlite3* db);

  // Makes sure that the next keys given out are greater than these, the greatest ever used (0:
  // never used). Keys that the tables have reached already are left. Also for empty tables.
  static bool seedKeys(const char* path, uint32_t greatestEventID, uint32_t greatestStreamID,
                       std::string* error);
};

}  // namespace tarn
