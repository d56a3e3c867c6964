#include "recorder/session/SessionEvents.h"

#include <algorithm>
#include <cstdio>

#include "db/CApiDb.h"
#include "recorder/rows/JournalGuard.h"
#include "recorder/rows/JournalPlace.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/EventKeeper.h"
#include "recorder/session/RecordingMessages.h"

namespace tarn {
namespace {

constexpr char kSqlEventOfKey[] = "SELECT * FROM EVENT WHERE eventID = %u";
constexpr DB_EVENT_REG_BIT kEventEnd = kEventRegEndDate | kEventRegEndMSec;

}  // namespace

SessionEvents::SessionEvents(CApiDb* db, DatabaseWatch* watch, RowWriter* writer)
    : db_(db), watch_(watch), writer_(writer), queries_(db, watch), rows_(db, watch) {}

bool SessionEvents::fail(RecordingError error, const char* text) {
  error_ = error;
  text_ = text;
  return false;
}

bool SessionEvents::fail(JournaledRows::Outcome outcome) {
  if (outcome == JournaledRows::Outcome::kDone) return true;
  return fail(outcome == JournaledRows::Outcome::kJournal ? RecordingError::kJournal
                                                          : RecordingError::kDatabase,
              rows_.failure());
}

bool SessionEvents::makePlace(JournalGuard* guard) {
  const JournalPlace place = awaitJournalPlace(
      kServerPatienceMs, [&] { return guard->beforeEventInsert(); }, [] { return false; },
      [&] { return writer_->serverAnswers(); });
  if (place == JournalPlace::kNoServer) return fail(RecordingError::kServer, kErrServer);
  if (place == JournalPlace::kFree) return true;
  const DatabaseWatch::Verdict verdict = watch_->check();
  if (verdict == DatabaseWatch::Verdict::kGood)
    return fail(RecordingError::kJournal, kErrJournalPlace);
  return fail(RecordingError::kDatabase, DatabaseWatch::text(verdict));
}

uint32_t SessionEvents::begin(uint16_t trigger, PictureTime time, uint16_t preSec) {
  JournalGuard guard(db_, watch_);
  if (!makePlace(&guard)) return 0;
  Running event = {};
  event.row.extTrg = trigger;
  event.row.preSec = preSec;
  event.row.startDate = time.seconds;
  event.row.startMSec = time.milliseconds();
  running_.reserve(running_.size() + 1);  // no row without its place here
  if (!fail(rows_.insert(&event.row))) return 0;
  running_.push_back(event);
  return event.row.eventID;
}

bool SessionEvents::isRunning(uint32_t eventID) const {
  return std::any_of(running_.begin(), running_.end(),
                     [&](const Running& event) { return event.row.eventID == eventID; });
}

bool SessionEvents::endRow(const Running& event, PictureTime time) {
  DB_EVENT row = {};
  char sql[sizeof kSqlEventOfKey + 16];
  snprintf(sql, sizeof sql, kSqlEventOfKey, event.row.eventID);
  const RowQueries::Answer answer = queries_.event(sql, &row);
  if (answer == RowQueries::Answer::kFailed)
    return fail(RecordingError::kDatabase, queries_.failure());
  // Given up with the recordings that it covered, to make room: nothing is left to end.
  if (answer == RowQueries::Answer::kNone) return true;
  // No picture may have come since it began.
  const PictureTime end = std::max(time, {row.startDate, row.startMSec * 1000u});
  DB_EVENT ended = row;
  ended.endDate = end.seconds;
  ended.endMSec = end.milliseconds();
  if (!fail(rows_.update(kEventEnd, row, ended))) return false;
  EventKeeper::eventEnded(row.eventID);
  return true;
}

bool SessionEvents::end(uint32_t eventID, PictureTime time) {
  const auto found = std::find_if(running_.begin(), running_.end(), [&](const Running& event) {
    return event.row.eventID == eventID;
  });
  const Running event = *found;
  running_.erase(found);
  return endRow(event, time);
}

bool SessionEvents::endLast(PictureTime latest) {
  const Running event = running_.back();
  running_.pop_back();
  return endRow(event, event.overtaken ? event.end : latest);
}

void SessionEvents::clockBecameKnown(int64_t seconds) {
  for (Running& event : running_)
    event.end = PictureTime::fromMicros(event.end.totalMicros() + seconds * 1000000);
}

void SessionEvents::clockWasSet(PictureTime latest) {
  for (Running& event : running_) {
    if (event.overtaken) continue;
    event.overtaken = true;
    event.end = latest;
  }
}

}  // namespace tarn
