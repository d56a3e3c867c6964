// The half of the gateway that asks. A failed statement gives an empty result, so "no such row" and
// "database trouble" get the same answer; the branches for a failing setSql are never taken.
// Kept on purpose: pieces are joined as they stand, with two blanks where both bring one; the
// statements are matched by log readers.
#include <sqlite3.h>
#include <syslog.h>

#include <cstdlib>

#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "db/DbMessages.h"
#include "db/DbRecordFormat.h"
#include "db/EventListFilter.h"
#include "db/SelectPieces.h"
#include "db/SqlText.h"
#include "db/ViewerFilter.h"

namespace {

using tarn::EventListFilter;
using tarn::kSqlFirstEvent;
using tarn::kSqlFromEvent;
using tarn::kSqlFromStream;
using tarn::kSqlLastEvent;
using tarn::kSqlStartsFrom;
using tarn::kSqlWhere;
using tarn::low32;
using tarn::SqlText;
using tarn::ViewerFilter;

constexpr uint32_t kFailed = 0xFFFFFFFF;
constexpr uint32_t kFirstEvent = 0;
constexpr uint32_t kLastEvent = 0xFFFFFFFF;
constexpr uint32_t kMaxTriggers = 16;

// Single rows.
constexpr char kSqlWhereEvent[] = " WHERE eventID = ";
constexpr char kSqlWhereStream[] = "WHERE streamID = ";
constexpr char kSqlStartedBy[] = " WHERE startDate <= ";
constexpr char kSqlLatestStart[] = " ORDER BY StartDate DESC, streamID DESC LIMIT 1";
constexpr char kSqlNextStart[] = " < startDate ORDER BY startDate ASC LIMIT 1";
constexpr char kSqlFirstStream[] = " ORDER BY streamID ASC LIMIT 1";
constexpr char kSqlEarliestStart[] = " ORDER BY startDate ASC LIMIT 1";

// Streams of a period.
constexpr char kSqlCountStreams[] = "SELECT COUNT(*) FROM STREAM ";
constexpr char kSqlRunningAt[] = "WHERE ( ( startDate <= ";
constexpr char kSqlRunningOpen[] = " AND ( ";
constexpr char kSqlRunningEnd[] = " <= endDate OR endDate = 0 ) )";
constexpr char kSqlOrStarting[] = " OR ( ";
constexpr char kSqlPeriodEnd[] = " ) )";
constexpr char kSqlAndInTrg[] = " AND ( ";
constexpr char kSqlInTrg[] = "inTrg = ";
constexpr char kSqlInTrgEnd[] = " )";
constexpr char kSqlByStreamKey[] = " ORDER BY streamID ASC LIMIT ";
constexpr char kSqlOffset[] = " OFFSET ";

long shown(uint32_t result) { return tarn::asSigned32(result); }

// Streams in progress at startTime, open ones included, or starting within the period.
void addStreamPeriod(SqlText& sql, uint32_t startTime, uint32_t endTime, uint32_t inTrg) {
  sql.add(kSqlRunningAt).add(startTime).add(kSqlRunningOpen).add(startTime).add(kSqlRunningEnd);
  sql.add(kSqlOrStarting).add(startTime).add(kSqlStartsFrom).add(endTime).add(kSqlPeriodEnd);
  if (inTrg != 0) sql.add(kSqlAndInTrg).add(kSqlInTrg).add(inTrg).add(kSqlInTrgEnd);
}

}  // namespace

uint32_t CApiDb::getEventValue(long row, DB_EVENT* out) {
  if (m_ncol != tarn::kEventColumns) {
    syslog(LOG_ERR, tarn::kMsgEventColumns, long{m_ncol});
    return kFailed;
  }
  out->eventID = getValue(row, 0);
  out->extTrg = static_cast<uint16_t>(getValue(row, 1));
  out->preSec = static_cast<uint16_t>(getValue(row, 2));
  out->startDate = getValue(row, 3);
  out->endDate = getValue(row, 4);
  out->startMSec = static_cast<uint16_t>(getValue(row, 5));
  out->endMSec = static_cast<uint16_t>(getValue(row, 6));
  out->backOffset = getValue(row, 7);
  return 0;
}

