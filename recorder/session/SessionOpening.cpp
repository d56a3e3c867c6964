#include "recorder/session/SessionOpening.h"

#include <cstdio>

#include "recorder/rows/ChannelLock.h"
#include "recorder/rows/RamReserve.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/ServerFailure.h"

namespace tarn {
namespace {

constexpr char kSqlGreatestKey[] =
    "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = 'STREAM'), 0)";

}  // namespace

// The process first: what another one records is no matter of channels.
OpeningFailure InserterLocks::take(int channel, bool sound, const Sentences& sentences) {
  const FileLock::Outcome process = process_.enter();
  if (process == FileLock::Outcome::kHeldByOther)
    return {RecordingError::kBadOption, sentences.otherProcess};
  if (process != FileLock::Outcome::kTaken) return {RecordingError::kDatabase, kErrInsertLock};
  char path[64];
  if (sound) {
    snprintf(path, sizeof path, kSoundLock, channel);
  } else {
    snprintf(path, sizeof path, kChannelLock, channel);
  }
  const FileLock::Outcome outcome = channel_.take(path, false);
  if (outcome == FileLock::Outcome::kHeldByOther)
    return {RecordingError::kBadOption, sentences.channelBusy};
  if (outcome != FileLock::Outcome::kTaken) return {RecordingError::kDatabase, kErrChannelLock};
  RamReserve::keep();
  return {};
}

void InserterLocks::letGo() {
  channel_.unlock();
  process_.leave();
}

OpeningFailure watchDatabase(DatabaseWatch* watch, RowQueries* queries, RecordingSpace* space) {
  if (!watch->begin()) return {RecordingError::kDatabase, kErrDatabaseGone};
  uint32_t greatest = 0;
  if (!queries->number(kSqlGreatestKey, &greatest))
    return {RecordingError::kDatabase, queries->failure()};
  space->noteKey(greatest);
  return {};
}

OpeningFailure connectToServer(CTARNStreamManager* manager) {
  bool good = false;
  retryFor(kServerPatienceMs, [&] {
    good = manager->openManageData() == 0;
    if (!good) manager->closeManageData();
    return good || cardRefused(*manager);
  });
  const ServerFailure failure = serverFailure(*manager);
  return good ? OpeningFailure{} : OpeningFailure{failure.error, failure.text};
}

}  // namespace tarn
