#pragma once

#include <cstdint>
#include <functional>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "db/JournalCalls.h"
#include "dblog/JournalFormat.h"
#include "recorder/rows/InsertingProcess.h"
#include "recorder/rows/RowQueries.h"

class CApiDb;

namespace tarn {

class DatabaseWatch;

// Keeps an insert from overwriting the journal record of a row that is still listed, or that only a
// database that was copied over this one's file lacks. The journal is a ring that never refuses a
// write, so before each insert somebody must look who lies where the next record goes, in the
// database and on the card:
//
//   tarn::JournalGuard guard(&db);
//   if (!guard.beforeStreamInsert(deleteRecording)) return fail();
//   db.insertStream(&row);
//
// While a guard lives no other thread of the process inserts, so that the place that it found free
// stays free; destroy it after the insert. Deletes and updates go on. Only one process of the
// machine inserts: while another one does (its sessions or guards live) nothing is made free here.
// It runs statements on the given CApiDb, whose held result is lost. One thread.
class TARN_API JournalGuard {
 public:
  // Who lies where the next record goes.
  enum class Verdict {
    kFree,       // nobody
    kOldestRow,  // the row with the smallest key: the ring has come round to it
    kStale,      // another row: the journal's free offset is behind what was written
    kFailed,     // the journal or the database cannot be asked, or they are no pair
  };
  // Deletes the oldest recording: its row (database and journal) and whatever belongs to it.
  // Returns false when that failed.
  using DeleteOldest = std::function<bool(const DB_STREAM& row)>;

  // `watch` (may be null; not owned) is asked before each statement.
  explicit JournalGuard(CApiDb* db, const DatabaseWatch* watch = nullptr);
  JournalGuard(const JournalGuard&) = delete;
  JournalGuard& operator=(const JournalGuard&) = delete;

  // Make the next place free: the oldest row goes (without a callback the row alone); a stale free
  // offset is corrected first. A row that is neither the oldest nor the newest, at a place that is
  // right, goes alone, with a line at LOG_ERR: one recording less is better than none from now on.
  // False when nothing may be inserted.
  bool beforeEventInsert();
  bool beforeStreamInsert();
  bool beforeStreamInsert(const DeleteOldest& deleteOldest);

  // What beforeEventInsert() and beforeStreamInsert() would meet, with the row's key (0: none).
  Verdict checkEvent(unsigned long* key = nullptr);
  Verdict checkStream(unsigned long* key = nullptr);

  // Moves the free offset of each journal that has rows behind the record of its newest row,
  // through the management server. 0 or -1.
  int correct();

 private:
  struct Place {
    Verdict verdict = Verdict::kFailed;
    uint32_t key = 0;  // of the row that lies there
    bool oldest = false;
    bool kept = false;  // a kept copy, which is passed over
  };

  Place look(JournalKind kind);
  Verdict lookAtCard(JournalKind kind, uint32_t offset);
  bool makeFree(JournalKind kind, const std::function<bool(uint32_t key)>& deleteOldest);
  bool lookAndMakeFree(JournalKind kind, const std::function<bool(uint32_t key)>& deleteOldest);
  bool passOver(JournalKind kind, uint32_t* passed);
  bool deleteRow(JournalKind kind, uint32_t key);
  bool correctOne(JournalKind kind);

  bool mayInsert();

  journal_calls::InsertLock lock_;
  InsertingProcess process_;
  CApiDb* db_;
  const DatabaseWatch* watch_;
  RowQueries queries_;
};

}  // namespace tarn
