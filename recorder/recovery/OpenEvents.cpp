#include "recorder/recovery/OpenEvents.h"

#include <algorithm>
#include <cstdio>

#include "db/RowStatus.h"
#include "recorder/card/TimeText.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingIndex.h"
#include "recorder/recording/RowCorrection.h"
#include "recorder/recovery/NativeRows.h"

namespace tarn {
namespace {

using Kind = RecoveryChange::Kind;

constexpr char kSqlOpen[] = "SELECT * FROM EVENT WHERE endDate = 0 ORDER BY eventID";
// The newest recording that began before a moment and lasted until then, or nearly: of its last
// seconds nothing may be safe. 0 is the end of one that is still open. Copies of recordings have
// keys of their own time and are no part of it.
constexpr char kSqlRunningAt[] =
    "SELECT * FROM STREAM WHERE " TARN_SQL_NOT_KEPT " AND ( frameSet & " TARN_SQL_AUDIO
    " ) = 0 AND ( startDate < %u OR ( startDate = %u "
    "AND startMSec <= %u ) ) AND ( "
    "recSize = 0 OR endDate + %u >= %u ) ORDER BY streamID DESC LIMIT 1";
constexpr char kSqlFrom[] =
    "SELECT * FROM STREAM WHERE " TARN_SQL_NOT_KEPT " AND ( frameSet & " TARN_SQL_AUDIO
    " ) = 0 AND streamID > %u ORDER BY streamID";
constexpr char kSqlAnyBetween[] = "SELECT COUNT(*) FROM STREAM WHERE ( frameSet & " TARN_SQL_AUDIO
                                  " ) = 0 AND recSize <> 0 AND startDate <= %u "
                                  "AND endDate >= %u";
// Recordings that follow each other within this are one stretch.
constexpr uint32_t kGapSeconds = 10;
// No decoder holds back more pictures.
constexpr uint32_t kMostReordered = 16;
constexpr size_t kSqlRoom = 320;

void noteClosed(const DB_EVENT& event, uint32_t end, RecoveryReport* report) {
  report->changes.push_back(
      {Kind::kEventClosed, event.eventID, 0, end,
       nameOf(event) + " was still running: it ends at " + TimeText::of(end)});
}

void noteDeleted(const DB_EVENT& event, RecoveryReport* report) {
  report->changes.push_back({Kind::kEventDeleted, event.eventID, 0, 0,
                             nameOf(event) + " has no recording to show; deleted"});
}

// When the last picture of a closed row is shown. A repaired row tells whole seconds only; its
// entries tell the rest. False when the card does not give them.
bool lastPictureTime(const DB_STREAM& row, PictureTime* out) {
  PictureTime last = {row.endDate, row.endMSec * 1000u};
  *out = last;
  if (row.endMSec != 0) return true;
  RecordingIndex index(row);
  PictureEntry entry;
  const int64_t correction = rowCorrection(row, &index);
  const uint32_t count = std::min(row.recSize, index.capacity());
  for (uint32_t i = count - std::min(count, kMostReordered); i < count; ++i) {
    const Delivery got = index.entry(i, &entry);
    if (got == Delivery::kRefused) return false;
    if (got != Delivery::kGood) continue;
    entry.presentation.seconds += static_cast<uint32_t>(correction);
    if (last < entry.presentation && entry.presentation.seconds == row.endDate)
      last = entry.presentation;
  }
  *out = last;
  return true;
}

enum class Stretch { kFound, kNone, kOpen, kRefused };

// The stretch of recordings that was running at an event's beginning, and its last picture.
class OpenEvent {
 public:
  explicit OpenEvent(const DB_EVENT& event) : event_(event) {}

  // False when the database does not answer.
  bool find() {
    char sql[kSqlRoom];
    snprintf(sql, sizeof sql, kSqlRunningAt, event_.startDate, event_.startDate,
             unsigned{event_.startMSec}, kGapSeconds, event_.startDate);
    std::vector<DB_STREAM> rows;
    if (!selectStreams(sql, &rows)) return false;
    if (rows.empty()) return true;
    const uint32_t begin = rows[0].startDate;
    DB_STREAM newest = rows[0];
    snprintf(sql, sizeof sql, kSqlFrom, newest.streamID);
    if (!selectStreams(sql, &rows)) return false;
    stretch_ = newest.recSize == 0 ? Stretch::kOpen : Stretch::kFound;
    for (const DB_STREAM& row : rows) {
      if (row.startDate < begin || row.startDate > newest.endDate + kGapSeconds) continue;
      if (row.recSize == 0) stretch_ = Stretch::kOpen;
      if (row.endDate >= newest.endDate) newest = row;
    }
    if (stretch_ == Stretch::kFound && !lastPictureTime(newest, &last_))
      stretch_ = Stretch::kRefused;
    return true;
  }

  Stretch stretch() const { return stretch_; }

  // Whole seconds: a picture of the same one may be what the event is about.
  bool isShown(bool* answered) const {
    const uint32_t from = event_.startDate - std::min<uint32_t>(event_.startDate, event_.preSec);
    char sql[kSqlRoom];
    snprintf(sql, sizeof sql, kSqlAnyBetween, event_.startDate + 1, from);
    uint32_t rows = 0;
    *answered = selectNumber(sql, &rows);
    return rows > 0;
  }

  PictureTime end() const {
    const PictureTime soonest = {event_.startDate + 1, event_.startMSec * 1000u};
    return last_ < soonest ? soonest : last_;
  }

 private:
  const DB_EVENT event_;
  Stretch stretch_ = Stretch::kNone;
  PictureTime last_;
};

bool stop(const DB_EVENT& event, RecoveryReport* report) {
  report->error = cannotChange(event);
  return false;
}

bool endEvent(const DB_EVENT& event, RecoveryReport* report) {
  OpenEvent open(event);
  if (!open.find()) return false;
  if (open.stretch() == Stretch::kOpen) {
    report->problems.push_back(nameOf(event) + " stays open with its recording");
    return true;
  }
  if (open.stretch() == Stretch::kRefused) {
    report->problems.push_back(nameOf(event) +
                               " stays open: the card does not deliver the end of its recording");
    return true;
  }
  bool answered = false;
  const bool shown = open.isShown(&answered);
  if (!answered) return false;
  if (!shown) {
    if (!deleteEventNative(event)) return stop(event, report);
    noteDeleted(event, report);
    return true;
  }
  if (!closeEventNative(event, open.end())) return stop(event, report);
  noteClosed(event, open.end().seconds, report);
  return true;
}

}  // namespace

bool endOpenEvents(RecoveryReport* report) {
  std::vector<DB_EVENT> open;
  return selectEvents(kSqlOpen, &open) &&
         std::all_of(open.begin(), open.end(),
                     [report](const DB_EVENT& event) { return endEvent(event, report); });
}

}  // namespace tarn