uint32_t CApiDb::getStreamValue(long row, DB_STREAM* out) {
  if (m_ncol != tarn::kStreamColumns) {
    syslog(LOG_ERR, tarn::kMsgStreamColumns, long{m_ncol});
    return kFailed;
  }
  out->streamID = getValue(row, 0);
  out->inTrg = static_cast<uint16_t>(getValue(row, 1));
  out->frameSet = static_cast<uint16_t>(getValue(row, 2));
  out->bitrateSet = getValue(row, 3);
  out->recSize = getValue(row, 4);
  out->chunkID = getValue(row, 5);
  out->chunkOffset = getValue(row, 6);
  out->chunkSize = getValue(row, 7);
  out->status = getValue(row, 8);
  out->startDate = getValue(row, 9);
  out->endDate = getValue(row, 10);
  out->startMSec = static_cast<uint16_t>(getValue(row, 11));
  out->endMSec = static_cast<uint16_t>(getValue(row, 12));
  out->backOffset = getValue(row, 13);
  return 0;
}

bool CApiDb::oneEvent(DB_EVENT* out) { return m_ntuple == 1 && getEventValue(0, out) == 0; }

bool CApiDb::oneStream(DB_STREAM* out) { return m_ntuple == 1 && getStreamValue(0, out) == 0; }

uint32_t CApiDb::selectEvent(unsigned long id, DB_EVENT* out) {
  const uint32_t key = low32(id);
  SqlText sql(kSqlFromEvent);
  if (key == kFirstEvent) {
    sql.add(kSqlFirstEvent);
  } else if (key == kLastEvent) {
    sql.add(kSqlLastEvent);
  } else {
    sql.add(kSqlWhereEvent).add(key);
  }
  if (const uint32_t result = setSql(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgSelectEventError, shown(result));
    return 0;
  }
  return oneEvent(out) ? 1 : 0;
}

uint32_t CApiDb::selectStream(unsigned long id, DB_STREAM* out) {
  SqlText sql(kSqlFromStream);
  sql.add(kSqlWhereStream).add(low32(id));
  if (const uint32_t result = setSql(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgSelectStreamError, shown(result));
    return 0;
  }
  return oneStream(out) ? 1 : 0;
}

uint32_t CApiDb::selectStreamTime(unsigned long time, DB_STREAM* out) {
  const uint32_t moment = low32(time);
  SqlText sql(kSqlFromStream);
  sql.add(kSqlStartedBy).add(moment).add(kSqlLatestStart);
  if (const uint32_t result = setSql(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgSelectStreamTimeError, shown(result));
    return 0;
  }
  if (m_ntuple == 1) {
    if (!oneStream(out)) return 0;
    if (out->endDate >= moment || out->endDate == 0) return 1;
  }
  return selectStreamTimeNext(moment, out) == 1 ? 2 : 0;
}

uint32_t CApiDb::selectStreamTimeNext(unsigned long time, DB_STREAM* out) {
  SqlText sql(kSqlFromStream);
  sql.add(kSqlWhere).add(low32(time)).add(kSqlNextStart);
  if (const uint32_t result = setSql(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgSelectStreamTimeError, shown(result));
    return 0;
  }
  return oneStream(out) ? 1 : 0;
}

uint32_t CApiDb::selectStreamOldest(DB_STREAM* out) {
  SqlText sql(kSqlFromStream);
  sql.add(kSqlFirstStream);
  if (const uint32_t result = setSql(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgSelectStreamOldestError, shown(result));
    return kFailed;
  }
  return oneStream(out) ? 1 : 0;
}

uint32_t CApiDb::selectStreamOldestTime(DB_STREAM* out) {
  SqlText sql(kSqlFromStream);
  sql.add(kSqlEarliestStart);
  if (const uint32_t result = setSql(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgSelectStreamOldestTimeError, shown(result));
    return 0;
  }
  return oneStream(out) ? 1 : 0;
}

