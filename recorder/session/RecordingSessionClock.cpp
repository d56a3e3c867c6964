// What a session does when the clock is set that the times of its pictures come from.
#include <syslog.h>

#include "db/RowStatus.h"
#include "recorder/rows/ClockEras.h"
#include "recorder/rows/Redating.h"
#include "recorder/rows/RedatingRecord.h"
#include "recorder/rows/RedatingUndo.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSessionImpl.h"
#include "recorder/session/RunningTables.h"

namespace tarn {
namespace {

// Rounded down: what is re-dated must not reach into what is recorded from now on.
int64_t wholeSeconds(int64_t micros) {
  const int64_t seconds = micros / 1000000;
  return micros % 1000000 < 0 ? seconds - 1 : seconds;
}

}  // namespace

int RecordingSession::Impl::redatedFamily() const {
  return Redating::family(options_.channel, (options_.frameSet & kFrameSetAudio) != 0);
}

// What another process of this start began and was killed in, and where this one's recordings
// begin.
bool RecordingSession::Impl::enterClockEra() {
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) return fail(RecordingError::kServer, kErrLock);
  RunningTables tables(&db_, &watch_, &manager_);
  ClockEras::Keys next;
  if (!finishRedatings(&tables, redatedFamily()) || !tables.nextKeys(&next)) return failAs(tables);
  if (!ClockEras::enter(redatedFamily(), next)) syslog(LOG_WARNING, kMsgNoClockEra);
  return true;
}

// The running row ends with what it has. Without a row in progress others may take the chunk; the
// next row asks for one again.
bool RecordingSession::Impl::endRowOfOldClock() {
  stepped_ = true;
  if (!writer_.running()) return true;
  if (!writer_.finish()) return failAs(writer_);
  writer_.closeChunk();
  return true;
}

bool RecordingSession::Impl::beginClockEra(int64_t knownSeconds) {
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) return fail(RecordingError::kServer, kErrLock);
  if (!endRowOfOldClock()) return false;
  RunningTables tables(&db_, &watch_, &manager_);
  const ClockEras::Keys first = ClockEras::keys(redatedFamily());
  ClockEras::Keys next;
  if (!tables.nextKeys(&next)) return failAs(tables);
  if (knownSeconds != 0 && first.stream != 0 && first.event != 0) {
    Redating redating(&tables);
    if (!redating.run(redatedFamily(), first.stream, first.event, knownSeconds))
      return failAs(tables);
    RedatingRecord{options_.channel, sound_,          redating.recordings(),
                   first.stream,     next.stream - 1, redating.events(),
                   first.event,      next.event - 1,  knownSeconds}
        .log();
  }
  if (!ClockEras::begin(redatedFamily(), next)) syslog(LOG_WARNING, kMsgNoClockEra);
  return true;
}

int RecordingSession::Impl::clockStepped(int64_t deltaUs) {
  if (!open_ || error_ != RecordingError::kNone) return -1;
  if (deltaUs == 0) return 0;
  if (started_) {
    syslog(LOG_NOTICE, kMsgClockStepped, options_.channel, deltaUs);
    endOldTimes();
  }
  return beginClockEra(0) ? 0 : -1;
}

int RecordingSession::Impl::clockBecameKnown(int64_t deltaUs) {
  if (!open_ || error_ != RecordingError::kNone) return -1;
  const int64_t seconds = wholeSeconds(deltaUs);
  if (seconds == 0) return clockStepped(deltaUs);
  syslog(LOG_NOTICE, kMsgClockKnown, options_.channel, deltaUs);
  if (!beginClockEra(seconds)) return -1;
  const auto moved = [seconds](PictureTime time) {
    return PictureTime::fromMicros(time.totalMicros() + seconds * 1000000);
  };
  if (started_) {
    lastDecode_ = moved(lastDecode_);
    latest_ = moved(latest_);
  }
  events_.clockBecameKnown(seconds);
  return 0;
}

}  // namespace tarn
