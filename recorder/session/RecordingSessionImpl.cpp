#include "recorder/session/RecordingSessionImpl.h"

#include <syslog.h>

#include <algorithm>

#include "recorder/card/NoThrow.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/RecordingMessages.h"

namespace tarn {
namespace {

constexpr int64_t kMaxGapUs = 8000000;
constexpr int64_t kMaxStepBackUs = 1000000;
// A step forward of more than this is a clock that was set, no gap.
constexpr int64_t kClockSetUs = int64_t{3600} * 1000000;

}  // namespace

RecordingSession::Impl::~Impl() {
  writer_.closeChunk();  // while there is still a server to tell
  manager_.closeManageData();
}

void RecordingSession::Impl::failForMemory() {
  if (error_ != RecordingError::kNone) return;
  error_ = RecordingError::kNoMemory;
  text_ = kErrNoMemory;
}

bool RecordingSession::Impl::fail(RecordingError error, const char* text) {
  if (error_ != RecordingError::kNone) return false;
  error_ = error;
  text_ = text;
  syslog(LOG_ERR, kMsgSessionFailed, options_.channel, text);
  writer_.rescue();
  return false;
}

RecordingSpace::Need RecordingSession::Impl::need(size_t picture) {
  return gops_.need(picture, static_cast<uint32_t>(manager_.streamChunkSize()),
                    static_cast<uint32_t>(manager_.pictureChunkSize()));
}

bool RecordingSession::Impl::roomIsLow() {
  const RecordingSpace::Need low = need(0);
  return writer_.streamRoom() <= low.streamBytes || writer_.pictureRoom() <= low.pictureBytes;
}

bool RecordingSession::Impl::segmentOver(const PictureEntry& entry) const {
  return options_.segmentSeconds != 0 &&
         entry.presentation.totalMicros() - rowStart_.totalMicros() >=
             int64_t{options_.segmentSeconds} * 1000000;
}

bool RecordingSession::Impl::jumps(PictureTime decode) const {
  const int64_t step = decode.totalMicros() - lastDecode_.totalMicros();
  return started_ && (step > kMaxGapUs || step < -kMaxStepBackUs);
}

// A clock that was set: what ran until then ends with the last picture of its own time. A gap of
// an hour or less is one of the encoder, and an event may go on behind it.
void RecordingSession::Impl::noteClock(PictureTime decode) {
  const int64_t step = decode.totalMicros() - lastDecode_.totalMicros();
  if (statistics_.pictures == 0 || (step >= -kMaxStepBackUs && step <= kClockSetUs)) return;
  endOldTimes();
}

void RecordingSession::Impl::endOldTimes() {
  events_.clockWasSet(latest_);
  latest_ = PictureTime();
}

bool RecordingSession::Impl::takeChunk(size_t size, uint32_t now) {
  writer_.closeChunk();
  const int chunk = space_.take(options_.channel, options_.recType, need(size), now);
  if (chunk < 0) return fail(space_.error(), space_.errorText());
  return writer_.openChunk(chunk) || failAs(writer_);
}

bool RecordingSession::Impl::beginRow(const PictureEntry& entry) {
  DB_STREAM seed = {};
  seed.inTrg = options_.inTrg;
  seed.frameSet = options_.frameSet;
  seed.bitrateSet = options_.bitrate;
  seed.startDate = entry.presentation.seconds;
  seed.startMSec = entry.presentation.milliseconds();
  if (!writer_.begin(seed)) return failAs(writer_);
  rowStart_ = entry.presentation;
  started_ = true;
  return true;
}

bool RecordingSession::Impl::changeRow(size_t size, const PictureEntry& entry, bool newChunk) {
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) return fail(RecordingError::kServer, kErrLock);
  if (writer_.running() && !writer_.endBeforeNext()) return failAs(writer_);
  if ((newChunk || writer_.chunk() < 0) && !takeChunk(size, entry.presentation.seconds))
    return false;
  return beginRow(entry);
}

