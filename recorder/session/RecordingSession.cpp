#include "recorder/session/RecordingSession.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "db/CApiDb.h"
#include "db/RowStatus.h"
#include "fat/ChunkFiles.h"
#include "fat/FailureMarker.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/rows/ChannelLock.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/FileLock.h"
#include "recorder/rows/InsertingProcess.h"
#include "recorder/rows/JournalGuard.h"
#include "recorder/rows/JournalPlace.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/rows/RamReserve.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSpace.h"
#include "recorder/session/RowWriter.h"
#include "recorder/session/ServerFailure.h"

namespace tarn {
namespace {

// Held while rows are ended, room is made and rows begin, by one session at a time: between a
// session's rows its chunk has no row in progress that would keep others away from it.
constexpr char kAllocationLock[] = "/tmp/tarn-recording.lock";
constexpr int64_t kMaxGapUs = 8000000;
constexpr int64_t kMaxStepBackUs = 1000000;
// Guesses until a GOP has been seen.
constexpr uint32_t kFirstGopPictures = 60;
constexpr uint32_t kFirstGopBytes = 512 * 1024;
constexpr char kSqlLeftOpen[] =
    "SELECT * FROM STREAM WHERE recSize = 0 AND endDate = 0 ORDER BY streamID ASC";
constexpr char kSqlGreatestKey[] =
    "SELECT COALESCE((SELECT seq FROM sqlite_sequence WHERE name = 'STREAM'), 0)";
constexpr char kSqlEventOfKey[] = "SELECT * FROM EVENT WHERE eventID = %u";
// A step forward of more than this is a clock that was set, no gap.
constexpr int64_t kClockSetUs = int64_t{3600} * 1000000;
constexpr DB_EVENT_REG_BIT kEventEnd = kEventRegEndDate | kEventRegEndMSec;

}  // namespace

class RecordingSession::Impl {
 public:
  ~Impl() {
    writer_.closeChunk();  // while there is still a server to tell
    manager_.closeManageData();
  }

  int open(const RecordingOptions& options);
  int write(const void* annexB, size_t size, const PictureEntry& entry);
  void markDiscontinuity() { gap_ = true; }
  int flush();
  int tick();
  int clockStepped(int64_t deltaUs);
  uint32_t beginEvent(uint16_t trigger, PictureTime time, uint16_t preSec);
  int endEvent(uint32_t eventID, PictureTime time);
  int close();

  void failForMemory() {
    if (error_ != RecordingError::kNone) return;
    error_ = RecordingError::kNoMemory;
    text_ = kErrNoMemory;
  }

  bool isOpen() const { return open_; }
  uint32_t streamID() const { return writer_.running() ? writer_.row().streamID : 0; }
  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }
  const RecordingStatistics& statistics() const { return statistics_; }

 private:
  struct RunningEvent {
    DB_EVENT row;
    bool overtaken = false;  // the clock was set since it began
    PictureTime end;         // then: the last picture before that
  };

  bool fail(RecordingError error, const char* text);
  bool failAs(const RowWriter& writer) { return fail(writer.error(), writer.errorText()); }
  bool fail(JournaledRows::Outcome outcome);
  bool checkOptions();
  bool checkCard();
  bool takeLocks();
  bool watchDatabase();
  bool connect();
  bool closeLeftOvers();
  bool ownedByChannel(const DB_STREAM& row);

  RecordingSpace::Need need(size_t picture);
  bool segmentOver(const PictureEntry& entry) const;
  bool roomIsLow();
  bool prepareRow(size_t size, PictureEntry* entry);
  bool changeRow(size_t size, const PictureEntry& entry, bool newChunk);
  bool takeChunk(size_t size, uint32_t now);
  bool beginRow(const PictureEntry& entry);
  void count(size_t size, const PictureEntry& entry);
  bool jumps(PictureTime decode) const;
  void noteClock(PictureTime decode);
  void endOldTimes();
  bool makeEventPlace(JournalGuard* guard);
  bool endRow(const RunningEvent& event, PictureTime time);
  bool flushBefore(PictureTime decode);

  RecordingOptions options_;
  bool open_ = false;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
  GeometryReport geometry_;  // of the last open(), whose text text_ may be
  RecordingStatistics statistics_;

