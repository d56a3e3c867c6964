#include "recorder/session/KeptCopies.h"

#include <syslog.h>

#include <cstdio>
#include <string>
#include <vector>

#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "fat/FailureMarker.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/DatabaseConnection.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/FileLock.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/CopyPlan.h"
#include "recorder/session/KeptMessages.h"
#include "recorder/session/KeptSpace.h"
#include "recorder/session/PieceCopier.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSpace.h"
#include "recorder/session/SessionOpening.h"

namespace tarn {
namespace {

// Entries of a piece in memory.
constexpr uint32_t kMostPictures = 8192;
constexpr char kSqlInterrupted[] =
    "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT " AND NOT ( " TARN_SQL_KEPT_WHOLE " )";
constexpr char kSqlCopiesOf[] =
    "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT_WHOLE " AND bitrateSet = %u";

}  // namespace

class KeptCopies::Impl {
 public:
  ~Impl() { close(); }

  int open(const KeepOptions& options);
  void setOptions(const KeepOptions& options) {
    space_.setBudget(options.budgetChunks, options.strict);
  }
  KeepOutcome keep(const KeepWanted& wanted, const Pause& pause, KeepResult* result);
  int release(PictureTime from, PictureTime to, uint32_t* count);
  void close();

  bool isOpen() const { return open_; }
  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }
  void failForMemory() { fail(RecordingError::kNoMemory, kErrNoMemory); }

 private:
  bool fail(RecordingError error, const char* text);
  bool failDatabase() { return fail(RecordingError::kDatabase, queries_.failure()); }
  KeepOutcome end(KeepOutcome outcome, const char* text);
  KeepOutcome failed() const { return KeepOutcome::kFailed; }
  bool begin(const OpeningFailure& failure);
  bool checkCard();
  bool connect();
  bool dropInterrupted();
  bool chooseSources(const KeepWanted& wanted, std::vector<CopySource>* sources, bool* any);
  KeepOutcome survey(const std::vector<CopySource>& sources, const KeepWanted& wanted);
  KeepOutcome planOf(const CopySource& source, CopyPlan* plan);
  KeepOutcome copyRow(const CopySource& source, const KeepWanted& wanted);
  CopyPlan::Limits limits() const;

  bool open_ = false;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
  std::string geometry_;  // text_ may be its

  InserterLocks locks_;
  CTARNStreamManager manager_{kRecorderPartition};
  DatabaseConnection connection_;
  CApiDb& db_ = connection_.db();
  DatabaseWatch watch_;
  RowQueries queries_{&db_, &watch_};
  RecordingStatistics statistics_;
  RecordingSpace rings_{&manager_, &db_, &watch_, &statistics_};
  KeptSpace space_{&manager_, &queries_, &rings_};
  std::unique_ptr<PieceCopier> copier_;
};

bool KeptCopies::Impl::fail(RecordingError error, const char* text) {
  error_ = error;
  text_ = text;
  syslog(LOG_ERR, kMsgKeepFailed, text);
  return false;
}

KeepOutcome KeptCopies::Impl::end(KeepOutcome outcome, const char* text) {
  text_ = text;
  return outcome;
}

bool KeptCopies::Impl::begin(const OpeningFailure& failure) {
  return failure.none() || fail(failure.error, failure.text);
}

bool KeptCopies::Impl::checkCard() {
  if (cardWriteFailed()) return fail(RecordingError::kCard, kErrMarker);
  const GeometryReport report = CardGeometry::verifyRecorder();
  geometry_ = report.text;
  return report.ok() || fail(RecordingError::kCard, geometry_.c_str());
}

bool KeptCopies::Impl::connect() {
  return begin(locks_.take(kKeptChannel, false, {kErrKeepOtherProcess, kErrKeepBusy})) &&
         checkCard() && begin(watchDatabase(&watch_, &queries_, &rings_)) &&
         begin(connectToServer(&manager_)) &&
         (manager_.getNumChunk() >= 2 || fail(RecordingError::kNoRoom, kErrKeepOneChunk));
}

// A copy that never became whole shows nothing, whoever closed its row.
bool KeptCopies::Impl::dropInterrupted() {
  std::vector<DB_STREAM> rows;
  if (!queries_.streams(kSqlInterrupted, &rows)) return failDatabase();
  for (const DB_STREAM& row : rows) {
    syslog(LOG_WARNING, kMsgCopyDropped, row.streamID);
    if (!rings_.deleteCopy(row, 0)) return fail(rings_.error(), rings_.errorText());
  }
  rings_.reclaimOrphans(kKeptChannel);
  return true;
}