// Sees to it that a row runs that has room for the picture.
bool RecordingSession::Impl::prepareRow(size_t size, PictureEntry* entry) {
  const bool gap = gap_ || stepped_ || jumps(entry->decodeTime());
  if (gap) entry->flags |= kEntryDiscontinuity;
  bool change = !writer_.running() || gap;
  bool newChunk = false;
  if (writer_.running()) {
    change = change || (entry->isKey() && segmentOver(*entry));
    newChunk = !writer_.fits(size) || ((entry->isKey() || change) && roomIsLow());
  }
  if ((change || newChunk) && !changeRow(size, *entry, newChunk)) return false;
  gap_ = stepped_ = false;
  return true;
}

void RecordingSession::Impl::count(size_t size, const PictureEntry& entry) {
  gops_.add(size, entry.isKey());
  noteClock(entry.decodeTime());
  lastDecode_ = entry.decodeTime();
  if (latest_ < entry.presentation) latest_ = entry.presentation;
  ++statistics_.pictures;
  statistics_.bytes += size;
}

// The writer may make the pictures before this one safe on its way; then this is the oldest that is
// not.
bool RecordingSession::Impl::appendTimed(const uint8_t* annexB, size_t size,
                                         const PictureEntry& entry) {
  const int64_t now = monotonicMs();
  if (!writer_.hasUnsafe()) unsafeSinceMs_ = now;
  const uint64_t safe = statistics_.confirmed;
  if (!writer_.append(annexB, size, entry)) return failAs(writer_);
  if (statistics_.confirmed != safe) unsafeSinceMs_ = now;
  return true;
}

int RecordingSession::Impl::write(const void* annexB, size_t size, const PictureEntry& given) {
  if (!open_ || error_ != RecordingError::kNone) return -1;
  if (size == 0 || size + kTimeStampSeiSize >= manager_.streamChunkSize()) {
    fail(RecordingError::kTooLarge, kErrPictureSize);
    return -1;
  }
  if (gap_ && !given.isKey()) return 0;
  PictureEntry entry = given;
  if (!flushBefore(entry.decodeTime()) || !prepareRow(size, &entry)) return -1;
  if (!appendTimed(static_cast<const uint8_t*>(annexB), size, entry)) return -1;
  const int64_t step = entry.decodeTime().totalMicros() - lastDecode_.totalMicros();
  count(size, entry);
  // When the next picture is expected after the interval, what is here must not wait for it.
  return flushBefore(PictureTime::fromMicros(lastDecode_.totalMicros() + step)) ? 0 : -1;
}

// Keeps the promise of the flush interval for a picture that comes at `decode`.
bool RecordingSession::Impl::flushBefore(PictureTime decode) {
  const int64_t interval = int64_t{options_.flushIntervalMs} * 1000;
  if (!writer_.running() || writer_.unsafeMicros(decode) < interval) return true;
  return flush() == 0;
}

int RecordingSession::Impl::flush() {
  if (!open_ || error_ != RecordingError::kNone) return -1;
  if (!writer_.running() || writer_.flush()) return 0;
  failAs(writer_);
  return -1;
}

int RecordingSession::Impl::tick() {
  if (!open_ || error_ != RecordingError::kNone) return -1;
  if (!writer_.hasUnsafe() || monotonicMs() - unsafeSinceMs_ < options_.flushIntervalMs) return 0;
  return flush();
}

uint32_t RecordingSession::Impl::beginEvent(uint16_t trigger, PictureTime time, uint16_t preSec) {
  if (!open_ || error_ != RecordingError::kNone) return 0;
  const uint32_t eventID = events_.begin(trigger, time, preSec);
  if (eventID == 0) failAs(events_);
  return eventID;
}

int RecordingSession::Impl::endEvent(uint32_t eventID, PictureTime time) {
  if (!open_ || !events_.isRunning(eventID)) return -1;
  return events_.end(eventID, time) || failAs(events_) ? 0 : -1;
}

int RecordingSession::Impl::close() {
  if (!open_) return error_ == RecordingError::kNone ? 0 : -1;
  while (events_.hasRunning()) {
    if (!events_.endLast(latest_)) failAs(events_);
  }
  FileLock allocation;
  allocation.lock(kAllocationLock, true);
  if (error_ == RecordingError::kNone && writer_.running() && !writer_.finish()) failAs(writer_);
  writer_.abandon();
  writer_.closeChunk();
  allocation.unlock();
  manager_.closeManageData();
  open_ = false;
  locks_.letGo();
  return error_ == RecordingError::kNone ? 0 : -1;
}

}  // namespace tarn
