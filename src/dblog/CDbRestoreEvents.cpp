#include <syslog.h>

#include <cstdio>

#include "base/Wrap.h"
#include "dblog/CDbRestore.h"
#include "dblog/CheckedSql.h"
#include "dblog/JournalFormat.h"
#include "dblog/RepairMessages.h"

// The repair of the events: of the one that was going on when the power went, and of those whose
// recording was lost.

namespace {

constexpr char kSqlLastEvent[] = "SELECT * FROM EVENT ORDER BY eventID DESC LIMIT 1";
constexpr char kSqlNewestStream[] =
    "SELECT startDate, endDate FROM STREAM ORDER BY endDate DESC LIMIT 1";
constexpr char kSqlDeleteEvent[] = "DELETE FROM EVENT WHERE eventID = %lu";
constexpr char kSqlCloseEvent[] = "UPDATE EVENT SET endDate = %lu WHERE eventID = %lu";
constexpr char kSqlEventsFrom[] = "SELECT eventID, backOffset FROM EVENT WHERE startDate >= %lu";
constexpr size_t kSqlRoom = 128;
constexpr char kFixLastEvent[] = "fixLastEventDb";

struct Period {
  uint32_t start;  // seconds
  uint32_t end;
};

long signedLong(uint32_t value) { return tarn::asSigned32(value); }

void logStatement(const Period& stream, const DB_EVENT& event, const char* sql) {
  syslog(LOG_ERR, tarn::kMsgLastEventStatement, signedLong(stream.start), signedLong(stream.end),
         signedLong(event.startDate), sql);
}

int selectFailed() {
  syslog(LOG_ERR, tarn::kMsgLastEventSelect, kFixLastEvent);
  return -1;
}

int deleteLastEvent(CDbRestore* restore, CApiDb* database, const Period& stream,
                    const DB_EVENT& event) {
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlDeleteEvent, static_cast<unsigned long>(event.eventID));
  logStatement(stream, event, sql);
  if (!tarn::executed(database, sql)) {
    syslog(LOG_ERR, tarn::kMsgLastEventAccess);
    return -1;
  }
  restore->deleteDBLogNative(tarn::kEventJournalChunk, event.backOffset);
  return 0;
}

// The end's milliseconds stay as they are.
int closeLastEvent(CDbRestore* restore, CApiDb* database, const Period& stream, DB_EVENT event) {
  event.endDate = stream.end;
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlCloseEvent, static_cast<unsigned long>(event.endDate),
           static_cast<unsigned long>(event.eventID));
  logStatement(stream, event, sql);
  if (!tarn::executed(database, sql)) {
    syslog(LOG_ERR, tarn::kMsgLastEventUpdate, kFixLastEvent,
           static_cast<unsigned long>(event.eventID));
    return -1;
  }
  restore->updateEventDBLogNative(&event);
  return 0;
}

}  // namespace

int CDbRestore::fixLastEventDb() {
  CApiDb database;
  if (!tarn::selected(&database, kSqlLastEvent)) return selectFailed();
  if (database.getNTuple() == 0) return 0;
  DB_EVENT event{};
  if (database.getEventValue(0, &event) != 0) return selectFailed();
  if (event.endDate != 0) return 0;
  if (!tarn::selected(&database, kSqlNewestStream)) return selectFailed();
  if (database.getNTuple() != 1) return 0;
  const Period stream = {database.getValue(0, 0), database.getValue(0, 1)};
  return event.startDate >= stream.end ? deleteLastEvent(this, &database, stream, event)
                                       : closeLastEvent(this, &database, stream, event);
}

int CDbRestore::cleanupEventDb(unsigned long startDate) {
  CApiDb events;
  char sql[kSqlRoom];
  snprintf(sql, sizeof sql, kSqlEventsFrom, static_cast<unsigned long>(tarn::low32(startDate)));
  if (!tarn::selected(&events, sql)) {
    syslog(LOG_ERR, tarn::kMsgLastEventAccess);
    return -1;
  }
  const auto rows = static_cast<long>(events.getNTuple());
  for (long row = 0; row < rows; ++row) {
    snprintf(sql, sizeof sql, kSqlDeleteEvent, static_cast<unsigned long>(events.getValue(row, 0)));
    if (!tarn::executed(&events, sql)) syslog(LOG_ERR, tarn::kMsgLastEventAccess);
    // Whatever became of the row: the next rebuild must not bring the event back.
    deleteDBLogNative(tarn::kEventJournalChunk, events.getValue(row, 1));
  }
  return 0;
}