  FileLock channelLock_;
  InsertingProcess process_;
  CTARNStreamManager manager_{kRecorderPartition};
  CApiDb db_;
  DatabaseWatch watch_;
  RowQueries queries_{&db_, &watch_};
  JournaledRows rows_{&db_, &watch_};
  RecordingSpace space_{&manager_, &db_, &watch_, &statistics_};
  RowWriter writer_{&manager_, &db_, &watch_, &space_, &statistics_};

  bool started_ = false;       // a row was begun in this session
  bool gap_ = true;            // what comes next begins a session or follows a gap
  bool stepped_ = false;       // what comes next has the times of a clock that was set
  int64_t unsafeSinceMs_ = 0;  // monotonic; when the oldest picture that is not safe was written
  PictureTime rowStart_;
  PictureTime lastDecode_;
  PictureTime latest_;  // greatest presentation time
  uint32_t gopBytes_ = 0;
  uint32_t gopPictures_ = 0;
  uint32_t maxGopBytes_ = 0;
  uint32_t maxGopPictures_ = 0;
  std::vector<RunningEvent> runningEvents_;
};

bool RecordingSession::Impl::fail(RecordingError error, const char* text) {
  if (error_ != RecordingError::kNone) return false;
  error_ = error;
  text_ = text;
  syslog(LOG_ERR, kMsgSessionFailed, options_.channel, text);
  writer_.rescue();
  return false;
}

bool RecordingSession::Impl::fail(JournaledRows::Outcome outcome) {
  if (outcome == JournaledRows::Outcome::kDone) return true;
  return fail(outcome == JournaledRows::Outcome::kJournal ? RecordingError::kJournal
                                                          : RecordingError::kDatabase,
              rows_.failure());
}

bool RecordingSession::Impl::checkOptions() {
  if ((options_.frameSet & kFrameSetAudio) != 0)
    return fail(RecordingError::kBadOption, kErrAudioBit);
  if (options_.channel < 0) return fail(RecordingError::kBadOption, kErrChannel);
  return !cardWriteFailed() || fail(RecordingError::kCard, kErrMarker);
}