uint32_t CApiDb::selectEventList(unsigned long count, unsigned long startTime,
                                 unsigned long endTime, unsigned long fromID, unsigned short extTrg,
                                 unsigned char descending, DB_EVENT* out) {
  const EventListFilter filter = {low32(startTime), low32(endTime), extTrg, descending != 0};
  const uint32_t wanted = low32(count);
  uint32_t cursor = low32(fromID);
  for (uint32_t found = 0;;) {
    const SqlText sql = filter.statement(cursor, found == 0);
    if (const uint32_t result = setSql(sql.c_str()); result != 0) {
      syslog(LOG_ERR, tarn::kMsgSelectEventListError, shown(result));
      return found;
    }
    DB_EVENT event;
    if (getEventValue(0, &event) != 0) return found;
    // A key that 32 bits cannot hold comes back cut; the list ends rather than run in circles.
    const bool stuck = filter.descending ? event.eventID >= cursor : event.eventID <= cursor;
    if (found > 0 && stuck) return found;
    out[found] = event;
    cursor = event.eventID;
    if (++found == wanted) return found;
  }
}

uint32_t CApiDb::selectViewerList(DB_EVENT* out, unsigned long limit,
                                  const unsigned short* extTrgList, unsigned long extTrgCount,
                                  unsigned long startTime, unsigned long endTime,
                                  unsigned long afterID, unsigned long beforeID,
                                  unsigned char descending) {
  const uint32_t wanted = low32(limit);
  const uint32_t start = low32(startTime), end = low32(endTime), triggers = low32(extTrgCount);
  // Kept on purpose: a trigger list that is too long filters nothing.
  const ViewerFilter filter = {start < end ? start : end,
                               start < end ? end : start,
                               low32(afterID),
                               low32(beforeID),
                               extTrgList,
                               triggers > kMaxTriggers ? 0 : triggers};
  const SqlText sql = wanted == 0 ? filter.countSql() : filter.pageSql(descending != 0, wanted);
  if (const uint32_t result = setSql(sql.c_str()); result != 0) {
    // Kept on purpose: at the priority of the SQL trace, not of an error.
    syslog(LOG_LOCAL6 | LOG_INFO, tarn::kMsgSelectViewerListError, shown(result), sql.c_str());
    return 0;
  }
  if (m_ntuple <= 0) return 0;
  if (wanted == 0) return getValue(0, 0);
  uint32_t found = 0;
  while (found < wanted && found < getNTuple() &&
         getEventValue(static_cast<long>(found), out + found) == 0)
    ++found;
  return found;
}

int CApiDb::m_CountCallback(void* arg, int ncol, char** values, char** /*names*/) {
  if (ncol > 0 && values[0] != nullptr) {
    *static_cast<uint32_t*>(arg) = static_cast<uint32_t>(atoi(values[0]));
  }
  return 0;
}

uint32_t CApiDb::selectCount(unsigned long startTime, unsigned long endTime, unsigned long inTrg) {
  SqlText sql(kSqlCountStreams);
  addStreamPeriod(sql, low32(startTime), low32(endTime), low32(inTrg));
  return execCount(sql.c_str());
}

int32_t CApiDb::selectRipList(DB_STREAM* out, unsigned long limit, unsigned long offset,
                              unsigned long startTime, unsigned long endTime, unsigned long inTrg) {
  const uint32_t wanted = low32(limit), skipped = low32(offset);
  SqlText sql(kSqlFromStream);
  addStreamPeriod(sql, low32(startTime), low32(endTime), low32(inTrg));
  sql.add(kSqlByStreamKey).add(wanted);
  if (skipped != 0) sql.add(kSqlOffset).add(skipped);
  if (const uint32_t result = setSql(sql.c_str()); result != 0) {
    syslog(LOG_ERR, tarn::kMsgSelectRipListError, shown(result));
    return 0;
  }
  uint32_t found = 0;
  while (found < wanted && found < getNTuple() &&
         getStreamValue(static_cast<long>(found), out + found) == 0)
    ++found;
  return static_cast<int32_t>(found);
}
