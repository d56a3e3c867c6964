#include "recorder/session/RedatingReversal.h"

#include <syslog.h>

#include <cinttypes>

#include "db/CApiDb.h"
#include "fat/ChunkFiles.h"
#include "fat/FailureMarker.h"
#include "manager/CTARNStreamManager.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/DatabaseConnection.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/FileLock.h"
#include "recorder/rows/RedatingUndo.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RunningTables.h"
#include "recorder/session/SessionOpening.h"

namespace tarn {

class RedatingReversal::Impl {
 public:
  ~Impl() { close(); }

  bool open(bool toChange);
  bool plan(const RedatingRecord& record, RedatingPlan* plan);
  bool undo(const RedatingRecord& record, RedatingPlan* done);
  void close();

  bool isOpen() const { return open_; }
  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }
  bool fail(RecordingError error, const char* text);

 private:
  bool failAsTables() { return fail(tables_.error(), tables_.errorText()); }
  bool begin(const OpeningFailure& failure) {
    return failure.none() || fail(failure.error, failure.text);
  }
  bool takeRight();
  bool finishEarlier();

  bool open_ = false;
  bool toChange_ = false;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";

  InserterLocks locks_;
  CTARNStreamManager manager_{kRecorderPartition};
  DatabaseConnection connection_;
  DatabaseWatch watch_;
  RunningTables tables_{&connection_.db(), &watch_, &manager_};
};

bool RedatingReversal::Impl::fail(RecordingError error, const char* text) {
  error_ = error;
  text_ = text;
  return false;
}

// In the place of whoever keeps events, too: copies stay as they are meanwhile.
bool RedatingReversal::Impl::takeRight() {
  if (cardWriteFailed()) return fail(RecordingError::kCard, kErrMarker);
  return begin(locks_.take(kKeptChannel, false, {kErrTakeBackOtherProcess, kErrTakeBackBusy}));
}

// Of a process that was killed in the middle.
bool RedatingReversal::Impl::finishEarlier() {
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) return fail(RecordingError::kServer, kErrLock);
  return finishRedatings(&tables_, -1) || failAsTables();
}

bool RedatingReversal::Impl::open(bool toChange) {
  toChange_ = toChange;
  if (toChange && !takeRight()) return false;
  if (!watch_.begin()) return fail(RecordingError::kDatabase, kErrDatabaseGone);
  open_ = begin(connectToServer(&manager_)) && (!toChange || finishEarlier());
  return open_;
}

bool RedatingReversal::Impl::plan(const RedatingRecord& record, RedatingPlan* plan) {
  return RedatingUndo(&tables_).plan(record, plan) || failAsTables();
}

bool RedatingReversal::Impl::undo(const RedatingRecord& record, RedatingPlan* done) {
  if (!toChange_) return fail(RecordingError::kBadOption, kErrTakeBackOtherProcess);
  FileLock allocation;
  if (!allocation.lock(kAllocationLock, true)) return fail(RecordingError::kServer, kErrLock);
  RedatingUndo undo(&tables_);
  if (!undo.plan(record, done)) return failAsTables();
  if (done->empty()) return fail(RecordingError::kBadOption, kErrTakeBackNothing);
  if (!undo.run(*done)) return failAsTables();
  syslog(LOG_NOTICE, kMsgTakenBack, record.channel, record.sound ? kMsgRedatedSound : "",
         undo.recordings(), record.firstStream, record.lastStream, undo.events(), record.firstEvent,
         record.lastEvent, record.seconds);
  return true;
}

void RedatingReversal::Impl::close() {
  if (open_) manager_.closeManageData();
  open_ = false;
  locks_.letGo();
}

RedatingReversal::RedatingReversal() = default;
RedatingReversal::~RedatingReversal() = default;

int RedatingReversal::open(bool toChange) {
  return orNoMemory(
      "RedatingReversal::open",
      [&]() -> int {
        impl_.reset();
        impl_ = std::make_unique<Impl>();
        return impl_->open(toChange) ? 0 : -1;
      },
      [&]() -> int {
        if (impl_) impl_->fail(RecordingError::kNoMemory, kErrNoMemory);
        return -1;
      });
}

int RedatingReversal::plan(const RedatingRecord& record, RedatingPlan* plan) {
  return orNoMemory(
      "RedatingReversal::plan",
      [&]() -> int { return impl_ && impl_->isOpen() && impl_->plan(record, plan) ? 0 : -1; },
      [&]() -> int {
        impl_->fail(RecordingError::kNoMemory, kErrNoMemory);
        return -1;
      });
}

int RedatingReversal::undo(const RedatingRecord& record, RedatingPlan* done) {
  return orNoMemory(
      "RedatingReversal::undo",
      [&]() -> int { return impl_ && impl_->isOpen() && impl_->undo(record, done) ? 0 : -1; },
      [&]() -> int {
        impl_->fail(RecordingError::kNoMemory, kErrNoMemory);
        return -1;
      });
}

void RedatingReversal::close() {
  if (impl_) impl_->close();
}

RecordingError RedatingReversal::error() const {
  return impl_ ? impl_->error() : RecordingError::kNone;
}
const char* RedatingReversal::errorText() const { return impl_ ? impl_->errorText() : ""; }

}  // namespace tarn