// The process first: what another one records is no matter of channels.
bool RecordingSession::Impl::takeLocks() {
  const FileLock::Outcome process = process_.enter();
  if (process == FileLock::Outcome::kHeldByOther)
    return fail(RecordingError::kBadOption, kErrOtherProcess);
  if (process != FileLock::Outcome::kTaken) return fail(RecordingError::kDatabase, kErrInsertLock);
  char path[64];
  snprintf(path, sizeof path, kChannelLock, options_.channel);
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
  return rowInProgress(row) && (row.status & kStatusNotVideo) == 0 &&
         (row.frameSet & kFrameSetAudio) == 0 && row.chunkID < manager_.getNumChunk() &&
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

int RecordingSession::Impl::open(const RecordingOptions& options) {
  options_ = options;
  open_ = checkOptions() && takeLocks() && checkCard() && watchDatabase() && connect() &&
          closeLeftOvers();
  return open_ ? 0 : -1;
}

// Room for about two GOPs, for the picture at hand at least, and for no more than a quarter of a
// chunk: on small chunks asking for more would throw away more than is won.
RecordingSpace::Need RecordingSession::Impl::need(size_t picture) {
  const auto streamSize = static_cast<uint32_t>(manager_.streamChunkSize());
  const auto pictureSize = static_cast<uint32_t>(manager_.pictureChunkSize());
  const uint32_t second = options_.bitrate != 0 ? options_.bitrate / 8 : kFirstGopBytes;
  const uint32_t gop = maxGopBytes_ != 0 ? maxGopBytes_ : second;
  const uint32_t pictures = maxGopPictures_ != 0 ? maxGopPictures_ : kFirstGopPictures;
  const auto least = static_cast<uint32_t>(picture + kTimeStampSeiSize);
  return {std::max(std::min(gop, streamSize / 8) * 2, least),
          std::min((pictures * 2 + 2) * kRecordSize, pictureSize / 4)};
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
  for (RunningEvent& event : runningEvents_) {
    if (event.overtaken) continue;
    event.overtaken = true;
    event.end = latest_;
  }
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
  if (writer_.running() && !writer_.finish()) return failAs(writer_);
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
  if (entry.isKey()) gopBytes_ = gopPictures_ = 0;
  gopBytes_ += static_cast<uint32_t>(size + kTimeStampSeiSize);
  ++gopPictures_;
  maxGopBytes_ = std::max(maxGopBytes_, gopBytes_);
  maxGopPictures_ = std::max(maxGopPictures_, gopPictures_);
  noteClock(entry.decodeTime());
  lastDecode_ = entry.decodeTime();
  if (latest_ < entry.presentation) latest_ = entry.presentation;
  ++statistics_.pictures;
  statistics_.bytes += size;
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
  if (!writer_.hasUnsafe()) unsafeSinceMs_ = monotonicMs();
  if (!writer_.append(static_cast<const uint8_t*>(annexB), size, entry)) {
    failAs(writer_);
    return -1;
  }
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

int RecordingSession::Impl::clockStepped(int64_t deltaUs) {
  if (!open_ || error_ != RecordingError::kNone) return -1;
  if (deltaUs == 0 || !started_) return 0;
  syslog(LOG_NOTICE, kMsgClockStepped, options_.channel, deltaUs);
  stepped_ = true;
  endOldTimes();
  if (!writer_.running()) return 0;
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) {
    fail(RecordingError::kServer, kErrLock);
    return -1;
  }
  if (!writer_.finish() && !failAs(writer_)) return -1;
  // Without a row in progress others may take the chunk; the next row asks for one again.
  writer_.closeChunk();
  return 0;
}

bool RecordingSession::Impl::makeEventPlace(JournalGuard* guard) {
  const JournalPlace place = awaitJournalPlace(
      kServerPatienceMs, [&] { return guard->beforeEventInsert(); }, [] { return false; },
      [&] { return writer_.serverAnswers(); });
  if (place == JournalPlace::kNoServer) return fail(RecordingError::kServer, kErrServer);
  if (place == JournalPlace::kFree) return true;
  const DatabaseWatch::Verdict verdict = watch_.check();
  if (verdict == DatabaseWatch::Verdict::kGood)
    return fail(RecordingError::kJournal, kErrJournalPlace);
  return fail(RecordingError::kDatabase, DatabaseWatch::text(verdict));
}

uint32_t RecordingSession::Impl::beginEvent(uint16_t trigger, PictureTime time, uint16_t preSec) {
  if (!open_ || error_ != RecordingError::kNone) return 0;
  JournalGuard guard(&db_, &watch_);
  if (!makeEventPlace(&guard)) return 0;
  RunningEvent event = {};
  event.row.extTrg = trigger;
  event.row.preSec = preSec;
  event.row.startDate = time.seconds;
  event.row.startMSec = time.milliseconds();
  runningEvents_.reserve(runningEvents_.size() + 1);  // no row without its place here
  if (!fail(rows_.insert(&event.row))) return 0;
  runningEvents_.push_back(event);
  return event.row.eventID;
}

bool RecordingSession::Impl::endRow(const RunningEvent& event, PictureTime time) {
  DB_EVENT row = {};
  char sql[sizeof kSqlEventOfKey + 16];
  snprintf(sql, sizeof sql, kSqlEventOfKey, event.row.eventID);
  const RowQueries::Answer answer = queries_.event(sql, &row);
  if (answer == RowQueries::Answer::kFailed)
    return fail(RecordingError::kDatabase, queries_.failure());
  // Given up with the recordings that it covered, to make room: nothing is left to end.
  if (answer == RowQueries::Answer::kNone) return true;
  DB_EVENT ended = row;
  ended.endDate = time.seconds;
  ended.endMSec = time.milliseconds();
  return fail(rows_.update(kEventEnd, row, ended));
}

int RecordingSession::Impl::endEvent(uint32_t eventID, PictureTime time) {
  const auto found =
      std::find_if(runningEvents_.begin(), runningEvents_.end(),
                   [&](const RunningEvent& event) { return event.row.eventID == eventID; });
  if (!open_ || found == runningEvents_.end()) return -1;
  const RunningEvent event = *found;
  runningEvents_.erase(found);
  return endRow(event, time) ? 0 : -1;
}

int RecordingSession::Impl::close() {
  if (!open_) return error_ == RecordingError::kNone ? 0 : -1;
  while (!runningEvents_.empty()) {
    const RunningEvent event = runningEvents_.back();
    runningEvents_.pop_back();
    endRow(event, event.overtaken ? event.end : latest_);
  }
  FileLock allocation;
  allocation.lock(kAllocationLock, true);
  if (error_ == RecordingError::kNone && writer_.running() && !writer_.finish()) failAs(writer_);
  writer_.abandon();
  writer_.closeChunk();
  allocation.unlock();
  manager_.closeManageData();
  open_ = false;
  channelLock_.unlock();
  process_.leave();
  return error_ == RecordingError::kNone ? 0 : -1;
}

// Runs a public function's work; when memory runs out in it the session has failed.
template <typename Result, typename Work>
Result RecordingSession::guarded(const char* name, Result failed, Work work) noexcept {
  return orNoMemory(name, work, [&] {
    noMemory_ = true;
    if (impl_) impl_->failForMemory();
    return failed;
  });
}

RecordingSession::RecordingSession() = default;
RecordingSession::~RecordingSession() { close(); }

int RecordingSession::open(const RecordingOptions& options) {
  if (impl_ && impl_->isOpen()) return -1;
  noMemory_ = false;
  return guarded("RecordingSession::open", -1, [&] {
    impl_.reset();
    impl_ = std::make_unique<Impl>();
    return impl_->open(options);
  });
}

int RecordingSession::writePicture(const void* annexB, size_t size, PictureTime presentation,
                                   int32_t decodeOffsetUs, bool key) {
  if (!impl_) return -1;
  PictureEntry entry;
  entry.presentation = presentation;
  entry.decodeOffsetUs = decodeOffsetUs;
  entry.flags = key ? kEntryKeyPicture : uint16_t{0};
  return guarded("RecordingSession::writePicture", -1,
                 [&] { return impl_->write(annexB, size, entry); });
}

void RecordingSession::markDiscontinuity() {
  if (impl_) impl_->markDiscontinuity();
}

int RecordingSession::flush() {
  if (!impl_) return -1;
  return guarded("RecordingSession::flush", -1, [&] { return impl_->flush(); });
}

int RecordingSession::tick() {
  if (!impl_) return -1;
  return guarded("RecordingSession::tick", -1, [&] { return impl_->tick(); });
}

int RecordingSession::clockStepped(int64_t deltaUs) {
  if (!impl_) return -1;
  return guarded("RecordingSession::clockStepped", -1,
                 [&] { return impl_->clockStepped(deltaUs); });
}

uint32_t RecordingSession::beginEvent(uint16_t trigger, PictureTime time, uint16_t preSec) {
  if (!impl_) return 0;
  return guarded("RecordingSession::beginEvent", uint32_t{0},
                 [&] { return impl_->beginEvent(trigger, time, preSec); });
}

int RecordingSession::endEvent(uint32_t eventID, PictureTime time) {
  if (!impl_) return -1;
  return guarded("RecordingSession::endEvent", -1, [&] { return impl_->endEvent(eventID, time); });
}

// What memory is missing for is left out, so that the locks are given back in any case.
int RecordingSession::close() {
  if (!impl_) return noMemory_ ? -1 : 0;
  const int result = guarded("RecordingSession::close", -1, [&] { return impl_->close(); });
  if (!impl_->isOpen()) return result;
  guarded("RecordingSession::close", -1, [&] { return impl_->close(); });
  return -1;
}

bool RecordingSession::isOpen() const { return impl_ && impl_->isOpen(); }
uint32_t RecordingSession::streamID() const { return impl_ ? impl_->streamID() : 0; }

RecordingError RecordingSession::error() const {
  if (impl_ && impl_->error() != RecordingError::kNone) return impl_->error();
  return noMemory_ ? RecordingError::kNoMemory : RecordingError::kNone;
}

const char* RecordingSession::errorText() const {
  if (impl_ && impl_->error() != RecordingError::kNone) return impl_->errorText();
  return noMemory_ ? kErrNoMemory : "";
}

RecordingStatistics RecordingSession::statistics() const {
  return impl_ ? impl_->statistics() : RecordingStatistics();
}

}  // namespace tarn
