#pragma once

// Every log text of the database gateway, and the lines that it prints. Blanks and spellings are
// part of the texts: log readers match them whole.
namespace tarn {

// Connection and lock.
inline constexpr char kMsgSemInitError[] = "SQLite_SEM.init error!!!";
inline constexpr char kMsgLongLockError[] = "Long SemLock = [%u.%02u]!!!!!!!!!!!!!!!";
inline constexpr char kMsgLongLock[] = "Long SemLock = [%u.%02u]";
inline constexpr char kMsgConnectNoLock[] = "cannot lock SQLite_SEM connec(%s)";
inline constexpr char kMsgConnectFailed[] = "backend connection failed  [CONNECTON_BAD: %s] %s";

// Statements and cells.
inline constexpr char kMsgSqlNoLock[] = "cannot lock SQLite_SEM SQL(%s)";
inline constexpr char kMsgSqlError[] = "setSql() errorSQL = (%s)";
inline constexpr char kMsgSqlErrorText[] = " error [%s] SQL=%s";
inline constexpr char kMsgSqlNoRetry[] = " SQL error no retry";
inline constexpr char kMsgSqliteError[] = "SQLite Err %s";
inline constexpr char kMsgNullCell[] = " getCValue [%ld,%ld] is NULL";
inline constexpr char kMsgCellOver[] = " Column or Row over: [%ld<%ld||%ld<%ld]";

// Writes.
inline constexpr char kMsgInsertEventSqlError[] = "CApiDb::insertEvent() setSql error = %ld";
inline constexpr char kMsgInsertEventTrace[] = "insertEvent() %s ID=%lu";
inline constexpr char kMsgInsertEventLogError[] = "CApiDb::insertEvent() DB log write error";
inline constexpr char kMsgInsertStreamSqlError[] = "CApiDb::insertStream() setSql error = %ld";
inline constexpr char kMsgInsertStreamTrace[] = "insertStream() %s ID=%lu";
inline constexpr char kMsgInsertStreamLogError[] = "CApiDb::insertStream() DB log write error";

inline constexpr char kMsgUpdateEventNoBits[] = "CApiDb::updateEvent() eRegBit all zero";
inline constexpr char kMsgUpdateEventSqlError[] = "CApiDb::updateEvent() setSql error = %ld";
inline constexpr char kMsgUpdateEventTrace[] = "updateEvent() %s";
inline constexpr char kMsgUpdateEventLogError[] = "CApiDb::updateEvent() DB log write error";
inline constexpr char kMsgUpdateStreamNoBits[] = "CApiDb::updateStream() sRegBit all zero";
// Kept on purpose: this one says "sql error", unlike its neighbours; log readers match it.
inline constexpr char kMsgUpdateStreamSqlError[] = "CApiDb::updateStream() sql error = %ld";
inline constexpr char kMsgUpdateStreamTrace[] = "updateStream() %s";
inline constexpr char kMsgUpdateStreamLogError[] = "CApiDb::updateStream() DB log write error";

inline constexpr char kMsgDeleteEventLogError[] = "CApiDb::deleteEvent() DB log write error";
inline constexpr char kMsgDeleteEventSqlError[] = "CApiDb::deleteEvent() setSql error = %ld";
inline constexpr char kMsgDeleteEventTrace[] = "deleteEvent() %s";
inline constexpr char kMsgDeleteEventNotice[] = "CApiDb::deleteEvent() delete eventID = %lu";
inline constexpr char kMsgDeleteStreamLogError[] = "CApiDb::deleteStream() DB log write error";
inline constexpr char kMsgDeleteStreamSqlError[] = "CApiDb::deleteStream() setSql error = %ld";
inline constexpr char kMsgDeleteStreamTrace[] = "deleteStream() %s";
inline constexpr char kMsgDeleteStreamNotice[] = "CApiDb::deleteStream() delete streamID = %lu";
inline constexpr char kMsgOlderSqlError[] = "%s-%d setSql error.[%ld]";

// To standard output, by deleteEventOlderTime().
inline constexpr char kOutNewestEvent[] = "newestEventID = %lu";
inline constexpr char kOutDeleteEvent[] = "delete eventID = %lu\n";

// Queries.
inline constexpr char kMsgEventColumns[] = "CApiDb::getEventValue() m_ncol error = %ld";
inline constexpr char kMsgStreamColumns[] = "CApiDb::getStreamValue() m_ncol error = %ld";
inline constexpr char kMsgSelectEventError[] = "CApiDb::selectEvent() setSql error = %ld";
inline constexpr char kMsgSelectStreamError[] = "CApiDb::selectStream() setSql error = %ld";
// Kept on purpose: selectStreamTimeNext() logs under this name too.
inline constexpr char kMsgSelectStreamTimeError[] = "CApiDb::selectStreamTime() setSql error = %ld";
inline constexpr char kMsgSelectStreamOldestError[] =
    "CApiDb::selectStreamOldest() setSql error = %ld";
inline constexpr char kMsgSelectStreamOldestTimeError[] =
    "CApiDb::selectStreamOldestTime() setSql error = %ld";
// Kept on purpose: two blanks before the equals sign.
inline constexpr char kMsgSelectEventListError[] = "CApiDb::selectEventList() setSql error  = %ld";
inline constexpr char kMsgSelectViewerListError[] =
    "CApiDb::selectViewerList() setSql error = %ld (%s)";
inline constexpr char kMsgSelectRipListError[] = "CApiDb::selectRipList() setSql error = %ld";
inline constexpr char kMsgCountNoLock[] = "cannot lock SQLite_SEM getRecordNum";
inline constexpr char kMsgCountError[] = " getRecordNum sqlite3_exec error %s";

}  // namespace tarn
