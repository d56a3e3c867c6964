#include "recorder/rows/JournalGuard.h"

#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/Omission.h"
#include "base/Wrap.h"
#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "dblog/JournalFormat.h"
#include "recorder/card/Source.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/JournalCopies.h"
#include "recorder/rows/JournalMessages.h"
#include "recorder/rows/JournaledRows.h"

namespace tarn {
namespace {

// The row at a place (several only after failed inserts: then the newest), and the first and last
// keys of its table.
constexpr char kSqlEventAt[] =
    "SELECT eventID, (SELECT MIN(eventID) FROM EVENT), (SELECT MAX(eventID) FROM EVENT) "
    "FROM EVENT WHERE backOffset = %u ORDER BY eventID DESC LIMIT 1";
// The oldest one is that of a camera: kept copies stay where they are.
constexpr char kSqlStreamAt[] =
    "SELECT streamID, (SELECT COALESCE(MIN(streamID), 0) FROM STREAM WHERE " TARN_SQL_NOT_KEPT
    "), (SELECT MAX(streamID) FROM STREAM), " TARN_SQL_KEPT
    " FROM STREAM WHERE backOffset = %u ORDER BY streamID DESC LIMIT 1";
constexpr char kSqlNewestEvent[] = "SELECT * FROM EVENT ORDER BY eventID DESC LIMIT 1";
constexpr char kSqlNewestStream[] = "SELECT * FROM STREAM ORDER BY streamID DESC LIMIT 1";
constexpr char kSqlStreamOfKey[] = "SELECT * FROM STREAM WHERE streamID = %u";
constexpr char kSqlEventCounter[] =
    "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = 'EVENT'), 0)";
constexpr char kSqlStreamCounter[] =
    "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = 'STREAM'), 0)";
constexpr size_t kSqlRoom = 320;

uint32_t nextOffset(JournalKind kind) {
  CDbLog* log = CDbLog::getInstance();
  return low32(kind == JournalKind::kEvent ? log->getEventLogBackOffset()
                                           : log->getStreamLogBackOffset());
}

// A journal's copy, through the handles that the records are written with.
class OpenJournal : public Source {
 public:
  OpenJournal(JournalKind kind, bool mirror, uint32_t bytes) : kind_(kind), mirror_(mirror) {
    size_ = bytes;
    const int chunk = journalTraits(kind).chunk + (mirror ? kJournalMirrorStep : 0);
    name_ = "chunk " + std::to_string(chunk);
  }

 protected:
  bool readPiece(uint32_t offset, void* out, uint32_t length) override {
    return CDbLog::getInstance()->readCopy(kind_, mirror_, offset, out, static_cast<long>(length));
  }

 private:
  const JournalKind kind_;
  const bool mirror_;
};

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
  const uint32_t offset = nextOffset(kind);
  if (kind == JournalKind::kEvent) {
    snprintf(sql, sizeof sql, kSqlEventAt, offset);
  } else {
    snprintf(sql, sizeof sql, kSqlStreamAt, offset);
  }
  if (!queries_.run(sql)) return place;
  if (db_->getNTuple() == 0) {
    place.verdict = lookAtCard(kind, offset);
    return place;
  }
  place.key = db_->getValue(0, 0);
  place.oldest = place.key == db_->getValue(0, 1);
  // The newest row's record is never where the next one goes, so an only row means a stale offset
  // as well.
  const bool newest = place.key == db_->getValue(0, 2);
  place.kept = kind == JournalKind::kStream && !newest && db_->getValue(0, 3) != 0;
  place.verdict = place.oldest && !newest ? Verdict::kOldestRow : Verdict::kStale;
  return place;
}

// The database lists nobody there. A live record of a key that it has given is of a row that is
// gone, or of an insert that was taken back. One of a key behind its counter it cannot know: then
// its file is older than the card, and what it does not list is not free.
JournalGuard::Verdict JournalGuard::lookAtCard(JournalKind kind, uint32_t offset) {
  const uint32_t bytes = low32(CDbLog::getInstance()->getJournalChunkSize());
  if (bytes == 0) return Verdict::kFailed;
  OpenJournal original(kind, false, bytes);
  OpenJournal mirror(kind, true, bytes);
  JournalCopies copies(kind, &original, &mirror, JournalCopies::kSectorBytes);
  const JournalCopy copy = copies.at(offset);
  if (copy == JournalCopy::kRefused && !copies.endsBesideRefused()) {
    syslog(LOG_ERR, kMsgNextPlaceRefused, copies.refusedText().c_str());
    return Verdict::kFailed;
  }
  const JournalTraits& traits = journalTraits(kind);
  if ((copy != JournalCopy::kOriginal && copy != JournalCopy::kMirror) ||
      journalMarker(copies.record()) != traits.liveMarker ||
      !journalRecordInPlace(traits, copies.record(), offset)) {
    return Verdict::kFree;
  }
  uint32_t given = 0;
  const char* sql = kind == JournalKind::kEvent ? kSqlEventCounter : kSqlStreamCounter;
  if (!queries_.number(sql, &given)) return Verdict::kFailed;
  const uint32_t key = journalKey(copies.record());
  if (key <= given) return Verdict::kFree;
  syslog(LOG_ERR, kMsgRecordOfLostRow, journalName(kind), key);
  return Verdict::kFailed;
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

bool JournalGuard::makeFree(JournalKind kind,
                            const std::function<bool(uint32_t key)>& deleteOldest) {
  return mayInsert() && lookAndMakeFree(kind, deleteOldest);
}

// Ends, because every round but the one of the correction takes a row away or passes one over.
bool JournalGuard::lookAndMakeFree(JournalKind kind,
                                   const std::function<bool(uint32_t key)>& deleteOldest) {
  if (omitted("journal-look-up")) return true;
  bool corrected = false;
  uint32_t passed = 0;
  for (;;) {
    const Place place = look(kind);
    if (place.verdict == Verdict::kFree) return true;
    if (place.verdict == Verdict::kFailed) return false;
    if (place.kept) {
      if (!passOver(kind, &passed)) return false;
      continue;
    }
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
    syslog(LOG_ERR, kMsgJournalOutOfOrder, journalName(kind), place.key);
    if (!deleteRow(kind, place.key)) return false;
  }
}

// The record of a kept copy stays where it is, among newer ones, as long as there is another place.
bool JournalGuard::passOver(JournalKind kind, uint32_t* passed) {
  const JournalTraits& traits = journalTraits(kind);
  CDbLog* log = CDbLog::getInstance();
  const uint32_t chunkSize = low32(log->getJournalChunkSize());
  if (++*passed >= chunkSize / traits.recordSize) {
    syslog(LOG_ERR, "%s", kMsgJournalFullOfCopies);
    return false;
  }
  return log->correctFreeOffset(kind, nextJournalPlace(traits, nextOffset(kind), chunkSize)) == 0;
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
  syslog(LOG_WARNING, kMsgJournalStale, present, journalName(kind), next);
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
