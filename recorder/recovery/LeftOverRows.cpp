#include "recorder/recovery/LeftOverRows.h"

#include <algorithm>
#include <cstdio>

#include "base/Omission.h"
#include "db/RowStatus.h"
#include "dblog/CDbRestore.h"
#include "recorder/card/TimeText.h"
#include "recorder/recording/InterruptedRow.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/recovery/NativeRows.h"

namespace tarn {
namespace {

using Kind = RecoveryChange::Kind;
using Verdict = InterruptedRow::Verdict;

constexpr char kWhyTooShort[] = " was interrupted before two pictures of it were on the card";
constexpr char kWhyNothing[] = " was interrupted before anything of it was on the card";
constexpr char kWhyOvertaken[] = " was left open, and a newer one began in its chunk";
constexpr char kWhyHalf[] = " was being copied when the power went: the copy is not whole";
constexpr char kSqlUnclosed[] = "SELECT * FROM STREAM WHERE recSize = 0 ORDER BY streamID";
constexpr char kSqlHalfCopies[] = "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT
                                  " AND NOT ( " TARN_SQL_KEPT_WHOLE " ) ORDER BY streamID";
constexpr char kSqlOvertaken[] =
    "SELECT * FROM STREAM AS old WHERE recSize = 0 AND EXISTS( SELECT 1 FROM STREAM WHERE chunkID "
    "= old.chunkID AND streamID > old.streamID ) ORDER BY streamID";
// Events that began while a recording ran of which next to nothing is left, and of which no other
// recording has a picture, the seconds before their beginning included; sound shows none. Where a
// recording was repaired only the whole second of its end is known. An event that is still open is
// ended later.
constexpr char kSqlEventsOfRow[] =
    "SELECT e.* FROM EVENT AS e, STREAM AS r WHERE r.streamID = %u AND e.endDate <> 0 AND ( "
    "e.startDate > r.startDate OR ( e.startDate = r.startDate AND e.startMSec >= r.startMSec ) ) "
    "AND e.startDate <= r.startDate + %u AND NOT EXISTS( SELECT 1 FROM STREAM AS s WHERE "
    "s.streamID <> r.streamID AND ( s.frameSet & " TARN_SQL_AUDIO
    " ) = 0 AND ( s.startDate < e.endDate OR ( "
    "s.startDate = e.endDate AND "
    "s.startMSec <= e.endMSec ) ) AND ( s.recSize = 0 OR s.endDate > e.startDate - e.preSec OR ( "
    "s.endDate = e.startDate - e.preSec AND ( s.endMSec = 0 OR s.endMSec >= e.startMSec ) ) ) )";
// How long a recording can have run before its second picture was safe.
constexpr uint32_t kShortRowSeconds = 10;
// One picture alone has no duration.
constexpr uint32_t kLeastVideoPictures = 2;

std::string countText(const DB_STREAM& row, uint32_t count) {
  const char* what = isSound(row) ? " block" : " picture";
  const std::string text = std::to_string(count) + what + (count == 1 ? "" : "s");
  return isSound(row) ? text + " of sound" : text;
}

void noteClosed(const DB_STREAM& row, uint32_t pictures, uint32_t end, RecoveryReport* report) {
  report->changes.push_back({Kind::kRecordingClosed, row.streamID, pictures, end,
                             nameOf(row) + " was interrupted: " + countText(row, pictures) +
                                 " came back, up to " + TimeText::of(end)});
}

void noteDeleted(const DB_STREAM& row, const char* why, RecoveryReport* report) {
  report->changes.push_back(
      {Kind::kRecordingDeleted, row.streamID, 0, 0, nameOf(row) + why + ", deleted"});
}

// Once, though more than one step may look at the row.
void noteRefused(const DB_STREAM& row, RecoveryReport* report) {
  const std::string text =
      nameOf(row) + " was interrupted, and the card does not deliver its entries: it stays open";
  auto& problems = report->problems;
  if (std::find(problems.begin(), problems.end(), text) == problems.end()) problems.push_back(text);
}

template <typename Row>
bool stop(const Row& row, RecoveryReport* report) {
  report->error = cannotChange(row);
  return false;
}

// The header first: a row that is listed as closed has one that fits, wherever in its chunk it is.
bool closeRow(const DB_STREAM& row, const InterruptedRow& found, RecoveryReport* report) {
  const uint32_t end = found.last().seconds;
  if (!found.writeHeader() || !closeStreamNative(row, found.pictures(), end))
    return stop(row, report);
  noteClosed(row, found.pictures(), end, report);
  return true;
}

// The events first: power lost in between leaves the row, and the next start goes on with it.
bool deleteLostRow(const DB_STREAM& row, RecoveryReport* report) {
  char sql[sizeof kSqlEventsOfRow + 24];
  snprintf(sql, sizeof sql, kSqlEventsOfRow, row.streamID, kShortRowSeconds);
  std::vector<DB_EVENT> events;
  if (!selectEvents(sql, &events)) return false;
  for (const DB_EVENT& event : events) {
    if (!deleteEventNative(event)) return stop(event, report);
    report->changes.push_back({Kind::kEventDeleted, event.eventID, 0, 0,
                               nameOf(event) + " has no recording to show; deleted"});
  }
  if (!deleteStreamNative(row)) return stop(row, report);
  noteDeleted(row, kWhyTooShort, report);
  return true;
}

// Rows are closed before any is deleted, because they may show the events of those.
bool settleVideo(const std::vector<DB_STREAM>& rows, RecoveryReport* report) {
  std::vector<DB_STREAM> lost;
  for (const DB_STREAM& row : rows) {
    if (!isVideo(row)) continue;
    InterruptedRow found(row);
    const Verdict verdict = found.judge();
    if (verdict == Verdict::kRefused) {
      noteRefused(row, report);
    } else if (verdict == Verdict::kNothing || found.pictures() < kLeastVideoPictures) {
      lost.push_back(row);
    } else if (!closeRow(row, found, report)) {
      return false;
    }
  }
  return std::all_of(lost.begin(), lost.end(),
                     [report](const DB_STREAM& row) { return deleteLostRow(row, report); });
}

// What the library's repair makes of the rows, where nothing else decides.
bool repairAsTheLibrary(const std::vector<DB_STREAM>& rows, RecoveryReport* report) {
  if (CDbRestore().fixUpLastStream() != 0) return false;
  for (const DB_STREAM& row : rows) {
    DB_STREAM now = {};
    const int found = findStream(row.streamID, &now);
    if (found < 0) return false;
    if (found == 0) noteDeleted(row, kWhyTooShort, report);
    if (found == 1 && now.recSize != 0) noteClosed(row, now.recSize, now.endDate, report);
  }
  return true;
}

bool settleRow(const DB_STREAM& row, const char* whyDeleted, uint32_t least,
               RecoveryReport* report) {
  InterruptedRow found(row);
  const Verdict verdict = found.judge();
  if (verdict == Verdict::kRefused) {
    noteRefused(row, report);
    return true;
  }
  if (verdict == Verdict::kPictures && found.pictures() >= least) {
    return closeRow(row, found, report);
  }
  if (!deleteStreamNative(row)) return stop(row, report);
  noteDeleted(row, whyDeleted, report);
  return true;
}

// Entries decide about interrupted video, and not the library's repair.
bool settleInterrupted(const std::vector<DB_STREAM>& rows, RecoveryReport* report) {
  if (omitted("own-walk")) return repairAsTheLibrary(rows, report);
  return settleVideo(rows, report);
}

}  // namespace

// Half a copy shows nothing that its recording does not show. Events stay.
bool dropHalfCopies(RecoveryReport* report) {
  if (omitted("half-copies")) return true;
  std::vector<DB_STREAM> rows;
  if (!selectStreams(kSqlHalfCopies, &rows)) return false;
  for (const DB_STREAM& row : rows) {
    if (!deleteStreamNative(row)) return stop(row, report);
    noteDeleted(row, kWhyHalf, report);
  }
  return true;
}

bool settleOvertakenRows(RecoveryReport* report) {
  std::vector<DB_STREAM> rows;
  if (!selectStreams(kSqlOvertaken, &rows)) return false;
  return std::all_of(rows.begin(), rows.end(), [report](const DB_STREAM& row) {
    return settleRow(row, kWhyOvertaken, isVideo(row) ? kLeastVideoPictures : 1, report);
  });
}

bool settleVideoRows(RecoveryReport* report) {
  std::vector<DB_STREAM> rows;
  if (!selectStreams(kSqlUnclosed, &rows)) return false;
  return settleInterrupted(rows, report);
}

bool settleRemainingRows(RecoveryReport* report) {
  std::vector<DB_STREAM> rows;
  if (!selectStreams(kSqlUnclosed, &rows)) return false;
  // Video is only still open where the card did not give it a moment ago. It may now.
  return settleVideo(rows, report) &&
         std::all_of(rows.begin(), rows.end(), [report](const DB_STREAM& row) {
           return isVideo(row) || settleRow(row, kWhyNothing, 1, report);
         });
}

}  // namespace tarn
