// How a session begins: what it asks of the machine, and what an earlier one left behind.
#include <vector>

#include "db/RowStatus.h"
#include "fat/FailureMarker.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/rows/FileLock.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSessionImpl.h"

namespace tarn {
namespace {

constexpr char kSqlLeftOpen[] =
    "SELECT * FROM STREAM WHERE recSize = 0 AND endDate = 0 ORDER BY streamID ASC";

}  // namespace

bool RecordingSession::Impl::checkOptions() {
  if (((options_.frameSet & kFrameSetAudio) != 0) != sound_)
    return fail(RecordingError::kBadOption, kErrAudioBit);
  if (options_.channel < 0) return fail(RecordingError::kBadOption, kErrChannel);
  if (options_.channel == kKeptChannel) return fail(RecordingError::kBadOption, kErrKeptChannel);
  return !cardWriteFailed() || fail(RecordingError::kCard, kErrMarker);
}

bool RecordingSession::Impl::begin(const OpeningFailure& failure) {
  return failure.none() || fail(failure.error, failure.text);
}

bool RecordingSession::Impl::takeLocks() {
  return begin(locks_.take(options_.channel, sound_, {kErrOtherProcess, kErrChannelBusy}));
}

bool RecordingSession::Impl::checkCard() {
  geometry_ = CardGeometry::verifyRecorder();
  if (!geometry_.ok()) return fail(RecordingError::kCard, geometry_.text.c_str());
  writer_.flushEarly(int64_t{options_.flushIntervalMs} * 1000, geometry_.streamByte);
  return true;
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
  open_ = checkOptions() && takeLocks() && checkCard() &&
          begin(watchDatabase(&watch_, &queries_, &space_)) && begin(connectToServer(&manager_)) &&
          closeLeftOvers() && enterClockEra();
  return open_ ? 0 : -1;
}

}  // namespace tarn
