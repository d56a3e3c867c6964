#include "recorder/session/RecordingSpace.h"

#include <syslog.h>

#include <cinttypes>
#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>

#include "base/Omission.h"
#include "chunk/ChunkArea.h"
#include "db/RowStatus.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNStreamManager.h"
#include "manager/ManageFormat.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/ServerFailure.h"

namespace tarn {
namespace {

constexpr int kEventPage = 16;
// Running or long events that are passed over before the search for ended ones stops.
constexpr int kEventsPassedOver = 64;

// Kept copies are not the ring's to take.
constexpr char kSqlOldestOutside[] = "SELECT * FROM STREAM WHERE " TARN_SQL_NOT_KEPT
                                     " AND chunkID NOT IN (%s) ORDER BY streamID ASC LIMIT 1";
constexpr char kSqlOldestInChunk[] =
    "SELECT * FROM STREAM WHERE chunkID = %d ORDER BY streamID ASC LIMIT 1";
constexpr char kSqlNewestInChunk[] =
    "SELECT * FROM STREAM WHERE chunkID = %d ORDER BY streamID DESC LIMIT 1";
constexpr char kSqlOldestByTime[] =
    "SELECT * FROM STREAM WHERE " TARN_SQL_NOT_KEPT " AND ( frameSet & " TARN_SQL_AUDIO
    " ) = 0 ORDER BY startDate ASC LIMIT 1";
constexpr char kSqlKept[] = "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT_WHOLE;
constexpr char kSqlAnyInChunk[] = "SELECT EXISTS(SELECT 1 FROM STREAM WHERE chunkID = %d)";
constexpr char kSqlEventsAfter[] =
    "SELECT * FROM EVENT WHERE eventID > %" PRIu32 " ORDER BY eventID ASC LIMIT %d";

bool isShown(const DB_EVENT& event, const std::vector<DB_STREAM>& rows) {
  const EventPeriod period = periodOf(event);
  return std::any_of(rows.begin(), rows.end(),
                     [&](const DB_STREAM& row) { return showsAnyOf(row, period.from, period.to); });
}

// Refused also of a chunk that cannot be opened.
Delivery headerOf(const DB_STREAM& row) {
  StreamHeader header;
  return RecordingIndex(row).header(&header);
}

}  // namespace

bool RecordingSpace::fail(RecordingError error, const char* text) {
  error_ = error;
  text_ = text;
  return false;
}

bool RecordingSpace::failServer() {
  const ServerFailure failure = serverFailure(*manager_);
  return fail(failure.error, failure.text);
}

RowQueries::Answer RecordingSpace::selectOne(const char* sql, DB_STREAM* row) {
  const RowQueries::Answer answer = queries_.stream(sql, row);
  if (answer == RowQueries::Answer::kFailed) {
    fail(RecordingError::kDatabase, queries_.failure());
  }
  return answer;
}

RowQueries::Answer RecordingSpace::oldestInChunk(int chunk, DB_STREAM* row) {
  char sql[sizeof kSqlOldestInChunk + 16];
  snprintf(sql, sizeof sql, kSqlOldestInChunk, chunk);
  return selectOne(sql, row);
}

RowQueries::Answer RecordingSpace::newestInChunk(int chunk, DB_STREAM* row) {
  char sql[sizeof kSqlNewestInChunk + 16];
  snprintf(sql, sizeof sql, kSqlNewestInChunk, chunk);
  return selectOne(sql, row);
}

// Always one row when the statement works: a chunk must not be emptied because a look-up failed.
bool RecordingSpace::chunkHasRows(int chunk, bool* any) {
  char sql[sizeof kSqlAnyInChunk + 16];
  snprintf(sql, sizeof sql, kSqlAnyInChunk, chunk);
  uint32_t count = 0;
  if (!queries_.number(sql, &count)) return fail(RecordingError::kDatabase, queries_.failure());
  *any = count != 0;
  // That there are none is believed of a database that still knows of the newest recording.
  return *any || queries_.countsBehind(greatestKey_) ||
         fail(RecordingError::kDatabase, queries_.failure());
}

// What start-up recovery guards is not given up for new recordings, nor is what the server does not
// tell about.
bool RecordingSpace::isGuardedChunk(int chunk) {
  if (chunk >= manager_->getNumChunk()) return false;
  signed char owner = kChannelUnused;
  signed char type = 0;
  const bool known = retryFor(
      kServerPatienceMs, [&] { return manager_->getChType(asChunk(chunk), &owner, &type) == 0; });
  return !known || isGuarded(owner);
}

// The oldest row of the chunks that nobody is writing to. Few chunks are, one a session, and rows
// of a session are the newest of their chunk.
RowQueries::Answer RecordingSpace::oldestDeletable(DB_STREAM* row) {
  std::string busy = "-1";
  for (;;) {
    char sql[4096];
    const int length = snprintf(sql, sizeof sql, kSqlOldestOutside, busy.c_str());
    if (length < 0 || static_cast<size_t>(length) >= sizeof sql) return RowQueries::Answer::kNone;
    const RowQueries::Answer answer = selectOne(sql, row);
    if (answer != RowQueries::Answer::kRow) return answer;
    DB_STREAM newest = {};
    const int chunk = static_cast<int>(row->chunkID);
    const RowQueries::Answer other = newestInChunk(chunk, &newest);
    if (other == RowQueries::Answer::kFailed) return other;
    const bool written = other == RowQueries::Answer::kRow && rowInProgress(newest);
    if (!written && !isGuardedChunk(chunk)) return answer;
    busy += "," + std::to_string(row->chunkID);
  }
}

bool RecordingSpace::removed(JournaledRows::Outcome outcome) {
  if (outcome == JournaledRows::Outcome::kDone) return true;
  return fail(outcome == JournaledRows::Outcome::kJournal ? RecordingError::kJournal
                                                          : RecordingError::kDatabase,
              rows_.failure());
}

bool RecordingSpace::deleteRow(uint32_t streamID) { return removed(rows_.removeStream(streamID)); }

bool RecordingSpace::deleteEvent(uint32_t eventID) {
  if (!removed(rows_.removeEvent(eventID))) return false;
  ++statistics_->eventsDeleted;
  return true;
}

// Events that ended before the oldest video that is left have nothing to show any more, whatever
// there is of its sound, but for those of which a copy is kept. They are walked from the oldest
// until one begins after it.
bool RecordingSpace::deleteEventsBefore(uint32_t now) {
  DB_STREAM oldest = {};
  const RowQueries::Answer answer = selectOne(kSqlOldestByTime, &oldest);
  if (answer == RowQueries::Answer::kFailed) return false;
  // Without a recording all that ended goes: not because the recordings were lost.
  if (answer == RowQueries::Answer::kNone && !queries_.countsBehind(greatestKey_)) {
    return fail(RecordingError::kDatabase, queries_.failure());
  }
  const uint32_t limit = answer == RowQueries::Answer::kRow ? oldest.startDate : now;
  std::vector<DB_STREAM> kept;
  if (!queries_.streams(kSqlKept, &kept)) {
    return fail(RecordingError::kDatabase, queries_.failure());
  }
  uint32_t last = 0;
  int passedOver = 0;
  for (;;) {
    char sql[sizeof kSqlEventsAfter + 32];
    snprintf(sql, sizeof sql, kSqlEventsAfter, last, kEventPage);
    DB_EVENT page[kEventPage];
    int count = 0;
    if (!queries_.events(sql, page, kEventPage, &count)) {
      return fail(RecordingError::kDatabase, queries_.failure());
    }
    for (int i = 0; i < count; ++i) {
      if (page[i].startDate >= limit) return true;
      const bool over = page[i].endDate != 0 && page[i].endDate < limit;
      if (over && !isShown(page[i], kept) && !deleteEvent(page[i].eventID)) return false;
      if (!over && ++passedOver > kEventsPassedOver) return true;
      last = page[i].eventID;
    }
    if (count < kEventPage) return true;
  }
}

// Its space is given free as far as nothing older lies in front of it in the chunk; the rest with
// that.
bool RecordingSpace::deleteCopy(const DB_STREAM& row, uint32_t now) {
  if (!deleteRow(row.streamID)) return false;
  if (!deleteEventsBefore(now)) return false;
  if (row.chunkID >= manager_->getNumChunk()) return true;
  const int chunk = static_cast<int>(row.chunkID);
  bool anyLeft = true;
  if (!moveUseToOldest(chunk) || !chunkHasRows(chunk, &anyLeft)) return false;
  if (!anyLeft && !giveBack(chunk)) return false;
  return save();
}

// A card that gives nothing of the chunk makes no room, however many of its recordings went: one
// after the other would be deleted. A bad sector under one header refuses that one only; it goes in
// its turn, and what lies behind it tells where the data in use begin.
bool RecordingSpace::readHeader(const DB_STREAM& row, Delivery* header) {
  *header = headerOf(row);
  if (*header != Delivery::kRefused) return true;
  DB_STREAM newest = {};
  const RowQueries::Answer answer = newestInChunk(static_cast<int>(row.chunkID), &newest);
  if (answer == RowQueries::Answer::kFailed) return false;
  const bool refused = !RecordingIndex(row).isOpen() ||
                       (newest.streamID != row.streamID && headerOf(newest) == Delivery::kRefused);
  return !refused || fail(RecordingError::kCard, kErrOpenChunk);
}

// What the order of deleteRecording() is there for.
void RecordingSpace::releaseTooEarly(const DB_STREAM& row, Delivery header) {
  if (omitted("row-before-space")) static_cast<void>(releaseSpace(row, header) && save());
}

bool RecordingSpace::deleteRecording(const DB_STREAM& row, uint32_t now, int keepChunk) {
  Delivery header = Delivery::kBad;
  if (!readHeader(row, &header)) return false;
  releaseTooEarly(row, header);
  if (!deleteRow(row.streamID)) return false;
  ++statistics_->recordingsDeleted;
  if (!deleteEventsBefore(now)) return false;
  // A chunk number that this card does not have is nobody's space.
  if (row.chunkID >= manager_->getNumChunk()) return true;
  if (!releaseSpace(row, header)) return false;
  const int chunk = static_cast<int>(row.chunkID);
  bool anyLeft = true;
  if (chunk != keepChunk && !chunkHasRows(chunk, &anyLeft)) return false;
  if (!anyLeft && !giveBack(chunk)) return false;
  return save();
}

bool RecordingSpace::releaseSpace(const DB_STREAM& row, Delivery header) {
  const int chunk = static_cast<int>(row.chunkID);
  const bool whole = row.chunkSize != 0 && header == Delivery::kGood;
  if (whole && manager_->deleteData(asChunk(chunk), row.chunkOffset, row.chunkSize) >= 0)
    return true;
  syslog(LOG_WARNING, kMsgSpaceNoHeader, row.streamID, chunk);
  return moveUseToOldest(chunk);
}

// Where the deleted recording does not tell what it covered, the oldest one behind it tells where
// the data in use begins.
bool RecordingSpace::moveUseToOldest(int chunk) {
  bool anyLeft = true;
  if (!chunkHasRows(chunk, &anyLeft)) return false;
  if (!anyLeft) {
    return retryFor(kServerPatienceMs, [&] { return emptyChunk(chunk); }) || failServer();
  }
  DB_STREAM row = {};
  const RowQueries::Answer answer = oldestInChunk(chunk, &row);
  if (answer == RowQueries::Answer::kFailed) return false;
  if (answer == RowQueries::Answer::kNone) return fail(RecordingError::kDatabase, kErrDatabase);
  StreamHeader header;
  const bool readable = RecordingIndex(row).header(&header) == Delivery::kGood;
  return retryFor(
             kServerPatienceMs,
             [&] {
               // Without its header the stream area keeps its old begin: less room, no harm.
               return manager_->setUseOffset(asChunk(chunk), row.chunkOffset, kAreaPicture) == 0 &&
                      (!readable ||
                       manager_->setUseOffset(asChunk(chunk), header.dataOffset, kAreaStream) == 0);
             }) ||
         failServer();
}

bool RecordingSpace::emptyChunk(int chunk) {
  for (const unsigned char area : {kAreaPicture, kAreaStream}) {
    if (manager_->setFreeOffset(asChunk(chunk), 0, area) != 0) return false;
    if (manager_->setUseOffset(asChunk(chunk), 0, area) != 0) return false;
  }
  return true;
}

bool RecordingSpace::giveBack(int chunk) {
  return retryFor(kServerPatienceMs,
                  [&] {
                    return emptyChunk(chunk) &&
                           manager_->setChType(asChunk(chunk), kChannelUnused, 0) == 0;
                  }) ||
         failServer();
}

bool RecordingSpace::save() {
  if (omitted("save-before-write")) return true;
  return retryFor(kServerPatienceMs, [&] { return manager_->saveManageData() == 0; }) ||
         failServer();
}

bool RecordingSpace::reclaimOrphans(int8_t channel) {
  bool found = false;
  for (int chunk = 0; chunk < manager_->getNumChunk(); ++chunk) {
    signed char owner = 0;
    signed char type = 0;
    bool any = true;
    if (manager_->getChType(asChunk(chunk), &owner, &type) != 0 || owner != channel) continue;
    if (!chunkHasRows(chunk, &any)) return false;
    if (any) continue;
    syslog(LOG_WARNING, kMsgSpaceOrphan, chunk);
    if (!giveBack(chunk)) return false;
    found = true;
  }
  return found && save();
}

// In a guarded chunk the row goes alone, because its record's place is needed. Where another
// session writes, its own idea of the addresses must stay true: there it goes alone, too, and its
// space with the next recording that is deleted from that chunk.
bool RecordingSpace::deleteForJournal(const DB_STREAM& row, uint32_t now, int keepChunk) {
  DB_STREAM newest = {};
  const int chunk = static_cast<int>(row.chunkID);
  if (chunk == keepChunk) return deleteRecording(row, now, keepChunk);
  const RowQueries::Answer answer = newestInChunk(chunk, &newest);
  if (answer == RowQueries::Answer::kFailed) return false;
  const bool written = answer == RowQueries::Answer::kRow && rowInProgress(newest);
  if (!written && !isGuardedChunk(chunk)) {
    return deleteRecording(row, now, keepChunk);
  }
  if (!deleteRow(row.streamID)) return false;
  ++statistics_->recordingsDeleted;
  return deleteEventsBefore(now);
}

}  // namespace tarn
