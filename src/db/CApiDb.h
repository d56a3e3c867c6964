#pragma once

#include <cstddef>
#include <cstdint>

#include "base/Export.h"
#include "db/DbRecords.h"

struct sqlite3;
namespace tarn {
class RowInserts;
}

// The gateway of every process to the recorder's SQLite database: statements, rows of the EVENT
// and STREAM tables, and the queries that the recorder's processes use.
//
// One object per user and per thread: an object has no mutex of its own and must not be used by
// two threads at once. Every SQLite call of every process runs under one System V semaphore, taken
// and released inside each operation and never held between two. A transaction (begin, end)
// therefore does not keep other processes out; SQLite's own locking does.
//
// No operation throws. Trouble with the database shows as an empty result and a line in the log,
// never as a result code: see setSql(). unsigned long arguments are cut to 32 bits.
class TARN_API CApiDb {
 public:
  // Makes or finds the machine's database semaphore. Does not connect.
  CApiDb();
  // finish(). The semaphore outlives all objects and processes.
  ~CApiDb();
  CApiDb(const CApiDb&) = delete;
  CApiDb& operator=(const CApiDb&) = delete;

  // --- Connection and lock ---

  // Opens the database file; the name keeps at most 127 characters. Does nothing but take the name
  // when already connected. Always 0: see isConnected() and the log. Without it the first
  // statement connects to "/tmp/DB.dat".
  uint32_t connect(const char* path);
  // Releases the held result and closes. 0 when not connected, otherwise what SQLite said.
  uint32_t finish();
  // finish() for whoever must not wait without a limit: false, and all is as it was, when others
  // kept the lock for so many milliseconds. A process that died with it keeps it for ever.
  bool finishWithin(uint32_t limitMs);
  // True between a successful connect() and finish().
  bool isConnected() const { return m_connected; }
  // Makes (or waits for and joins) the one-element semaphore set of this System V key. 0, or -1
  // (all bits set) when there is none; every later lock then fails and is logged.
  uint32_t createSem(int key);
  // Take and give back the machine-wide lock: 0, or -1 (all bits set) when the operating system
  // refuses. A process that dies between the two leaves the database locked for every process.
  // Waits of a second and more are logged.
  uint32_t lockSem();
  uint32_t unlockSem();

  // --- Statements ---

  // Runs one statement and holds its result (the previous one is released first). Always 0: a
  // statement that fails, also at its second attempt half a second later, gives an empty result
  // and log lines. A constraint violation is not tried again.
  uint32_t setSql(const char* sql);
  // Runs statements whose rows are of no interest; the held result stays. Always 0, as setSql().
  uint32_t setSqlNoResult(const char* sql);
  uint32_t begin();
  uint32_t end();
  // Rows changed by the last statement of this connection; 0 when not connected.
  uint32_t getCmdTuple();
  // 1 when the connection's last error code means health, otherwise 0 and a log line.
  uint32_t getStatus();

  // Beyond the basic operations, between begin() and end(): runs `count` statements one after the
  // other, each as setSqlNoResult() would, but under one lock, and stops at the first that is not
  // carried out or is outside of a transaction when it is. How many there were before that one.
  size_t setSqlEach(const char* const* sql, size_t count);

  // Beyond the basic operations: true between begin() and its end(), unless SQLite took the
  // transaction back by itself, as it does when the disk is full.
  bool inTransaction() const;
  // True once a statement of this object failed because its disk was full.
  bool ranFull() const { return m_ranFull; }

  // --- The held result: the object's own copy, read without the lock ---

  // Value of a cell, row and column from 0; row -1 is the header. 0 on any fault, with a log line.
  // Text converts as C numbers do ("010" is 8, "0x10" is 16) and saturates at 32 or 64 bits.
  uint32_t getValue(long row, long col);
  uint64_t getValue64(long row, long col);
  // Rows (without the header) and columns of the last setSql(); both 0 after a failure and, as
  // SQLite reports no header then, after an empty result.
  uint32_t getNTuple() const { return static_cast<uint32_t>(m_ntuple); }
  uint32_t getNColumn() const { return static_cast<uint32_t>(m_ncol); }
  void freeTable();

  // --- Writes; each change also goes to the journal ---

