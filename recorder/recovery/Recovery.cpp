#include "recorder/recovery/Recovery.h"

#include <fcntl.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <iterator>
#include <utility>

#include "base/FileSync.h"
#include "base/Omission.h"
#include "base/UniqueFd.h"
#include "dblog/RestoreStores.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recovery/DatabaseImage.h"
#include "recorder/recovery/LeftOverRows.h"
#include "recorder/recovery/ManageFileRepair.h"
#include "recorder/recovery/NativeRows.h"
#include "recorder/recovery/OpenEvents.h"
#include "recorder/recovery/RecoveryMessages.h"
#include "recorder/recovery/StartUp.h"
#include "recorder/recovery/UnfinishedRedating.h"
#include "recorder/rows/ChannelLock.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/rows/FileLock.h"
#include "recorder/rows/JournalMessages.h"
#include "recorder/rows/ServerProbe.h"

namespace tarn {
namespace {

constexpr useconds_t kRetryPauses[] = {20000, 100000};

bool nothingToWaitFor(std::string* error) {
  if (access(DatabaseSetup::defaultPath(), F_OK) != 0) {
    *error = kErrSaveNoDatabase;
    return false;
  }
  const FileLock::Outcome channels = tryAllChannels();
  if (channels != FileLock::Outcome::kTaken) {
    *error =
        channels == FileLock::Outcome::kHeldByOther ? kErrSaveRecording : kErrSaveRecordingLock;
    return false;
  }
  if (DatabaseGate::look() != DatabaseGate::State::kHolderDead) return true;
  *error = kErrSaveLockOfDead;  // what it was writing is known to be whole by no one
  return false;
}

bool mayBeWritten(std::string* error) {
  const GeometryReport geometry = CardGeometry::verifyRecorder();
  if (!geometry.ok()) *error = geometry.text;
  return geometry.ok();
}

constexpr char kImageStep[] = "database image";

std::atomic<Recovery::StepTeller> g_teller{nullptr};

void tell(const char* step) {
  const Recovery::StepTeller teller = g_teller;
  if (teller != nullptr) teller(step);
}

}  // namespace

// Steps in their order; those behind one that failed are not taken.
struct Recovery::Step {
  const char* name;  // as the power-cut tests leave it out
  bool (Recovery::*work)();
  const char* text;  // of its failure, where it says nothing more exact itself
};

Recovery::Recovery(FusePolicy policy) : policy_(policy) {}
Recovery::~Recovery() = default;

bool Recovery::fail(const std::string& text) {
  if (report_.error.empty()) {
    report_.error = text;
    syslog(LOG_ERR, kMsgRecoveryFailed, text.c_str());
  }
  return false;
}

bool Recovery::keepServerOut(const char* refusal, std::string* error) {
  lock_ = std::make_unique<FileLock>();
  *error = refusal;
  const FileLock::Outcome outcome = lock_->take(kServerLockPath, false);
  if (outcome == FileLock::Outcome::kCannotOpen) *error = kErrServerLock;
  if (outcome != FileLock::Outcome::kTaken) return false;
  const ServerProbe probe = probeServer();
  if (probe == ServerProbe::kUnknown) *error = kErrServerUnknown;
  return probe == ServerProbe::kFree;
}

void Recovery::tellSteps(StepTeller teller) { g_teller = teller; }

bool Recovery::take(const Step& step) {
  if (omitted(step.name)) return true;
  tell(step.name);
  return (this->*step.work)() || fail(step.text);
}

bool Recovery::takeTimed(const Step& step) {
  const auto begin = std::chrono::steady_clock::now();
  const bool done = take(step);
  const auto took = std::chrono::steady_clock::now() - begin;
  report_.times.push_back(
      {step.name, std::chrono::duration_cast<std::chrono::microseconds>(took).count()});
  return done;
}

// Before anything else: all that follows goes by what the card says of itself.
bool Recovery::geometry() {
  const GeometryReport geometry = CardGeometry::verifyRecorder();
  return geometry.ok() || fail(geometry.text);
}

bool Recovery::database() {
  static constexpr Step kSteps[] = {
      {"database lock", &Recovery::freeDatabase, kErrLockOfDead},
      {"journals", &Recovery::journals, kErrSurvey},
      {"rows", &Recovery::rows, kErrJournalManage},
      // Offsets that the step before had to make anew are nowhere else.
      {"journal free offset", &Recovery::journalManage, kErrJournalManage},
      {"lost chunks", &Recovery::fuseChunks, kErrFuseRows},
  };
  return std::all_of(std::begin(kSteps), std::end(kSteps),
                     [this](const Step& step) { return take(step); });
}

bool Recovery::redating() { return finishRedating(channels_, &report_); }
bool Recovery::overtakenRows() { return dropHalfCopies(&report_) && settleOvertakenRows(&report_); }
bool Recovery::videoRows() { return settleVideoRows(&report_); }
bool Recovery::remainingRows() { return settleRemainingRows(&report_); }
bool Recovery::events() { return endOpenEvents(&report_); }

// The journals once more: rows that were deleted meanwhile may have been the newest, and the next
// start would put the offsets behind those that are left.
bool Recovery::manageData() {
  static constexpr Step kSteps[] = {
      {"journal free offset", &Recovery::journalManage, kErrManageData},
      {"stream management", &Recovery::streamManage, kErrManageData},
      {"syslog management", &Recovery::syslogManage, kErrManageData},
      {"count of rows", &Recovery::countRows, kErrManageData},
  };
  return std::all_of(std::begin(kSteps), std::end(kSteps),
                     [this](const Step& step) { return take(step); });
}

bool Recovery::countRows() {
  return selectNumber("SELECT COUNT(*) FROM EVENT", &report_.eventRows) &&
         selectNumber("SELECT COUNT(*) FROM STREAM", &report_.streamRows);
}

bool Recovery::flushCard() {
  const UniqueFd card(open(deviceName(kRecorderPartition), O_RDONLY | O_CLOEXEC));
  return card.valid() && syncFile(card.get()) == 0;
}

bool Recovery::mayTryAgain() const {
  if (omitted("read-again")) return false;
  const bool stopped = policy_ == FusePolicy::kStop && !report_.fuse.empty();
  return !report_.ok() && !report_.refused && !stopped;
}

// A card that hiccups says no to whoever asks next, also to readers that ask once. What is done is
// done, a recovery may be cut short anywhere, so what a start needs of such a card is the next one.
RecoveryReport Recovery::run() {
  return orNoMemory(
      "Recovery",
      [&]() -> RecoveryReport {
        attempt();
        for (const useconds_t pause : kRetryPauses) {
          if (!mayTryAgain()) break;
          syslog(LOG_WARNING, kMsgRecoveryAgain, report_.error.c_str());
          usleep(pause);
          const RecoveryReport before = std::move(report_);
          attempt();
          keepChanges(before);
        }
        return report_;
      },
      [&]() -> RecoveryReport {
        lock_.reset();
        RecoveryReport report;
        report.error = kErrMemoryOut;
        return report;
      });
}

void Recovery::keepChanges(const RecoveryReport& before) {
  report_.changes.insert(report_.changes.begin(), before.changes.begin(), before.changes.end());
  if (report_.fuse.empty()) report_.fuse = before.fuse;
  for (const auto member : {&RecoveryReport::streamManage, &RecoveryReport::syslogManage,
                            &RecoveryReport::journalManage}) {
    if (report_.*member == ManageRepair::kGood) report_.*member = before.*member;
  }
}

void Recovery::attempt() {
  report_ = RecoveryReport();
  lost_.clear();
  journalsLost_ = false;
  std::string error;
  if (!keepServerOut(kErrServerRuns, &error)) {
    report_.refused = true;
    report_.error = error;
    return;
  }
  const EitherCopyScope eitherCopy;
  static constexpr Step kSteps[] = {
      {"geometry", &Recovery::geometry, kErrGeometry},
      {"management files", &Recovery::manageFiles, kErrManageFiles},
      {"database", &Recovery::database, kErrJournalManage},
      {"redating", &Recovery::redating, kErrRedating},
      {"overtaken rows", &Recovery::overtakenRows, kErrOvertaken},
      {"video rows", &Recovery::videoRows, kErrVideoRows},
      {"remaining rows", &Recovery::remainingRows, kErrRemaining},
      {"events", &Recovery::events, kErrEvents},
      {"stream headers", &Recovery::headers, kErrHeaders},
      {"management data", &Recovery::manageData, kErrManageData},
      {"flush", &Recovery::flushCard, kErrFlush},
  };
  startUp_ = std::make_unique<StartUp>();
  static_cast<void>(std::all_of(std::begin(kSteps), std::end(kSteps),
                                [this](const Step& step) { return takeTimed(step); }));
  noteGuarded();
  for (const RecoveryChange& change : report_.changes) {
    syslog(LOG_NOTICE, kMsgRecoveryChange, change.text.c_str());
  }
  for (const std::string& problem : report_.problems) {
    syslog(LOG_WARNING, kMsgRecoveryProblem, problem.c_str());
  }
  startUp_.reset();
  lock_.reset();
}

int Recovery::saveImage(std::string* error) { return leaveImage(true, error); }
int Recovery::keepImage(std::string* error) { return leaveImage(false, error); }

int Recovery::leaveImage(bool anew, std::string* error) {
  return orNoMemory(
      "Recovery",
      [&]() -> int {
        tell(kImageStep);
        const bool saved = keepServerOut(kErrSaveServerRuns, error) && nothingToWaitFor(error) &&
                           mayBeWritten(error) &&
                           saveDatabaseImage(anew ? ImageSave::kAnew : ImageSave::kAgain, error);
        lock_.reset();
        return saved ? 0 : -1;
      },
      [&]() -> int {
        lock_.reset();
        return memoryOut(error);
      });
}

}  // namespace tarn
