#include "recorder/rows/RedatingUndo.h"

#include <syslog.h>

#include <algorithm>
#include <cinttypes>
#include <string>

#include "base/Omission.h"
#include "db/RowStatus.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RowCorrection.h"
#include "recorder/rows/RowMessages.h"

namespace tarn {
namespace {

constexpr uint16_t kMilliseconds = kEventToTakeBack - 1;
constexpr uint32_t kMarks = kStatusToTakeBack | kStatusTakingBack;

std::string number(int64_t value) { return std::to_string(value); }

std::string eventsBetween(uint32_t first, uint32_t last) {
  return "SELECT * FROM EVENT WHERE eventID >= " + number(first) +
         " AND eventID <= " + number(last) + " ORDER BY eventID";
}

std::string markedEvents() {
  return "SELECT * FROM EVENT WHERE startMSec & " + number(kEventToTakeBack) + " ORDER BY eventID";
}

std::string rowsMarked(uint32_t marks) {
  return "SELECT * FROM STREAM WHERE status & " + number(marks) + " ORDER BY streamID";
}

bool inRange(int64_t seconds) { return seconds >= 0 && seconds <= int64_t{UINT32_MAX}; }

}  // namespace

// A copy that was made after the re-dating has the right times in its entries: it has the mark of
// one that was re-dated, and nothing to correct.
RedatingUndo::Fit RedatingUndo::fitOf(const DB_STREAM& row, int64_t seconds) {
  if ((row.status & kStatusRedated) == 0 || !inRange(row.startDate - seconds) ||
      !inRange(row.endDate - seconds))
    return Fit::kNo;
  RecordingIndex index(row);
  int64_t correction = 0;
  if (!knowsRowCorrection(row, &index, &correction)) return Fit::kUnreadable;
  if (correction == seconds) return Fit::kYes;
  return isKept(row) && correction == 0 ? Fit::kCopyOfIt : Fit::kNo;
}

bool RedatingUndo::plan(const RedatingRecord& record, RedatingPlan* plan) {
  *plan = RedatingPlan();
  std::vector<DB_STREAM> rows;
  if (!redating_.recorded(Redating::family(record.channel, record.sound), record.firstStream,
                          &rows))
    return false;
  std::vector<DB_STREAM> copies;  // that do not tell the correction
  uint32_t lastSecond = 0;
  for (const DB_STREAM& row : rows) {
    if (originalKey(row) > record.lastStream) continue;
    const Fit fit = fitOf(row, record.seconds);
    if (fit == Fit::kUnreadable) ++plan->unreadable;
    if (fit == Fit::kNo) ++plan->others;
    if (fit == Fit::kYes) plan->recordings.push_back(row);
    if (fit == Fit::kCopyOfIt) copies.push_back(row);
    if (fit != Fit::kNo) lastSecond = std::max(lastSecond, row.endDate);
  }
  if (plan->empty()) {
    plan->others += static_cast<uint32_t>(copies.size());
    return true;
  }
  // What the decision is marked on stays until it is carried out: recordings before copies, which
  // can be released.
  std::stable_partition(plan->recordings.begin(), plan->recordings.end(),
                        [](const DB_STREAM& row) { return !isKept(row); });
  plan->recordings.insert(plan->recordings.end(), copies.begin(), copies.end());
  return planEvents(record, lastSecond, plan);
}

// An event that ended after the clock was set has had its start moved alone.
bool RedatingUndo::planEvents(const RedatingRecord& record, uint32_t lastSecond,
                              RedatingPlan* plan) {
  std::vector<DB_EVENT> events;
  if (!tables_->events(eventsBetween(record.firstEvent, record.lastEvent), &events)) return false;
  for (DB_EVENT event : events) {
    const int64_t start = event.startDate - record.seconds;
    if (!inRange(start) || ((event.startMSec | event.endMSec) & kEventToTakeBack) != 0) continue;
    const bool endsByOldClock =
        event.endDate != 0 && inRange(event.endDate - record.seconds) &&
        (int64_t{event.endDate} <= int64_t{lastSecond} + 1 || event.endDate < start);
    event.startMSec |= kEventToTakeBack;
    if (endsByOldClock) event.endMSec |= kEventToTakeBack;
    plan->events.push_back(event);
  }
  return true;
}

// Rows in front of events, so that a start that finds no marked row need not look for events.
bool RedatingUndo::mark(const RedatingPlan& plan) {
  for (const DB_STREAM& row : plan.recordings) {
    DB_STREAM marked = row;
    marked.status |= kStatusToTakeBack;
    if (!tables_->change(row, marked)) return false;
  }
  return std::all_of(plan.events.begin(), plan.events.end(), [&](const DB_EVENT& marked) {
    DB_EVENT before = marked;
    before.startMSec &= kMilliseconds;
    before.endMSec &= kMilliseconds;
    return tables_->change(before, marked);
  });
}

bool RedatingUndo::run(const RedatingPlan& plan) {
  if (plan.empty()) return true;
  if (!mark(plan)) return false;
  DB_STREAM before = plan.recordings.front();
  RecordingIndex index(before);
  const int64_t seconds = rowCorrection(before, &index);
  if (seconds == 0) return dropMarks();  // it could be read a moment ago
  before.status |= kStatusToTakeBack;
  DB_STREAM decided = before;
  decided.status |= kStatusTakingBack;
  return tables_->change(before, decided) && moveMarked(decided, seconds);
}

bool RedatingUndo::moveBack(const DB_EVENT& row, int64_t seconds) {
  DB_EVENT moved = row;
  moved.startMSec &= kMilliseconds;
  moved.endMSec &= kMilliseconds;
  if (inRange(row.startDate - seconds)) {
    moved.startDate = static_cast<uint32_t>(row.startDate - seconds);
    if ((row.endMSec & kEventToTakeBack) != 0 && inRange(row.endDate - seconds))
      moved.endDate = static_cast<uint32_t>(row.endDate - seconds);
  }
  if (!tables_->change(row, moved)) return false;
  ++events_;
  return true;
}

bool RedatingUndo::moveBack(const DB_STREAM& row, int64_t seconds) {
  DB_STREAM moved = row;
  moved.status &= ~kMarks;
  if (moveRow(-seconds, &moved)) {
    RecordingIndex index(moved);
    // Of a copy with the right times in its entries the row is what tells the others from now on;
    // so it is of one that tells nothing, whose entries are asked when they can be.
    int64_t correction = 0;
    if (knowsRowCorrection(moved, &index, &correction) && correction == 0)
      moved.status &= ~kStatusRedated;
  }
  if (!tables_->change(row, moved)) return false;
  ++recordings_;
  return true;
}

// The decision's own row is the last one: until then it tells the seconds.
bool RedatingUndo::moveMarked(const DB_STREAM& decided, int64_t seconds) {
  std::vector<DB_EVENT> events;
  std::vector<DB_STREAM> rows;
  if (!tables_->events(markedEvents(), &events) ||
      !tables_->streams(rowsMarked(kStatusToTakeBack), &rows))
    return false;
  for (const DB_EVENT& event : events) {
    if (!moveBack(event, seconds)) return false;
  }
  for (const DB_STREAM& row : rows) {
    if (row.streamID != decided.streamID && !moveBack(row, seconds)) return false;
  }
  return moveBack(decided, seconds);
}

bool RedatingUndo::dropMarks() {
  std::vector<DB_EVENT> events;
  std::vector<DB_STREAM> rows;
  if (!tables_->events(markedEvents(), &events) || !tables_->streams(rowsMarked(kMarks), &rows))
    return false;
  for (const DB_EVENT& event : events) {
    DB_EVENT as = event;
    as.startMSec &= kMilliseconds;
    as.endMSec &= kMilliseconds;
    if (!tables_->change(event, as)) return false;
  }
  for (const DB_STREAM& row : rows) {
    DB_STREAM as = row;
    as.status &= ~kMarks;
    if (!tables_->change(row, as)) return false;
  }
  if (!events.empty() || !rows.empty()) syslog(LOG_NOTICE, kMsgTakingBackDropped);
  return true;
}

bool RedatingUndo::finish() {
  if (omitted("taking-back")) return true;
  std::vector<DB_STREAM> decided;
  if (!tables_->streams(rowsMarked(kStatusTakingBack), &decided)) return false;
  if (decided.empty()) return dropMarks();
  RecordingIndex index(decided.front());
  const int64_t seconds = rowCorrection(decided.front(), &index);
  if (seconds == 0) {
    syslog(LOG_WARNING, kMsgTakingBackUnknown, decided.front().streamID);
    return true;
  }
  if (!moveMarked(decided.front(), seconds)) return false;
  syslog(LOG_NOTICE, kMsgTakingBackFinished, recordings_, events_, seconds);
  return true;
}

bool finishRedatings(RedatedTables* tables, int family) {
  std::vector<DB_STREAM> rows;
  if (!tables->streams(rowsMarked(kMarks | kStatusRedating), &rows)) return false;
  return rows.empty() || (RedatingUndo(tables).finish() && Redating(tables).finish(family));
}

}  // namespace tarn