  // Inserts the record; its key and backOffset are filled in. Returns the new key.
  uint32_t insertEvent(DB_EVENT* rec);
  uint32_t insertStream(DB_STREAM* rec);
  // Sets the columns that the mask selects (never the key, higher bits are dropped) in the row of
  // the record's key. Returns the key; 0 when the mask selects nothing.
  uint32_t updateEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* rec);
  uint32_t updateStream(DB_STREAM_REG_BIT mask, const DB_STREAM* rec);
  // Returns the key, also when there is no such row.
  uint32_t deleteEvent(unsigned long eventID);
  uint32_t deleteStream(unsigned long streamID);
  // Deletes every event that began before `time` (seconds) and every event inserted before the
  // newest of those, whatever its own start. Returns the number of events deleted.
  int32_t deleteEventOlderTime(unsigned long time);

  // --- Queries; each leaves its last result held. `out` belongs to the caller ---

  // id 0 = first event, 0xFFFFFFFF = last event, otherwise the key. 1 when found, else 0.
  uint32_t selectEvent(unsigned long id, DB_EVENT* out);
  uint32_t selectStream(unsigned long id, DB_STREAM* out);
  // The stream that covers `time` (seconds): 1. None, but one starts later: 2 and that one. Else 0.
  uint32_t selectStreamTime(unsigned long time, DB_STREAM* out);
  // The first stream that starts after `time`: 1 when found, else 0.
  uint32_t selectStreamTimeNext(unsigned long time, DB_STREAM* out);
  // The stream of the lowest key, and the one that started first. 1 when found, else 0.
  uint32_t selectStreamOldest(DB_STREAM* out);
  uint32_t selectStreamOldestTime(DB_STREAM* out);
  // Up to `count` events (0: all there are) in key order from the event `fromID` on, that one
  // included; 0 starts at the end. startTime and endTime: events that start in the period;
  // startTime alone: events in progress then; endTime alone is ignored. extTrg 0: every trigger.
  // One statement per event, so rows that come and go meanwhile are seen or missed by their key.
  // Returns the number of records written.
  uint32_t selectEventList(unsigned long count, unsigned long startTime, unsigned long endTime,
                           unsigned long fromID, unsigned short extTrg, unsigned char descending,
                           DB_EVENT* out);
  // A page of at most `limit` events, by start time when a period is given, else by key; `limit` 0
  // only counts. The bounds of the period may come in either order and are inclusive, the keys
  // afterID and beforeID are exclusive, 0 = none. Triggers: 1 to 16 of them, any other count means
  // every trigger. Returns the number of records written or, with `limit` 0, of matching events.
  uint32_t selectViewerList(DB_EVENT* out, unsigned long limit, const unsigned short* extTrgList,
                            unsigned long extTrgCount, unsigned long startTime,
                            unsigned long endTime, unsigned long afterID, unsigned long beforeID,
                            unsigned char descending);
  // Number of streams in progress at startTime or starting in the period; inTrg 0: every trigger.
  // The held result stays.
  uint32_t selectCount(unsigned long startTime, unsigned long endTime, unsigned long inTrg);
  // A page of the streams that selectCount() counts, in key order, `offset` rows skipped. Returns
  // the number of records written.
  int32_t selectRipList(DB_STREAM* out, unsigned long limit, unsigned long offset,
                        unsigned long startTime, unsigned long endTime, unsigned long inTrg);

  // Turn a row of the held result into a record, 16-bit fields cut to their low 16 bits. 0, or -1
  // (all bits set) and `out` untouched when the result has not the table's number of columns.
  uint32_t getEventValue(long row, DB_EVENT* out);
  uint32_t getStreamValue(long row, DB_STREAM* out);

  // Beyond the basic operations:

  // Whether the last statement of this object was carried out, at its first or second attempt. An
  // empty result and a failed statement look the same otherwise.
  bool lastStatementDone() const { return m_statementDone; }
  // Whether the last insert, update or delete above got into the journal and is on the card there,
  // both copies.
  bool lastChangeJournaled() const { return m_changeJournaled; }
  // While strict, an insert or update whose statement fails is not journaled, and a delete whose
  // record the journal does not take leaves the row; each returns 0 then. An object is not strict
  // to begin with: a journal that failed never undoes a change and alters no result.
  void setStrict(bool strict) { m_strict = strict; }
  bool isStrict() const { return m_strict; }
  // Sets the selected columns of the row alone, past the journal: takes an update back that the
  // journal refused. False when the mask selects nothing or the statement fails.
  bool restoreEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* rec);
  bool restoreStream(DB_STREAM_REG_BIT mask, const DB_STREAM* rec);

  // sqlite3_exec() row callback: stores the first column's number into the uint32_t at `arg`.
  static int m_CountCallback(void* arg, int ncol, char** values, char** names);

 private:
  friend class tarn::RowInserts;
  class SemLock;

  uint32_t close();
  const char* heldCell(long row, long col, int nullPriority);
  template <typename Attempt>
  void runStatement(const char* sql, Attempt attempt);
  template <typename Attempt>
  void runLocked(const char* sql, Attempt attempt);
  bool reportFailure(int result, const char* sql, char* errorText);
  uint32_t lastInsertKey() const;
  uint32_t changeRow(const char* sql);
  void noteJournal(bool taken, const char* error);
  int32_t deleteHeldEvents(bool announceFirst);
  uint32_t execCount(const char* sql);
  bool oneEvent(DB_EVENT* out);
  bool oneStream(DB_STREAM* out);

  char m_name[128];
  sqlite3* m_db;  // null when not open
  int32_t m_semID;
  bool m_connected;
  bool m_tableHeld;
  char** m_table;  // header row first; valid while m_tableHeld
  int32_t m_ntuple;
  int32_t m_ncol;
  bool m_ranFull;
  bool m_statementDone = false;
  bool m_changeJournaled = false;
  bool m_strict = false;
};
