#include "recorder/session/PieceCopier.h"

#include <syslog.h>

#include <cstdio>

#include "base/Omission.h"
#include "db/RowStatus.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/FileLock.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/KeptMessages.h"
#include "recorder/session/RecordingMessages.h"

namespace tarn {
namespace {

// What is copied between two pauses, flushed at its end: so much may wait in the system's memory
// when a session flushes its own.
constexpr uint32_t kStepBytes = 256 * 1024;
constexpr char kSqlListed[] = "SELECT * FROM STREAM WHERE streamID = %u";

// A copy of a recording that was re-dated has its right times in its entries, and is marked: it is
// not one to be re-dated with the others.
uint32_t statusOfCopy(const CopySource& source) {
  return keptStatus(source.channel) | (source.row.status & kStatusRedated);
}

// What makes it a whole one comes with its end.
uint32_t statusWhileOpen(const CopySource& source) {
  if (omitted("kept-whole-last")) return statusOfCopy(source) | kStatusKeptWhole;
  return statusOfCopy(source);
}

}  // namespace

PieceCopier::PieceCopier(CTARNStreamManager* manager, CApiDb* db, DatabaseWatch* watch,
                         RecordingSpace* rings, KeptSpace* space)
    : queries_(db, watch), space_(space), writer_(manager, db, watch, rings, &statistics_) {}

void PieceCopier::start(const KeptCopies::Pause* pause, KeepResult* result) {
  pause_ = pause;
  result_ = result;
  spared_.clear();
}

KeepOutcome PieceCopier::end(KeepOutcome outcome, const char* text) {
  text_ = text;
  return outcome;
}

KeepOutcome PieceCopier::fail(RecordingError error, const char* text) {
  error_ = error;
  return end(KeepOutcome::kFailed, text);
}

KeepOutcome PieceCopier::takeChunk(const std::vector<PictureEntry>& piece, int* chunk) {
  RecordingSpace::Need need;
  for (const PictureEntry& entry : piece) need.streamBytes += entry.size;
  need.pictureBytes = static_cast<uint32_t>(piece.size() + 2) * kRecordSize;
  switch (space_->take(need, piece.front().presentation.seconds, spared_, chunk)) {
    case KeptSpace::Answer::kFull:
      return end(KeepOutcome::kFull, kErrKeepFull);
    case KeptSpace::Answer::kFailed:
      return fail(space_->error(), space_->errorText());
    case KeptSpace::Answer::kChunk:
      break;
  }
  return KeepOutcome::kDone;
}

KeepOutcome PieceCopier::begin(const CopySource& source, const std::vector<PictureEntry>& piece) {
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) return fail(RecordingError::kServer, kErrLock);
  int chunk = -1;
  const KeepOutcome taken = takeChunk(piece, &chunk);
  if (taken != KeepOutcome::kDone) return taken;
  const PictureTime start = piece.front().presentation;
  DB_STREAM seed = {};
  seed.inTrg = source.row.inTrg;
  seed.frameSet = source.row.frameSet;
  seed.bitrateSet = source.row.streamID;
  seed.status = statusWhileOpen(source);
  seed.startDate = start.seconds;
  seed.startMSec = start.milliseconds();
  if (writer_.openChunk(chunk) && writer_.begin(seed)) return KeepOutcome::kDone;
  writer_.closeChunk();
  return failWriter();
}

KeepOutcome PieceCopier::step(uint32_t bytes) {
  if (!writer_.flush()) return failWriter();
  if (*pause_ && !(*pause_)(bytes)) return end(KeepOutcome::kStopped, kErrKeepStopped);
  return KeepOutcome::kDone;
}

// A picture that cannot be read is left out with those that need it; what is damaged goes along, as
// what it is.
KeepOutcome PieceCopier::copyPictures(CopyPlan* plan, const std::vector<PictureEntry>& piece) {
  std::vector<uint8_t> bytes;
  uint32_t sinceStep = 0;
  bool waitForKey = false;
  for (PictureEntry entry : piece) {
    const bool skip = waitForKey && !plan->stands(entry);
    if (skip || !plan->reader().readPicture(entry, &bytes, true)) {
      if (!skip && plan->reader().lackedMemory())
        return fail(RecordingError::kNoMemory, kErrNoMemory);
      waitForKey = true;
      ++result_->missing;
      continue;
    }
    if (waitForKey) entry.flags |= kEntryDiscontinuity;
    waitForKey = false;
    if (!writer_.appendCopy(bytes.data(), entry)) return failWriter();
    sinceStep += entry.size;
    if (sinceStep < kStepBytes) continue;
    const KeepOutcome outcome = step(sinceStep);
    if (outcome != KeepOutcome::kDone) return outcome;
    sinceStep = 0;
  }
  return step(sinceStep);
}

// Room is written over only once its row is gone. So what was read is what was recorded if the row
// is still there when all of it has been read. Where it was re-dated meanwhile the copy has the
// times of before, and nothing would move them any more.
KeepOutcome PieceCopier::isAsItWas(const CopySource& source) {
  char sql[sizeof kSqlListed + 16];
  snprintf(sql, sizeof sql, kSqlListed, source.row.streamID);
  DB_STREAM now = {};
  const RowQueries::Answer answer = queries_.stream(sql, &now);
  if (answer == RowQueries::Answer::kFailed)
    return fail(RecordingError::kDatabase, queries_.failure());
  if (answer == RowQueries::Answer::kNone) return end(KeepOutcome::kGone, kErrKeepGone);
  const bool same = now.startDate == source.row.startDate;
  return same ? KeepOutcome::kDone : end(KeepOutcome::kNotYet, kErrKeepRedated);
}

KeepOutcome PieceCopier::finish(const CopySource& source) {
  const KeepOutcome same = isAsItWas(source);
  if (same != KeepOutcome::kDone) return same;
  return writer_.finish(kStatusKeptWhole) ? KeepOutcome::kDone : failWriter();
}

KeepOutcome PieceCopier::copy(const CopySource& source, CopyPlan* plan,
                              const std::vector<PictureEntry>& piece) {
  const uint64_t before = statistics_.confirmed;
  KeepOutcome outcome = begin(source, piece);
  if (outcome != KeepOutcome::kDone) return outcome;
  outcome = copyPictures(plan, piece);
  const DB_STREAM row = writer_.row();
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) outcome = fail(RecordingError::kServer, kErrLock);
  if (outcome == KeepOutcome::kDone) outcome = finish(source);
  if (outcome != KeepOutcome::kDone) writer_.drop();
  writer_.closeChunk();
  if (outcome != KeepOutcome::kDone) return outcome;
  const auto pictures = static_cast<uint32_t>(statistics_.confirmed - before);
  spared_.insert(row.streamID);
  ++result_->copies;
  result_->pictures += pictures;
  for (const PictureEntry& entry : piece) result_->bytes += entry.size;
  syslog(LOG_INFO, kMsgKept, source.row.streamID, source.channel, pictures, row.startDate,
         row.streamID);
  return outcome;
}

}  // namespace tarn
