#include "recorder/recording/KeptRow.h"

#include <algorithm>
#include <cstdio>
#include <set>

#include "db/CApiDb.h"

namespace tarn {
namespace {

constexpr char kSqlOriginal[] = "SELECT COUNT(*) FROM STREAM WHERE streamID = %u";

bool isListed(CApiDb* db, uint32_t streamID, bool* listed) {
  char sql[sizeof kSqlOriginal + 16];
  snprintf(sql, sizeof sql, kSqlOriginal, streamID);
  db->setSql(sql);
  if (!db->lastStatementDone() || db->getNTuple() != 1) return false;
  *listed = db->getValue(0, 0) != 0;
  return true;
}

}  // namespace

// One that was listed a moment ago shows its pictures even when it has gone since: whoever reads
// it is told so, and nobody is shown them twice.
bool leaveOutCopies(CApiDb* db, std::vector<DB_STREAM>* rows) {
  std::set<uint32_t> shown;
  for (const DB_STREAM& row : *rows) {
    if (!isKept(row)) shown.insert(row.streamID);
  }
  std::vector<DB_STREAM> left;
  for (const DB_STREAM& row : *rows) {
    bool listed = false;
    if (isKept(row)) {
      if (!isWholeCopy(row) || shown.count(originalKey(row)) != 0) continue;
      if (!isListed(db, originalKey(row), &listed)) return false;
    }
    if (!listed) left.push_back(row);
  }
  rows->swap(left);
  return true;
}

EventPeriod periodOf(const DB_EVENT& event) {
  constexpr PictureTime kForEver = {0xFFFFFFFF, 999999};
  const uint32_t before = std::min<uint32_t>(event.preSec, event.startDate);
  const PictureTime end = {event.endDate, event.endMSec * 1000u + 999u};
  return {{event.startDate - before, event.startMSec * 1000u}, event.endDate != 0 ? end : kForEver};
}

// A repaired row tells its end in whole seconds only.
bool showsAnyOf(const DB_STREAM& row, PictureTime from, PictureTime to) {
  const PictureTime start = {row.startDate, row.startMSec * 1000u};
  const uint32_t endMicros = row.endMSec == 0 ? 999999 : row.endMSec * 1000u + 999u;
  const PictureTime end = {row.endDate, endMicros};
  return !(to < start) && (row.recSize == 0 || !(end < from));
}

}  // namespace tarn
