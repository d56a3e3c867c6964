#include "recorder/rows/JournalGuard.h"

#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/Omission.h"
#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "recorder/rows/JournalMessages.h"
#include "recorder/rows/JournaledRows.h"

namespace tarn {
namespace {

// The row at a place (several only after failed inserts: then the newest), and the first and last
// keys of its table.
constexpr char kSqlEventAt[] =
    "SELECT eventID, (SELECT MIN(eventID) FROM EVENT), (SELECT MAX(eventID) FROM EVENT) "
    "FROM EVENT WHERE backOffset = %u ORDER BY eventID DESC LIMIT 1";
constexpr char kSqlStreamAt[] =
    "SELECT streamID, (SELECT MIN(streamID) FROM STREAM), (SELECT MAX(streamID) FROM STREAM) "
    "FROM STREAM WHERE backOffset = %u ORDER BY streamID DESC LIMIT 1";
constexpr char kSqlNewestEvent[] = "SELECT * FROM EVENT ORDER BY eventID DESC LIMIT 1";
constexpr char kSqlNewestStream[] = "SELECT * FROM STREAM ORDER BY streamID DESC LIMIT 1";
constexpr char kSqlStreamOfKey[] = "SELECT * FROM STREAM WHERE streamID = %u";
constexpr size_t kSqlRoom = 256;

const char* kindName(JournalKind kind) { return kind == JournalKind::kEvent ? "event" : "stream"; }

uint32_t nextOffset(JournalKind kind) {
  CDbLog* log = CDbLog::getInstance();
  return low32(kind == JournalKind::kEvent ? log->getEventLogBackOffset()
                                           : log->getStreamLogBackOffset());
}

}  // namespace

JournalGuard::JournalGuard(CApiDb* db, const DatabaseWatch* watch)
    : db_(db), watch_(watch), queries_(db, watch) {}

bool JournalGuard::mayInsert() {
  switch (process_.enter()) {
    case FileLock::Outcome::kTaken:
      return true;
    case FileLock::Outcome::kHeldByOther:
      syslog(LOG_ERR, "%s", kMsgOtherInserts);
      return false;
    case FileLock::Outcome::kCannotOpen:
      break;
  }
  syslog(LOG_ERR, kMsgNoInsertLock, strerror(errno));
  return false;
}

JournalGuard::Place JournalGuard::look(JournalKind kind) {
  Place place;
  // Asked first, because a failed question for the offset looks like offset 0.
  if (CDbLog::getInstance()->getJournalChunkSize() == 0) return place;
  char sql[kSqlRoom];
  if (kind == JournalKind::kEvent) {
    snprintf(sql, sizeof sql, kSqlEventAt, nextOffset(kind));
  } else {
    snprintf(sql, sizeof sql, kSqlStreamAt, nextOffset(kind));
  }
  if (!queries_.run(sql)) return place;
  if (db_->getNTuple() == 0) {
    place.verdict = Verdict::kFree;
    return place;
  }
  place.key = db_->getValue(0, 0);
  place.oldest = place.key == db_->getValue(0, 1);
  // The newest row's record is never where the next one goes, so an only row means a stale offset
  // as well.
  const bool newest = place.key == db_->getValue(0, 2);
  place.verdict = place.oldest && !newest ? Verdict::kOldestRow : Verdict::kStale;
  return place;
}

JournalGuard::Verdict JournalGuard::checkEvent(unsigned long* key) {
  const Place place = look(JournalKind::kEvent);
  if (key != nullptr) *key = place.key;
  return place.verdict;
}

JournalGuard::Verdict JournalGuard::checkStream(unsigned long* key) {
  const Place place = look(JournalKind::kStream);
  if (key != nullptr) *key = place.key;
  return place.verdict;
}

// Ends, because every round but the one of the correction takes a row away.
bool JournalGuard::makeFree(JournalKind kind,
                            const std::function<bool(uint32_t key)>& deleteOldest) {
  if (!mayInsert()) return false;
  if (omitted(Omit::kJournalLookUp)) return true;
  bool corrected = false;
  for (;;) {
    const Place place = look(kind);
    if (place.verdict == Verdict::kFree) return true;
    if (place.verdict == Verdict::kFailed) return false;
    if (place.verdict == Verdict::kStale && !corrected) {
      if (!correctOne(kind)) return false;
      corrected = true;
      continue;
    }
    // A journal with room for one record comes round to its only row.
    if (place.oldest) {
      if (!deleteOldest(place.key)) return false;
      continue;
    }
    syslog(LOG_ERR, kMsgJournalOutOfOrder, kindName(kind), place.key);
    if (!deleteRow(kind, place.key)) return false;
  }
}

bool JournalGuard::beforeEventInsert() {
  return makeFree(JournalKind::kEvent,
                  [this](uint32_t key) { return deleteRow(JournalKind::kEvent, key); });
}

bool JournalGuard::beforeStreamInsert() {
  return makeFree(JournalKind::kStream,
                  [this](uint32_t key) { return deleteRow(JournalKind::kStream, key); });
}

bool JournalGuard::beforeStreamInsert(const DeleteOldest& deleteOldest) {
  return makeFree(JournalKind::kStream, [this, &deleteOldest](uint32_t key) {
    DB_STREAM row = {};
    char sql[kSqlRoom];
    snprintf(sql, sizeof sql, kSqlStreamOfKey, key);
    if (queries_.stream(sql, &row) != RowQueries::Answer::kRow || !deleteOldest(row)) return false;
    // Still listed: not deleted, whatever it said.
    return queries_.stream(sql, &row) == RowQueries::Answer::kNone;
  });
}

bool JournalGuard::deleteRow(JournalKind kind, uint32_t key) {
  JournaledRows rows(db_, watch_);
  const JournaledRows::Outcome outcome =
      kind == JournalKind::kEvent ? rows.removeEvent(key) : rows.removeStream(key);
  return outcome == JournaledRows::Outcome::kDone;
}

bool JournalGuard::correctOne(JournalKind kind) {
  const JournalTraits& traits = journalTraits(kind);
  DB_EVENT event = {};
  DB_STREAM stream = {};
  const RowQueries::Answer answer = kind == JournalKind::kEvent
                                        ? queries_.event(kSqlNewestEvent, &event)
                                        : queries_.stream(kSqlNewestStream, &stream);
  if (answer != RowQueries::Answer::kRow) return answer == RowQueries::Answer::kNone;
  CDbLog* log = CDbLog::getInstance();
  const uint32_t newest = kind == JournalKind::kEvent ? event.backOffset : stream.backOffset;
  const uint32_t chunkSize = low32(log->getJournalChunkSize());
  if (!isJournalPlace(traits, newest, chunkSize)) return false;
  const uint32_t next = nextJournalPlace(traits, newest, chunkSize);
  const uint32_t present = nextOffset(kind);
  if (next == present) return true;
  syslog(LOG_WARNING, kMsgJournalStale, present, kindName(kind), next);
  if (newest != present) return log->correctFreeOffset(kind, next) == 0;
  // The record at this place may never have been written. Passing over it would leave a gap in the
  // journal, where a rebuild ends.
  const bool taken =
      kind == JournalKind::kEvent ? log->insertEvent(&event) : log->insertStream(&stream);
  return taken && CDbLog::lastChangeOnCard();
}

int JournalGuard::correct() {
  if (CDbLog::getInstance()->getJournalChunkSize() == 0) return -1;
  const bool events = correctOne(JournalKind::kEvent);
  const bool streams = correctOne(JournalKind::kStream);
  return events && streams ? 0 : -1;
}

}  // namespace tarn
