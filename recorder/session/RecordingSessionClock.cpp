// What a session does when the clock is set that the times of its pictures come from.
#include <syslog.h>

#include <cstdio>
#include <vector>

#include "db/RowStatus.h"
#include "recorder/rows/ClockEras.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/rows/Redating.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSessionImpl.h"

namespace tarn {
namespace {

constexpr char kSqlNextKeys[] =
    "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = '%s'), 0) + 1";
constexpr DB_STREAM_REG_BIT kStreamTimes =
    kStreamRegStatus | kStreamRegStartDate | kStreamRegEndDate;

// Rounded down: what is re-dated must not reach into what is recorded from now on.
int64_t wholeSeconds(int64_t micros) {
  const int64_t seconds = micros / 1000000;
  return micros % 1000000 < 0 ? seconds - 1 : seconds;
}

// The tables of a recorder that runs.
class RunningTables : public RedatedTables {
 public:
  RunningTables(CApiDb* db, const DatabaseWatch* watch, CTARNStreamManager* manager)
      : queries_(db, watch), rows_(db, watch), manager_(manager) {}

  bool streams(const std::string& sql, std::vector<DB_STREAM>* rows) override {
    return asked(queries_.streams(sql.c_str(), rows));
  }
  bool events(const std::string& sql, std::vector<DB_EVENT>* rows) override {
    return asked(queries_.events(sql.c_str(), rows));
  }
  bool change(const DB_STREAM& before, const DB_STREAM& after) override {
    return done(rows_.update(kStreamTimes, before, after));
  }
  bool change(const DB_EVENT& before, const DB_EVENT& after) override {
    const DB_EVENT_REG_BIT end = before.endDate != 0 ? kEventRegEndDate : 0;
    return done(rows_.update(kEventRegStartDate | end, before, after));
  }
  int channelOf(uint32_t chunk) override {
    signed char owner = -1;
    signed char type = 0;
    return chunk < manager_->getNumChunk() &&
                   manager_->getChType(static_cast<short>(chunk), &owner, &type) == 0
               ? owner
               : -1;
  }

  bool nextKey(const char* table, uint32_t* key) {
    char sql[sizeof kSqlNextKeys + 16];
    snprintf(sql, sizeof sql, kSqlNextKeys, table);
    return asked(queries_.number(sql, key));
  }
  bool nextKeys(ClockEras::Keys* keys) {
    return nextKey("STREAM", &keys->stream) && nextKey("EVENT", &keys->event);
  }

  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }

 private:
  bool asked(bool good) { return good || fail(RecordingError::kDatabase, queries_.failure()); }
  bool done(JournaledRows::Outcome outcome) {
    if (outcome == JournaledRows::Outcome::kDone) return true;
    return fail(outcome == JournaledRows::Outcome::kJournal ? RecordingError::kJournal
                                                            : RecordingError::kDatabase,
                rows_.failure());
  }
  bool fail(RecordingError error, const char* text) {
    error_ = error;
    text_ = text;
    return false;
  }

  RowQueries queries_;
  JournaledRows rows_;
  CTARNStreamManager* manager_;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
};

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
  if (!Redating(&tables).finish(redatedFamily()) || !tables.nextKeys(&next)) return failAs(tables);
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
    syslog(LOG_NOTICE, kMsgRedated, options_.channel, redating.recordings(), first.stream,
           next.stream - 1, redating.events(), first.event, next.event - 1, knownSeconds);
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
