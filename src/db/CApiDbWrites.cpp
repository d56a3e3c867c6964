// The half of the gateway that changes rows. Kept on purpose: inserts and updates change the
// database first and the journal after, deletes the journal first; and a journal that fails is
// logged but never undoes the change or alters the result. A failing statement reports nothing
// either; only a strict object looks at it, and takes the branches for that.
#include <sqlite3.h>
#include <syslog.h>

#include <cstdio>

#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "db/DbMessages.h"
#include "db/JournalCalls.h"
#include "db/SqlText.h"

namespace {

constexpr int kTracePriority = LOG_LOCAL6 | LOG_INFO;
constexpr int kDeleteNoticePriority = LOG_EMERG;  // kept on purpose: every terminal shall show it
constexpr size_t kInsertRoom = 1024;
constexpr uint32_t kNotDone = 1;  // of a strict object's statement, as its log line has it

constexpr char kSqlInsertEvent[] =
    "INSERT INTO EVENT( extTrg, preSec, startDate, endDate, startMSec, endMSec, backOffset ) "
    "VALUES( '%u', '%u', '%lu', '%lu', '%u', '%u', '%lu' )";
constexpr char kSqlInsertStream[] =
    "INSERT INTO STREAM( inTrg, frameSet, bitrateSet, recSize, chunkID, chunkOffset, chunkSize, "
    "status, startDate, endDate, startMSec, endMSec, backOffset ) VALUES( '%u', '%u', '%lu', "
    "'%lu', '%lu', '%lu', '%lu', '%lu', '%lu', '%lu', '%u', '%u', '%lu' )";

constexpr char kSqlUpdateEvent[] = "UPDATE EVENT SET ";
constexpr char kSqlWhereEvent[] = " WHERE eventID = ";
constexpr char kSqlUpdateStream[] = "UPDATE STREAM SET ";
constexpr char kSqlWhereStream[] = " WHERE streamID = ";
constexpr char kSqlComma[] = ",";

constexpr char kSqlDeleteEvent[] = "DELETE FROM EVENT WHERE eventID = ";
constexpr char kSqlDeleteStream[] = "DELETE FROM STREAM WHERE streamID = ";

constexpr char kSqlEventsOlderTime[] =
    "SELECT eventID FROM EVENT WHERE startDate < %lu ORDER BY eventID DESC";
constexpr char kSqlEventsBefore[] = "SELECT eventID FROM EVENT WHERE eventID < %ld";

constexpr char kOlderTimeName[] = "deleteEventOlderTime";
// Places named by the two error lines; fixed, so that the lines do not change with the source.
constexpr int kOlderTimePlace = 290;
constexpr int kOlderKeyPlace = 335;

// One column of an update: its mask bit, its piece of the statement and its new value.
struct Assignment {
  uint32_t bit;
  const char* piece;
  uint32_t value;
};

// The assignments of the bits set, each with a comma behind it, without the last comma.
template <size_t N>
void addAssignments(tarn::SqlText& sql, uint32_t mask, const Assignment (&columns)[N]) {
  for (const Assignment& column : columns) {
    if ((mask & column.bit) != 0) sql.add(column.piece).add(column.value).add(kSqlComma);
  }
  sql.dropLast();
}

// Kept on purpose: event pieces bring a blank in front, stream pieces none, and several of those
// two blanks before the equals sign. The trace lines are matched as they are.
void addEventAssignments(tarn::SqlText& sql, DB_EVENT_REG_BIT mask, const DB_EVENT& rec) {
  const Assignment columns[] = {
      {kEventRegExtTrg, " extTrg = ", rec.extTrg},
      {kEventRegPreSec, " preSec = ", rec.preSec},
      {kEventRegStartDate, " startDate = ", rec.startDate},
      {kEventRegEndDate, " endDate = ", rec.endDate},
      {kEventRegStartMSec, " startMSec = ", rec.startMSec},
      {kEventRegEndMSec, " endMSec = ", rec.endMSec},
      {kEventRegBackOffset, " backOffset = ", rec.backOffset},
  };
  addAssignments(sql, mask, columns);
}

void addStreamAssignments(tarn::SqlText& sql, DB_STREAM_REG_BIT mask, const DB_STREAM& rec) {
  const Assignment columns[] = {
      {kStreamRegInTrg, "inTrg  = ", rec.inTrg},
      {kStreamRegFrameSet, "frameSet = ", rec.frameSet},
      {kStreamRegBitrateSet, "bitrateSet = ", rec.bitrateSet},
      {kStreamRegRecSize, "recSize  = ", rec.recSize},
      {kStreamRegChunkID, "chunkID  = ", rec.chunkID},
      {kStreamRegChunkOffset, "chunkOffset  = ", rec.chunkOffset},
      {kStreamRegChunkSize, "chunkSize  = ", rec.chunkSize},
      {kStreamRegStatus, "status = ", rec.status},
      {kStreamRegStartDate, "startDate  = ", rec.startDate},
      {kStreamRegEndDate, "endDate  = ", rec.endDate},
      {kStreamRegStartMSec, "startMSec  = ", rec.startMSec},
      {kStreamRegEndMSec, "endMSec  = ", rec.endMSec},
      {kStreamRegBackOffset, "backOffset  = ", rec.backOffset},
  };
  addAssignments(sql, mask, columns);
}

tarn::SqlText updateText(DB_EVENT_REG_BIT mask, const DB_EVENT& rec) {
  tarn::SqlText sql(kSqlUpdateEvent);
  addEventAssignments(sql, mask, rec);
  sql.add(kSqlWhereEvent).add(rec.eventID);
  return sql;
}

tarn::SqlText updateText(DB_STREAM_REG_BIT mask, const DB_STREAM& rec) {
  tarn::SqlText sql(kSqlUpdateStream);
  addStreamAssignments(sql, mask, rec);
  sql.add(kSqlWhereStream).add(rec.streamID);
  return sql;
}

unsigned long asLong(uint32_t value) { return value; }

void formatInsert(const DB_EVENT& rec, char (&sql)[kInsertRoom]) {
  snprintf(sql, sizeof sql, kSqlInsertEvent, rec.extTrg, rec.preSec, asLong(rec.startDate),
           asLong(rec.endDate), rec.startMSec, rec.endMSec, asLong(rec.backOffset));
}

void formatInsert(const DB_STREAM& rec, char (&sql)[kInsertRoom]) {
  snprintf(sql, sizeof sql, kSqlInsertStream, rec.inTrg, rec.frameSet, asLong(rec.bitrateSet),
           asLong(rec.recSize), asLong(rec.chunkID), asLong(rec.chunkOffset), asLong(rec.chunkSize),
           asLong(rec.status), asLong(rec.startDate), asLong(rec.endDate), rec.startMSec,
           rec.endMSec, asLong(rec.backOffset));
}

// A statement result as the "%ld" of the messages shows it on every machine.
long shown(uint32_t result) { return tarn::asSigned32(result); }

}  // namespace

