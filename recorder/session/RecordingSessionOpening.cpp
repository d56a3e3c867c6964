// How a session begins: what it asks of the machine, and what an earlier one left behind.
#include <cstdio>
#include <vector>

#include "db/RowStatus.h"
#include "fat/FailureMarker.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/rows/ChannelLock.h"
#include "recorder/rows/RamReserve.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSessionImpl.h"
#include "recorder/session/ServerFailure.h"

namespace tarn {
namespace {

constexpr char kSqlLeftOpen[] =
    "SELECT * FROM STREAM WHERE recSize = 0 AND endDate = 0 ORDER BY streamID ASC";
constexpr char kSqlGreatestKey[] =
    "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = 'STREAM'), 0)";

}  // namespace

bool RecordingSession::Impl::checkOptions() {
  if (((options_.frameSet & kFrameSetAudio) != 0) != sound_)
    return fail(RecordingError::kBadOption, kErrAudioBit);
  if (options_.channel < 0) return fail(RecordingError::kBadOption, kErrChannel);
  if (options_.channel == kKeptChannel) return fail(RecordingError::kBadOption, kErrKeptChannel);
  return !cardWriteFailed() || fail(RecordingError::kCard, kErrMarker);
}

// The process first: what another one records is no matter of channels.
bool RecordingSession::Impl::takeLocks() {
  const FileLock::Outcome process = process_.enter();
  if (process == FileLock::Outcome::kHeldByOther)
    return fail(RecordingError::kBadOption, kErrOtherProcess);
  if (process != FileLock::Outcome::kTaken) return fail(RecordingError::kDatabase, kErrInsertLock);
  char path[64];
  if (sound_) {
    snprintf(path, sizeof path, kSoundLock, options_.channel);
  } else {
    snprintf(path, sizeof path, kChannelLock, options_.channel);
  }
  const FileLock::Outcome channel = channelLock_.take(path, false);
  if (channel == FileLock::Outcome::kHeldByOther)
    return fail(RecordingError::kBadOption, kErrChannelBusy);
  if (channel != FileLock::Outcome::kTaken) return fail(RecordingError::kDatabase, kErrChannelLock);
  RamReserve::keep();
  return true;
}

bool RecordingSession::Impl::watchDatabase() {
  if (!watch_.begin()) return fail(RecordingError::kDatabase, kErrDatabaseGone);
  uint32_t greatest = 0;
  if (!queries_.number(kSqlGreatestKey, &greatest))
    return fail(RecordingError::kDatabase, queries_.failure());
  space_.noteKey(greatest);
  return true;
}

bool RecordingSession::Impl::checkCard() {
  geometry_ = CardGeometry::verifyRecorder();
  return geometry_.ok() || fail(RecordingError::kCard, geometry_.text.c_str());
}

// A server that has no card does not get one by being asked again.
bool RecordingSession::Impl::connect() {
  bool good = false;
  retryFor(kServerPatienceMs, [&] {
    good = manager_.openManageData() == 0;
    if (!good) manager_.closeManageData();
    return good || cardRefused(manager_);
  });
  const ServerFailure failure = serverFailure(manager_);
  return good || fail(failure.error, failure.text);
}

bool RecordingSession::Impl::ownedByChannel(const DB_STREAM& row) {
  signed char owner = -1;
  signed char type = 0;
  return rowInProgress(row) && (row.status & kStatusNotVideo) == 0 && isSound(row) == sound_ &&
         row.chunkID < manager_.getNumChunk() &&
         manager_.getChType(static_cast<short>(row.chunkID), &owner, &type) == 0 &&
         owner == options_.channel;
}

// A process that was killed leaves its row open while the server and the database live on. The
// channel's lock is ours, so nobody is writing to such a row.
bool RecordingSession::Impl::closeLeftOvers() {
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) return fail(RecordingError::kServer, kErrLock);
  std::vector<DB_STREAM> rows;
  if (!queries_.streams(kSqlLeftOpen, &rows))
    return fail(RecordingError::kDatabase, queries_.failure());
  for (const DB_STREAM& open : rows) {
    if (!ownedByChannel(open)) continue;
    DB_STREAM newest = {};
    const RowQueries::Answer answer = space_.newestInChunk(static_cast<int>(open.chunkID), &newest);
    if (answer == RowQueries::Answer::kFailed) return fail(space_.error(), space_.errorText());
    const bool isNewest = answer == RowQueries::Answer::kRow && newest.streamID == open.streamID;
    if (!writer_.closeLeftOver(open, isNewest)) return failAs(writer_);
  }
  return true;
}

int RecordingSession::Impl::open(const RecordingOptions& options, bool sound) {
  options_ = options;
  sound_ = sound;
  gops_.setBitrate(options.bitrate);
  if (sound) gops_.setSound();
  open_ = checkOptions() && takeLocks() && checkCard() && watchDatabase() && connect() &&
          closeLeftOvers() && enterClockEra();
  return open_ ? 0 : -1;
}

}  // namespace tarn