int KeptCopies::Impl::open(const KeepOptions& options) {
  if (!connect()) return -1;
  copier_ = std::make_unique<PieceCopier>(&manager_, &db_, &watch_, &rings_, &space_);
  setOptions(options);
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) {
    fail(RecordingError::kServer, kErrLock);
    return -1;
  }
  open_ = dropInterrupted();
  return open_ ? 0 : -1;
}

void KeptCopies::Impl::close() {
  copier_.reset();  // while there is still a server to tell
  manager_.closeManageData();
  open_ = false;
  locks_.letGo();
}

CopyPlan::Limits KeptCopies::Impl::limits() const {
  auto* manager = const_cast<CTARNStreamManager*>(&manager_);  // its getters are not const
  const auto slots = static_cast<uint32_t>(manager->pictureChunkSize() / kRecordSize);
  return {static_cast<uint32_t>(manager->streamChunkSize() / 2),
          std::min(slots / 2, kMostPictures)};
}

// *any: whether anything of that time is listed, kept or not.
bool KeptCopies::Impl::chooseSources(const KeepWanted& wanted, std::vector<CopySource>* sources,
                                     bool* any) {
  std::vector<DB_STREAM> rows;
  ChunkChannels channels;
  std::string error;
  if (watch_.check() != DatabaseWatch::Verdict::kGood ||
      !streamsOfPeriod(wanted.from.seconds, wanted.to.seconds, 0, &rows))
    return fail(RecordingError::kDatabase, kErrDatabase);
  if (channels.read(&error) != 0) return fail(RecordingError::kCard, kErrKeepRead);
  for (const DB_STREAM& row : rows) {
    const int channel = isKept(row) ? keptChannel(row) : channels.of(row.chunkID);
    if (!showsAnyOf(row, wanted.from, wanted.to)) continue;
    if (channel < 0 || (wanted.channel >= 0 && wanted.channel != channel)) continue;
    *any = true;
    if (!isKept(row)) sources->push_back({row, channel});
  }
  return true;
}

// With what of the recording is kept already. kNothing for one that cannot be read.
KeepOutcome KeptCopies::Impl::planOf(const CopySource& source, CopyPlan* plan) {
  std::vector<DB_STREAM> copies;
  char sql[sizeof kSqlCopiesOf + 16];
  snprintf(sql, sizeof sql, kSqlCopiesOf, source.row.streamID);
  if (!queries_.streams(sql, &copies)) {
    failDatabase();
    return failed();
  }
  if (!plan->open(source.row)) return KeepOutcome::kNothing;
  for (const DB_STREAM& copy : copies) {
    RecordingReader reader;
    PictureEntry first;
    PictureEntry last;
    if (reader.open(copy) != 0 || !reader.picture(0, &first) ||
        !reader.picture(reader.pictureCount() - 1, &last))
      continue;  // then it is copied again
    plan->leaveOut(first.decodeTime(), last.decodeTime());
    copier_->spare(copy.streamID);
  }
  return KeepOutcome::kDone;
}

// Before anything is given up for it: is it over, and does it fit into the budget?
KeepOutcome KeptCopies::Impl::survey(const std::vector<CopySource>& sources,
                                     const KeepWanted& wanted) {
  uint64_t bytes = 0;
  for (const CopySource& source : sources) {
    CopyPlan plan(wanted.from, wanted.to, limits());
    const KeepOutcome opened = planOf(source, &plan);
    if (opened == KeepOutcome::kNothing) continue;
    if (opened != KeepOutcome::kDone) return opened;
    if (!wanted.asItIs && !plan.isOver()) return end(KeepOutcome::kNotYet, kErrKeepNotOver);
    std::vector<PictureEntry> piece;
    while (plan.next(&piece)) {
      for (const PictureEntry& entry : piece) bytes += entry.size;
    }
  }
  if (bytes > uint64_t{space_.budget()} * manager_.streamChunkSize())
    return end(KeepOutcome::kFull, kErrKeepTooLarge);
  return KeepOutcome::kDone;
}

