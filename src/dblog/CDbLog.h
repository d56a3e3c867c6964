#pragma once

#include <cstdint>
#include <memory>

#include "base/Export.h"
#include "base/Mutex.h"
#include "db/DbRecords.h"

namespace tarn {
enum class JournalKind : uint8_t;
struct JournalOperation;
}  // namespace tarn
class CApiDb;
class CTARNEndlessManager;
class CTARNMirroredChunk;

// The journal of the database on the card: one fixed-size record for every row ever inserted into
// EVENT and STREAM, patched in place by every later change of the row, so that the database (which
// lives in memory) can be rebuilt after a power loss. Event records lie in journal chunks 0 and 1,
// stream records in chunks 2 and 3, the second chunk of each pair being the mirror of the first.
// docs/format.md has the records' bytes.
//
// One instance per process. Every operation connects by itself, through the management server.
// Failures return false (0) and log one line at LOG_ERR; nothing is retried. Operations may be
// called by any thread: one mutex is held around each use of the chunks and of their manager, never
// during a look-up in the database. Which position belongs to which insert is the callers' matter,
// see db/JournalCalls.h (InsertLock).
//
// Programs call finish() before they exit.
class TARN_API CDbLog {
 public:
  // The process's one instance; it is destroyed when the process exits.
  static CDbLog* getInstance();
  // finish().
  ~CDbLog();
  CDbLog& operator=(const CDbLog&) = delete;

  // Opens the management data and both journals unless that is done. 0, or -1 with nothing left
  // open; the next operation then tries again. A process that cannot read its own name counts as
  // connected but is refused by every operation.
  int connect();

  // Append a live record. Its backOffset must be what the matching get…LogBackOffset() gave just
  // before. True once the record, both copies, and the moved free offset are on the card.
  bool insertEvent(const DB_EVENT* record);
  bool insertStream(const DB_STREAM* record);
  // Patch the fields that the mask selects (never the key and never backOffset) in the record of
  // the row with the given record's key. The row must be in the database.
  // An event's preSec is accepted in the mask but keeps the value of the insert.
  bool updateEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* record);
  bool updateStream(DB_STREAM_REG_BIT mask, const DB_STREAM* record);
  // Turn the row's record into a deleted one. The row must still be in the database.
  bool deleteEvent(unsigned long eventID);
  bool deleteStream(unsigned long streamID);

  // Byte position of the next record in its journal; 0 also on failure.
  unsigned long getEventLogBackOffset();
  unsigned long getStreamLogBackOffset();
  // backOffset of the row with this key; 0xFFFFFFFF when there is none.
  unsigned long searchEventBackOffset(unsigned long eventID);
  unsigned long searchStreamBackOffset(unsigned long streamID);

  // Empties both journals by moving all their offsets to 0; the records stay on the card until they
  // are overwritten. True unless refused.
  bool clearDbLogFreeAddr();

  // Moves the free offset of one journal, on both its chunks, and saves: for an owner who found it
  // stale, see recorder/rows/JournalGuard.h. 0, or -1 when the offset is not the place of a record,
  // when the operation is refused, or when the server did not take it.
  int correctFreeOffset(tarn::JournalKind kind, unsigned long offset);
  // Bytes of each journal chunk; 0 on failure.
  unsigned long getJournalChunkSize();
  // `length` bytes of one copy of a journal, whatever they are worth: for an owner who judges them.
  // False when the device did not give all of them, or when the operation is refused.
  bool readCopy(tarn::JournalKind kind, bool mirror, unsigned long offset, void* out, long length);
  // Whether the last change of the journal that this thread asked for (insert, update, delete) was
  // taken and both its copies are on the medium: the operations above report what was written, not
  // what became of the flush behind it. That the server could not be told or did not save is no
  // failure here: the start finds the record by itself.
  static bool lastChangeOnCard();

  // Flushes the stream journal, then the event journal, whoever has written to them, then saves
  // their management data, all of it under the mutex. Always 0.
  int writeLog();
  // The two flushes only. Always 0.
  int writeLogNoManage();
  // writeLog(), then closes everything; the next operation connects again. Always 0. While another
  // process keeps the database locked its connection to it stays; a second is waited for that.
  int finish();

 private:
  using Operation = tarn::JournalOperation;

  CDbLog();
  // Copies nothing: the instance is not meant to be copied.
  CDbLog(const CDbLog&);

  int connectLocked() TARN_REQUIRES(m_lock);
  bool openAllLocked() TARN_REQUIRES(m_lock);
  bool openManagerLocked() TARN_REQUIRES(m_lock);
  bool openJournalLocked(tarn::JournalKind kind) TARN_REQUIRES(m_lock);
  void closeAllLocked() TARN_REQUIRES(m_lock);
  void flushLocked() TARN_REQUIRES(m_lock);
  // What writeLog() or writeLogNoManage() do, behind a change of one journal and for no more than
  // it; notes whether it is on the card.
  void settleLocked(tarn::JournalKind kind, bool save) TARN_REQUIRES(m_lock);
  void settleJournalLocked(tarn::JournalKind kind, tarn::JournalKind changed) TARN_REQUIRES(m_lock);
  std::unique_ptr<CTARNMirroredChunk>& slotLocked(tarn::JournalKind kind) TARN_REQUIRES(m_lock);

  // Connects and tests the process mode; logs why not.
  bool admit(const Operation& operation) TARN_EXCLUDES(m_lock);
  bool admitLocked(const Operation& operation) TARN_REQUIRES(m_lock);
  unsigned long nextOffset(const Operation& operation) TARN_EXCLUDES(m_lock);
  bool append(const Operation& operation, void* record) TARN_EXCLUDES(m_lock);
  // Reads the record at `offset`, lets `patch` change it and writes it back, both copies.
  template <typename Patch>
  bool rewrite(const Operation& operation, unsigned long offset, Patch patch) TARN_EXCLUDES(m_lock);
  bool readAtLocked(const Operation& operation, uint32_t offset, void* record)
      TARN_REQUIRES(m_lock);
  bool writeAtLocked(const Operation& operation, uint32_t offset, void* record)
      TARN_REQUIRES(m_lock);
  bool seekLocked(const Operation& operation, uint32_t offset) TARN_REQUIRES(m_lock);
  bool markDeleted(const Operation& operation, unsigned long offset) TARN_EXCLUDES(m_lock);

  unsigned long searchBackOffset(const char* sql) TARN_EXCLUDES(m_searchLock);
  CApiDb* searchDbLocked() TARN_REQUIRES(m_searchLock);

  std::unique_ptr<CTARNEndlessManager> m_manager TARN_GUARDED_BY(m_lock);
  std::unique_ptr<CTARNMirroredChunk> m_streamJournal TARN_GUARDED_BY(m_lock);
  std::unique_ptr<CTARNMirroredChunk> m_eventJournal TARN_GUARDED_BY(m_lock);
  uint8_t m_connected TARN_GUARDED_BY(m_lock) = 0;
  int8_t m_processMode TARN_GUARDED_BY(m_lock) = -1;  // a JournalMode
  tarn::Mutex m_lock;

  // Look-ups of backOffset keep their own connection, so that an update does not open the database
  // anew; it follows the database file when that is replaced.
  tarn::Mutex m_searchLock;
  std::unique_ptr<CApiDb> m_searchDb TARN_GUARDED_BY(m_searchLock);
  uint64_t m_searchDevice TARN_GUARDED_BY(m_searchLock) = 0;
  uint64_t m_searchInode TARN_GUARDED_BY(m_searchLock) = 0;
};
