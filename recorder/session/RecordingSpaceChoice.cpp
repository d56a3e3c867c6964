// Which chunk a stretch of recording gets, as long as one has room.
#include <cstdio>
#include <string>

#include "base/Omission.h"
#include "base/Wrap.h"
#include "chunk/ChunkArea.h"
#include "db/RowStatus.h"
#include "manager/CTARNStreamManager.h"
#include "manager/ManageFormat.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/SoundFormat.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSpace.h"

namespace tarn {
namespace {

// Chunks of the channel that have stream room and no room for entries are passed over this often.
constexpr int kPickTries = 4;
// Chunks of the kind that are looked at, from the newest recording's on: a few of each channel.
constexpr int kChunksLookedBack = 32;

constexpr char kSqlNewestOfKind[] = "SELECT * FROM STREAM WHERE ( frameSet & " TARN_SQL_AUDIO
                                    " ) = %u AND chunkID NOT IN (%s) ORDER BY streamID "
                                    "DESC LIMIT 1";

}  // namespace

int RecordingSpace::take(int8_t channel, int8_t recType, const Need& need, uint32_t now) {
  error_ = RecordingError::kNone;
  int chunk = pick(channel, recType, need);
  while (chunk < 0 && error_ == RecordingError::kNone) {
    DB_STREAM oldest = {};
    const RowQueries::Answer answer = oldestDeletable(&oldest);
    if (answer == RowQueries::Answer::kFailed) return -1;
    if (answer == RowQueries::Answer::kNone) {
      if (!reclaimOrphans(channel)) break;
      chunk = pick(channel, recType, need);
      if (chunk < 0) break;
    } else {
      // Every round deletes a row, so the rounds end.
      if (!deleteRecording(oldest, now, -1)) return -1;
      const int freed = static_cast<int>(oldest.chunkID);
      if (oldest.chunkID < manager_->getNumChunk() && usable(freed, channel, need)) chunk = freed;
    }
  }
  if (chunk >= 0) return claim(chunk, channel, recType);
  if (error_ == RecordingError::kNone)
    fail(RecordingError::kNoRoom, everyChunkIsBusy() ? kErrTooFewChunks : kErrNoRoom);
  return -1;
}

// No chunk and no answer look the same, so "none" counts only when the server has decided so: what
// follows from it is that the oldest recording goes.
int RecordingSpace::pick(int8_t channel, int8_t recType, const Need& need) {
  int chunk = -1;
  const bool decided = retryFor(kServerPatienceMs, [&] {
    chunk = pickNow(channel, recType, need);
    return chunk >= 0 || serverDecided(*manager_);
  });
  if (!decided) failServer();
  return decided ? chunk : -1;
}

// The server looks at the stream area only, and at no rows. A chunk whose picture area is full, or
// that holds the other kind, is passed over by asking for more than it has. Sound is little: its
// chunk has room for long, and another one is not begun because pictures were recorded meanwhile.
int RecordingSpace::pickNow(int8_t channel, int8_t recType, const Need& need) {
  if (need.sound) {
    const int chunk = pickAmongKind(channel, need);
    if (chunk >= 0 || error_ != RecordingError::kNone) return chunk;
  }
  bool otherKind = false;
  unsigned long bytes = need.streamBytes + 1ul;  // a ring keeps one byte free
  for (int i = 0; i < kPickTries; ++i) {
    const int chunk = manager_->firstAvailableChunk(bytes, channel, recType);
    if (chunk < 0) return -1;
    if (usable(chunk, channel, need)) return chunk;
    if (error_ != RecordingError::kNone) return -1;
    if (!otherKind && !isOfKind(chunk, need.sound)) {
      otherKind = true;
      const int other = pickUnused(channel, recType, need);
      if (other >= 0 || error_ != RecordingError::kNone) return other;
    }
    bytes = manager_->freeSize(asChunk(chunk)) + 1ul;
  }
  return -1;
}

// The server offered a chunk of the other kind: what it would have offered without that one.
int RecordingSpace::pickUnused(int8_t channel, int8_t recType, const Need& need) {
  if (!need.sound) {
    const int chunk = pickAmongKind(channel, need);
    if (chunk >= 0 || error_ != RecordingError::kNone) return chunk;
  }
  const int chunk = manager_->firstAvailableChunk(need.streamBytes + 1ul, kChannelUnused, recType);
  return chunk >= 0 && usable(chunk, channel, need) ? chunk : -1;
}

int RecordingSpace::pickAmongKind(int8_t channel, const Need& need) {
  std::string seen = "-1";
  for (int i = 0; i < kChunksLookedBack; ++i) {
    char sql[1024];
    snprintf(sql, sizeof sql, kSqlNewestOfKind, need.sound ? unsigned{kFrameSetAudio} : 0u,
             seen.c_str());
    DB_STREAM row = {};
    if (selectOne(sql, &row) != RowQueries::Answer::kRow) return -1;
    const int chunk = static_cast<int>(row.chunkID);
    if (row.chunkID < manager_->getNumChunk() && usable(chunk, channel, need)) return chunk;
    if (error_ != RecordingError::kNone) return -1;
    seen += "," + std::to_string(row.chunkID);
  }
  return -1;
}

// A chunk without a recording is of either kind.
bool RecordingSpace::isOfKind(int chunk, bool sound) {
  DB_STREAM row = {};
  const RowQueries::Answer answer = newestInChunk(chunk, &row);
  if (answer == RowQueries::Answer::kFailed) return false;
  return answer == RowQueries::Answer::kNone || isSound(row) == sound;
}

bool RecordingSpace::usable(int chunk, int8_t channel, const Need& need) {
  signed char owner = 0;
  signed char type = 0;
  if (manager_->getChType(asChunk(chunk), &owner, &type) != 0) return false;
  if (owner == kChannelUnused) return true;
  CHUNK_USAGE picture = {};
  if (owner != channel || manager_->getUsage(asChunk(chunk), &picture, kAreaPicture) != 0)
    return false;
  const auto pictureSize = static_cast<uint32_t>(manager_->pictureChunkSize());
  return manager_->freeSize(asChunk(chunk)) > need.streamBytes &&
         ringFree(picture.useAddr, picture.freeAddr, pictureSize) > need.pictureBytes &&
         (channel == kKeptChannel || isOfKind(chunk, need.sound));
}

// A fresh chunk is given its channel. One without a channel whose rows are still there is nobody's
// to give.
int RecordingSpace::claim(int chunk, int8_t channel, int8_t recType) {
  if (omitted("channel-of-chunk")) return begun(chunk);
  signed char owner = 0;
  signed char type = 0;
  bool foreign = false;
  if (!chunkHasRows(chunk, &foreign)) return -1;
  const bool done = retryFor(kServerPatienceMs, [&] {
    if (manager_->getChType(asChunk(chunk), &owner, &type) != 0) return false;
    if (owner != kChannelUnused || foreign) return true;
    return emptyChunk(chunk) && manager_->setChType(asChunk(chunk), channel, recType) == 0;
  });
  if (!done) {
    failServer();
    return -1;
  }
  if (owner == kChannelUnused && foreign) {
    fail(RecordingError::kDatabase, kErrForeignRows);
    return -1;
  }
  return begun(chunk);
}

// Only sessions that end give such chunks up.
bool RecordingSpace::everyChunkIsBusy() {
  for (int chunk = 0; chunk < manager_->getNumChunk(); ++chunk) {
    DB_STREAM newest = {};
    if (newestInChunk(chunk, &newest) != RowQueries::Answer::kRow || !rowInProgress(newest))
      return false;
  }
  return true;
}

int RecordingSpace::begun(int chunk) {
  if (!save()) return -1;
  ++statistics_->chunks;
  return chunk;
}

}  // namespace tarn