KeepOutcome KeptCopies::Impl::copyRow(const CopySource& source, const KeepWanted& wanted) {
  CopyPlan plan(wanted.from, wanted.to, limits());
  KeepOutcome outcome = planOf(source, &plan);
  std::vector<PictureEntry> piece;
  while (outcome == KeepOutcome::kDone && plan.next(&piece)) {
    outcome = copier_->copy(source, &plan, piece);
    if (outcome == KeepOutcome::kFailed) fail(copier_->error(), copier_->errorText());
    if (outcome != KeepOutcome::kDone) end(outcome, copier_->errorText());
  }
  copier_->noteMissing(plan.missing());
  return outcome;
}

KeepOutcome KeptCopies::Impl::keep(const KeepWanted& wanted, const Pause& pause,
                                   KeepResult* result) {
  *result = KeepResult();
  copier_->start(&pause, result);
  const uint32_t givenUp = space_.givenUp();
  std::vector<CopySource> sources;
  bool any = false;
  if (!chooseSources(wanted, &sources, &any)) return failed();
  if (!any) return end(KeepOutcome::kNothing, kErrKeepNothing);
  KeepOutcome outcome = survey(sources, wanted);
  bool gone = false;
  bool unread = false;
  for (const CopySource& source : sources) {
    if (outcome != KeepOutcome::kDone) break;
    outcome = copyRow(source, wanted);
    gone = gone || outcome == KeepOutcome::kGone;
    unread = unread || outcome == KeepOutcome::kNothing;
    // One that cannot be had is no reason to leave the others.
    if (outcome == KeepOutcome::kGone || outcome == KeepOutcome::kNothing)
      outcome = KeepOutcome::kDone;
  }
  result->givenUp = space_.givenUp() - givenUp;
  if (outcome != KeepOutcome::kDone) return outcome;
  if (unread) fail(RecordingError::kCard, kErrKeepRead);
  if (unread) return failed();
  return gone ? end(KeepOutcome::kGone, kErrKeepGone) : outcome;
}

int KeptCopies::Impl::release(PictureTime from, PictureTime to, uint32_t* count) {
  *count = 0;
  FileLock allocation;
  std::vector<DB_STREAM> rows;
  if (!allocation.lock(kAllocationLock, true)) {
    fail(RecordingError::kServer, kErrLock);
    return -1;
  }
  if (!space_.copies(&rows)) {
    fail(space_.error(), space_.errorText());
    return -1;
  }
  for (const DB_STREAM& row : rows) {
    if (!showsAnyOf(row, from, to)) continue;
    if (!rings_.deleteCopy(row, 0)) {
      fail(rings_.error(), rings_.errorText());
      return -1;
    }
    ++*count;
  }
  return 0;
}

KeptCopies::KeptCopies() = default;
KeptCopies::~KeptCopies() { close(); }

int KeptCopies::open(const KeepOptions& options) {
  return orNoMemory(
      "KeptCopies::open",
      [&]() -> int {
        if (isOpen()) return -1;
        impl_.reset();
        impl_ = std::make_unique<Impl>();
        return impl_->open(options);
      },
      [&]() -> int {
        if (impl_) impl_->failForMemory();
        return -1;
      });
}

bool KeptCopies::isOpen() const { return impl_ && impl_->isOpen(); }
void KeptCopies::setOptions(const KeepOptions& options) {
  if (isOpen()) impl_->setOptions(options);
}

KeepOutcome KeptCopies::keep(const KeepWanted& wanted, const Pause& pause, KeepResult* result) {
  return orNoMemory(
      "KeptCopies::keep",
      [&]() -> KeepOutcome {
        return isOpen() ? impl_->keep(wanted, pause, result) : KeepOutcome::kFailed;
      },
      [&]() -> KeepOutcome {
        impl_->failForMemory();
        return KeepOutcome::kFailed;
      });
}

int KeptCopies::release(PictureTime from, PictureTime to, uint32_t* count) {
  return orNoMemory(
      "KeptCopies::release",
      [&]() -> int { return isOpen() ? impl_->release(from, to, count) : -1; },
      [&]() -> int {
        impl_->failForMemory();
        return -1;
      });
}

void KeptCopies::close() {
  if (impl_) impl_->close();
}

RecordingError KeptCopies::error() const { return impl_ ? impl_->error() : RecordingError::kNone; }
const char* KeptCopies::errorText() const { return impl_ ? impl_->errorText() : ""; }

}  // namespace tarn
