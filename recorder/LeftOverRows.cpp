#include "recorder/LeftOverRows.h"

#include <algorithm>
#include <cstdio>

#include "base/Omission.h"
#include "base/Wrap.h"
#include "dblog/CDbRestore.h"
#include "recorder/NativeRows.h"
#include "recorder/PictureIndex.h"

namespace tarn {
namespace {

using Kind = RecoveryChange::Kind;

constexpr char kWhyTooShort[] = " was interrupted before two pictures of it were on the card";
constexpr char kSqlUnclosed[] = "SELECT * FROM STREAM WHERE recSize = 0 ORDER BY streamID";
constexpr char kSqlOvertaken[] =
    "SELECT * FROM STREAM AS old WHERE recSize = 0 AND EXISTS( SELECT 1 FROM STREAM WHERE chunkID "
    "= old.chunkID AND streamID > old.streamID ) ORDER BY streamID";
constexpr char kSqlEvents[] = "SELECT COUNT(*) FROM EVENT";
// Events since a moment that no recording but one shows the beginning of; an open one may.
constexpr char kSqlEventsOfRow[] =
    "SELECT e.* FROM EVENT AS e, STREAM AS r WHERE r.streamID = %u AND ( e.startDate > r.startDate "
    "OR ( e.startDate = r.startDate AND e.startMSec >= r.startMSec ) ) AND NOT EXISTS( SELECT 1 "
    "FROM STREAM AS s WHERE s.streamID <> r.streamID AND ( s.startDate < e.startDate OR ( "
    "s.startDate = e.startDate AND s.startMSec <= e.startMSec ) ) AND ( s.endDate = 0 OR s.endDate "
    "> e.startDate OR ( s.endDate = e.startDate AND ( s.endMSec = 0 OR s.endMSec >= e.startMSec ) "
    ") ) )";
constexpr uint32_t kFrameSetAudio = 0x80;
constexpr uint32_t kStatusNotVideo = 0x300;  // what the repair of video passes over

std::string pictureText(uint32_t pictures) {
  return std::to_string(pictures) + (pictures == 1 ? " picture" : " pictures");
}

void noteClosed(const DB_STREAM& row, RecoveryReport* report) {
  report->changes.push_back({Kind::kRecordingClosed, row.streamID, row.recSize, row.endDate,
                             nameOf(row) + " was interrupted: " + pictureText(row.recSize) +
                                 " came back, up to " + momentText(row.endDate)});
}

void noteDeleted(const DB_STREAM& row, const char* why, RecoveryReport* report) {
  report->changes.push_back(
      {Kind::kRecordingDeleted, row.streamID, 0, 0, nameOf(row) + why + ", deleted"});
}

// What entries confirm of a recording: consecutive numbers of its own, data back to back, and times
// that do not fall.
struct Confirmed {
  bool readable = true;
  uint32_t pictures = 0;
  uint32_t lastTime = 0;  // seconds, the latest presentation
};

Confirmed confirm(const DB_STREAM& row) {
  Confirmed result;
  PictureIndex index(row);
  if (!index.isOpen()) {
    result.readable = index.isPlaceless();
    return result;
  }
  PictureEntry entry;
  PictureEntry before;
  for (;; ++result.pictures, before = entry) {
    const PictureIndex::Read read = index.entry(result.pictures, &entry);
    // Nothing may be concluded from a first entry that the device does not give.
    if (read == PictureIndex::Read::kUnreadable) result.readable = result.pictures > 0;
    if (read != PictureIndex::Read::kGood) return result;
    const bool follows =
        result.pictures == 0 ||
        (entry.number == wrapAdd32(before.number, 1) &&
         entry.dataOffset == ringAdvance(before.dataOffset, before.size, index.streamSize()) &&
         !(entry.decodeTime() < before.decodeTime()));
    if (!follows) return result;
    result.lastTime = std::max(result.lastTime, entry.presentation.seconds);
  }
}

// The repair of video deletes a row of which there are not two pictures, and with it every event
// since the whole second in which it began: those of the recording before it and of other channels
// too. Such rows are deleted here, where times are looked at more closely.
bool isLost(const DB_STREAM& row) {
  if ((row.frameSet & kFrameSetAudio) != 0 || (row.status & kStatusNotVideo) != 0) return false;
  PictureIndex index(row);
  StreamHeader header;
  if (!index.isOpen() || index.header(&header) != PictureIndex::Read::kGood) return false;
  // One behind the missing one as well: a damaged entry alone is not the end.
  for (const uint32_t i : {1u, 2u}) {
    PictureEntry entry;
    if (index.entry(i, &entry) != PictureIndex::Read::kBad) return false;
  }
  return true;
}

// The events first: power lost in between leaves the row, and the next start goes on with it.
bool deleteLostRow(const DB_STREAM& row) {
  char sql[sizeof kSqlEventsOfRow + 16];
  snprintf(sql, sizeof sql, kSqlEventsOfRow, row.streamID);
  std::vector<DB_EVENT> events;
  return selectEvents(sql, &events) &&
         std::all_of(events.begin(), events.end(), deleteEventNative) && deleteStreamNative(row);
}

bool deleteLostRows(RecoveryReport* report) {
  std::vector<DB_STREAM> rows;
  if (!selectStreams(kSqlUnclosed, &rows)) return false;
  for (const DB_STREAM& row : rows) {
    if (!isLost(row)) continue;
    if (!deleteLostRow(row)) return false;
    noteDeleted(row, kWhyTooShort, report);
  }
  return true;
}

bool closeRow(const DB_STREAM& row, RecoveryReport* report) {
  const Confirmed found = confirm(row);
  if (!found.readable) {
    report->problems.push_back(nameOf(row) +
                               " was interrupted, and the card does not give its "
                               "entries: it stays open");
    return true;
  }
  if (found.pictures == 0) {
    if (!deleteStreamNative(row)) return false;
    noteDeleted(row, " was interrupted before anything of it was on the card", report);
    return true;
  }
  if (!closeStreamNative(row, found.pictures, found.lastTime)) return false;
  DB_STREAM closed = row;
  closed.recSize = found.pictures;
  closed.endDate = found.lastTime;
  noteClosed(closed, report);
  return true;
}

}  // namespace

bool deleteOvertakenRows(RecoveryReport* report) {
  if (omitted(Omit::kOvertakenRows)) return true;
  std::vector<DB_STREAM> rows;
  if (!selectStreams(kSqlOvertaken, &rows)) return false;
  for (const DB_STREAM& row : rows) {
    if (!deleteStreamNative(row)) return false;
    noteDeleted(row, " was left open before a newer one of its chunk began", report);
  }
  return true;
}

bool repairVideoRows(RecoveryReport* report) {
  if (omitted(Omit::kVideoRows)) return true;
  std::vector<DB_STREAM> rows;
  uint32_t eventsBefore = 0;
  uint32_t eventsAfter = 0;
  if (!selectNumber(kSqlEvents, &eventsBefore) || !deleteLostRows(report) ||
      !selectStreams(kSqlUnclosed, &rows) || CDbRestore().fixUpLastStream() != 0) {
    return false;
  }
  for (const DB_STREAM& row : rows) {
    DB_STREAM now = {};
    const int found = findStream(row.streamID, &now);
    if (found < 0) return false;
    if (found == 0) {
      noteDeleted(row, kWhyTooShort, report);
    } else if (now.recSize != 0) {
      noteClosed(now, report);
    }
  }
  if (!selectNumber(kSqlEvents, &eventsAfter)) return false;
  if (eventsAfter < eventsBefore) {
    report->changes.push_back(
        {Kind::kEventDeleted, 0, 0, 0,
         std::to_string(eventsBefore - eventsAfter) + " events of deleted recordings, deleted"});
  }
  return true;
}

bool closeRemainingRows(RecoveryReport* report) {
  if (omitted(Omit::kRemainingRows)) return true;
  std::vector<DB_STREAM> rows;
  if (!selectStreams(kSqlUnclosed, &rows)) return false;
  return std::all_of(rows.begin(), rows.end(),
                     [report](const DB_STREAM& row) { return closeRow(row, report); });
}

}  // namespace tarn
