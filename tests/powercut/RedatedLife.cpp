#include "powercut/RedatedLife.h"

#include <algorithm>

#include "db/RowStatus.h"
#include "dblog/CDbLog.h"
#include "powercut/Checks.h"
#include "powercut/Keeper.h"
#include "powercut/Script.h"
#include "recorder/session/RedatingReversal.h"

namespace powercut {
namespace {

constexpr uint32_t kLater = kClockBehind * kRate;  // number of the picture that is as much later
constexpr uint32_t kUnfinished =
    tarn::kStatusRedating | tarn::kStatusToTakeBack | tarn::kStatusTakingBack;
constexpr uint32_t kEnded = 10;  // where the event that ends begins

bool isOld(uint32_t startDate) { return startDate < pictureTime(kLater).totalMicros() / 1000000; }

}  // namespace

void clockBecomesKnown(Recorded* out) {
  shape() = {128 * 1024, 8192, 3, 4096};
  formatCard();
  boot();
  const Server server;
  begin(out);
  Recorder recorder(out);
  const size_t session = recorder.open(0, 1);
  const uint32_t known = 70 + variant() % 30;
  recorder.pictures(session, 0, kEnded);
  const uint32_t ended = recorder.beginEvent(session, 5, kEnded);
  recorder.pictures(session, kEnded, kEnded + 25);
  recorder.endEvent(session, ended, kEnded + 25);
  recorder.pictures(session, kEnded + 25, known - 10);
  Keeper(out).keep(kEnded, kEnded + 25);
  const uint32_t running = recorder.beginEvent(session, 6, known - 10);
  recorder.pictures(session, known - 10, known);
  const Trace* trace = Card::get().trace();
  out->redatingFrom = trace->ops.size();
  recorder.clockBecameKnown(session, kClockBehind);
  out->redatingTo = trace->ops.size();
  recorder.pictures(session, kLater + known, kLater + known + 30);
  recorder.endEvent(session, running, kLater + known + 30);
  recorder.pictures(session, kLater + known + 30, kLater + known + 50);
  recorder.close(session);
}

void clockWasWrong(Recorded* out) {
  clockBecomesKnown(out);
  const Server server;
  tarn::RedatingRecord record;
  record.firstStream = 1;
  record.firstEvent = 1;
  record.lastEvent = 2;
  record.seconds = kClockBehind;
  for (const DB_STREAM& row : listStreams()) {
    if (redatedBy(row) != 0) record.lastStream = std::max(record.lastStream, row.streamID);
  }
  tarn::RedatingReversal reversal;
  require(reversal.open(true) == 0, reversal.errorText());
  const Trace* trace = Card::get().trace();
  out->takingBackFrom = trace->ops.size();
  tarn::RedatingPlan done;
  require(reversal.undo(record, &done) == 0, reversal.errorText());
  out->takingBackTo = trace->ops.size();
  reversal.close();
  CDbLog::getInstance()->finish();
  require(done.recordings.size() > 3 && done.events.size() == 2, "not all was taken back");
}

uint32_t redatedBy(const DB_STREAM& row) {
  return (row.status & tarn::kStatusRedated) != 0 ? kClockBehind : 0;
}

std::string checkRedated(const Recorded& life, const std::vector<DB_STREAM>& rows,
                         const std::vector<DB_EVENT>& events) {
  if (life.redatingTo == 0) return "";
  bool old = false;
  bool redated = false;
  for (const DB_STREAM& row : rows) {
    if ((row.status & kUnfinished) != 0)
      return "I9: recording " + std::to_string(row.streamID) + " is in the midst of a re-dating";
    redated = redated || (row.status & tarn::kStatusRedated) != 0;
    old = old || isOld(row.startDate);
  }
  for (const DB_EVENT& event : events) {
    if (((event.startMSec | event.endMSec) & tarn::kEventToTakeBack) != 0)
      return "I9: event " + std::to_string(event.eventID) + " is in the midst of a taking back";
    old = old || isOld(event.startDate);
  }
  return old && redated ? "I9: of what was recorded by the old clock only a part is re-dated" : "";
}

}  // namespace powercut