// Key of the last insert on this connection, read without the lock: only this object's own
// statements run on it. After a failed insert it is that of an earlier one (0: none yet), and that
// record is journaled all the same, which the system accepts.
uint32_t CApiDb::lastInsertKey() const {
  return m_db == nullptr ? 0 : static_cast<uint32_t>(sqlite3_last_insert_rowid(m_db));
}

// What a write's statement comes to. Only a strict object is told of a failure: for all others a
// statement has no result.
uint32_t CApiDb::changeRow(const char* sql) {
  const uint32_t result = setSqlNoResult(sql);
  return m_strict && !m_statementDone ? kNotDone : result;
}

void CApiDb::noteJournal(bool taken, const char* error) {
  if (!taken) syslog(LOG_ERR, "%s", error);
  m_changeJournaled = taken && tarn::journal_calls::lastChangeOnCard();
}

uint32_t CApiDb::insertEvent(DB_EVENT* rec) {
  const tarn::journal_calls::InsertLock insertLock;
  rec->backOffset = tarn::low32(tarn::journal_calls::eventBackOffset());
  char sql[kInsertRoom];
  formatInsert(*rec, sql);
  if (const uint32_t result = changeRow(sql); result != 0) {
    m_changeJournaled = false;
    syslog(LOG_ERR, tarn::kMsgInsertEventSqlError, shown(result));
    return 0;
  }
  rec->eventID = lastInsertKey();
  syslog(kTracePriority, tarn::kMsgInsertEventTrace, sql, asLong(rec->eventID));
  noteJournal(tarn::journal_calls::insertEvent(rec), tarn::kMsgInsertEventLogError);
  return rec->eventID;
}

uint32_t CApiDb::insertStream(DB_STREAM* rec) {
  const tarn::journal_calls::InsertLock insertLock;
  rec->backOffset = tarn::low32(tarn::journal_calls::streamBackOffset());
  char sql[kInsertRoom];
  formatInsert(*rec, sql);
  if (const uint32_t result = changeRow(sql); result != 0) {
    m_changeJournaled = false;
    syslog(LOG_ERR, tarn::kMsgInsertStreamSqlError, shown(result));
    return 0;
  }
  rec->streamID = lastInsertKey();
  syslog(kTracePriority, tarn::kMsgInsertStreamTrace, sql, asLong(rec->streamID));
  noteJournal(tarn::journal_calls::insertStream(rec), tarn::kMsgInsertStreamLogError);
  return rec->streamID;
}

