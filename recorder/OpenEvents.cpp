#include "recorder/OpenEvents.h"

#include "base/Omission.h"
#include "dblog/CDbRestore.h"
#include "recorder/NativeRows.h"

namespace tarn {
namespace {

using Kind = RecoveryChange::Kind;

constexpr char kSqlOpen[] = "SELECT * FROM EVENT WHERE endDate = 0 ORDER BY eventID";
// 0 without a recording.
constexpr char kSqlNewestEnd[] = "SELECT endDate FROM STREAM ORDER BY endDate DESC LIMIT 1";

void noteClosed(const DB_EVENT& event, uint32_t end, RecoveryReport* report) {
  report->changes.push_back({Kind::kEventClosed, event.eventID, 0, end,
                             nameOf(event) + " was still running: it ends at " + momentText(end)});
}

void noteDeleted(const DB_EVENT& event, RecoveryReport* report) {
  report->changes.push_back({Kind::kEventDeleted, event.eventID, 0, 0,
                             nameOf(event) + " has no recording to show, deleted"});
}

// What the library left open.
bool endEvent(const DB_EVENT& event, uint32_t end, RecoveryReport* report) {
  if (event.startDate >= end) {
    if (!deleteEventNative(event)) return false;
    noteDeleted(event, report);
    return true;
  }
  if (!closeEventNative(event, end)) return false;
  noteClosed(event, end, report);
  return true;
}

}  // namespace

bool endOpenEvents(RecoveryReport* report) {
  if (omitted(Omit::kEvents)) return true;
  std::vector<DB_EVENT> open;
  uint32_t end = 0;
  if (!selectEvents(kSqlOpen, &open) || CDbRestore().fixLastEventDb() != 0 ||
      !selectNumber(kSqlNewestEnd, &end)) {
    return false;
  }
  for (const DB_EVENT& event : open) {
    DB_EVENT now = {};
    const int found = findEvent(event.eventID, &now);
    if (found < 0) return false;
    if (found == 0) {
      noteDeleted(event, report);
    } else if (now.endDate != 0) {
      noteClosed(now, now.endDate, report);
    } else if (!endEvent(event, end, report)) {
      return false;
    }
  }
  return true;
}

}  // namespace tarn