uint32_t CApiDb::updateEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* rec) {
  mask &= kEventRegUpdatable;
  if (mask == 0) {
    syslog(LOG_WARNING, tarn::kMsgUpdateEventNoBits);
    return 0;
  }
  const tarn::SqlText sql = updateText(mask, *rec);
  if (const uint32_t result = changeRow(sql.c_str()); result != 0) {
    m_changeJournaled = false;
    syslog(LOG_ERR, tarn::kMsgUpdateEventSqlError, shown(result));
    return 0;
  }
  syslog(kTracePriority, tarn::kMsgUpdateEventTrace, sql.c_str());
  noteJournal(tarn::journal_calls::updateEvent(mask, rec), tarn::kMsgUpdateEventLogError);
  return rec->eventID;
}

uint32_t CApiDb::updateStream(DB_STREAM_REG_BIT mask, const DB_STREAM* rec) {
  mask &= kStreamRegUpdatable;
  if (mask == 0) {
    syslog(LOG_WARNING, tarn::kMsgUpdateStreamNoBits);
    return 0;
  }
  const tarn::SqlText sql = updateText(mask, *rec);
  if (const uint32_t result = changeRow(sql.c_str()); result != 0) {
    m_changeJournaled = false;
    syslog(LOG_ERR, tarn::kMsgUpdateStreamSqlError, shown(result));
    return 0;
  }
  syslog(kTracePriority, tarn::kMsgUpdateStreamTrace, sql.c_str());
  noteJournal(tarn::journal_calls::updateStream(mask, rec), tarn::kMsgUpdateStreamLogError);
  return rec->streamID;
}

bool CApiDb::restoreEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* rec) {
  mask &= kEventRegUpdatable;
  if (mask == 0) return false;
  setSqlNoResult(updateText(mask, *rec).c_str());
  return m_statementDone;
}

bool CApiDb::restoreStream(DB_STREAM_REG_BIT mask, const DB_STREAM* rec) {
  mask &= kStreamRegUpdatable;
  if (mask == 0) return false;
  setSqlNoResult(updateText(mask, *rec).c_str());
  return m_statementDone;
}

uint32_t CApiDb::deleteEvent(unsigned long eventID) {
  const uint32_t id = tarn::low32(eventID);
  tarn::SqlText sql(kSqlDeleteEvent);
  sql.add(id);
  noteJournal(tarn::journal_calls::deleteEvent(id), tarn::kMsgDeleteEventLogError);
  if (m_strict && !m_changeJournaled) return 0;
  if (const uint32_t result = changeRow(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgDeleteEventSqlError, shown(result));
    return 0;
  }
  syslog(kTracePriority, tarn::kMsgDeleteEventTrace, sql.c_str());
  syslog(kDeleteNoticePriority, tarn::kMsgDeleteEventNotice, asLong(id));
  return id;
}

uint32_t CApiDb::deleteStream(unsigned long streamID) {
  const uint32_t id = tarn::low32(streamID);
  tarn::SqlText sql(kSqlDeleteStream);
  sql.add(id);
  noteJournal(tarn::journal_calls::deleteStream(id), tarn::kMsgDeleteStreamLogError);
  if (m_strict && !m_changeJournaled) return 0;
  if (const uint32_t result = changeRow(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgDeleteStreamSqlError, shown(result));
    return 0;
  }
  syslog(kTracePriority, tarn::kMsgDeleteStreamTrace, sql.c_str());
  syslog(kDeleteNoticePriority, tarn::kMsgDeleteStreamNotice, asLong(id));
  return id;
}

// Deletes the events whose keys the held result lists, walking it while deleteEvent() runs its own
// statements: those leave the held result alone. Returns their number.
int32_t CApiDb::deleteHeldEvents(bool announceFirst) {
  const int32_t rows = m_ntuple;
  for (int32_t row = 0; row < rows; ++row) {
    const uint32_t id = getValue(row, 0);
    if (announceFirst && row == 0) printf(tarn::kOutNewestEvent, asLong(id));
    printf(tarn::kOutDeleteEvent, asLong(id));
    deleteEvent(id);
  }
  return rows;
}

int32_t CApiDb::deleteEventOlderTime(unsigned long time) {
  char sql[kInsertRoom];
  snprintf(sql, sizeof sql, kSqlEventsOlderTime, asLong(tarn::low32(time)));
  if (const uint32_t result = setSql(sql); result != 0) {
    syslog(LOG_ERR, tarn::kMsgOlderSqlError, kOlderTimeName, kOlderTimePlace, shown(result));
    return -1;
  }
  const uint32_t newest = m_ntuple > 0 ? getValue(0, 0) : 0;
  int32_t count = deleteHeldEvents(true);
  if (newest == 0) return count;

  // Kept on purpose: whatever was inserted before the newest old event goes too, also an event that
  // began later. The key is shown signed, as the 32-bit target has it.
  snprintf(sql, sizeof sql, kSqlEventsBefore, shown(newest));
  if (const uint32_t result = setSql(sql); result != 0) {
    syslog(LOG_ERR, tarn::kMsgOlderSqlError, kOlderTimeName, kOlderKeyPlace, shown(result));
    return -1;
  }
  count += deleteHeldEvents(false);
  return count;
}
