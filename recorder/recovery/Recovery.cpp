#include "recorder/recovery/Recovery.h"

#include <fcntl.h>
#include <glob.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <utility>

#include "base/Omission.h"
#include "base/UniqueFd.h"
#include "dblog/CDbRestore.h"
#include "dblog/RestoreStores.h"
#include "manager/ManageFormat.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recovery/DatabaseImage.h"
#include "recorder/recovery/HeaderRepair.h"
#include "recorder/recovery/LeftOverRows.h"
#include "recorder/recovery/ManageFileRepair.h"
#include "recorder/recovery/NativeRows.h"
#include "recorder/recovery/OpenEvents.h"
#include "recorder/recovery/RecoveryFuse.h"
#include "recorder/recovery/RecoveryMessages.h"
#include "recorder/recovery/StartUp.h"
#include "recorder/rows/ChannelLock.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/rows/FileLock.h"
#include "recorder/rows/JournalMessages.h"
#include "recorder/rows/ServerProbe.h"

namespace tarn {
namespace {

constexpr useconds_t kRetryPauses[] = {20000, 100000};

const char* manageName(FileType type) {
  if (type == kFileStream) return "stream chunks";
  return type == kFileSyslog ? "system log" : "journal";
}

const char* manageText(ManageRepair repair) {
  switch (repair) {
    case ManageRepair::kMainCopied:
      return "was bad, taken from its backup";
    case ManageRepair::kBackupCopied:
      return "had another backup, which is now the same";
    case ManageRepair::kDefaults:
      return "was bad in both copies, made anew";
    case ManageRepair::kCorrected:
      return "named a chunk that the card does not have, corrected";
    case ManageRepair::kGood:
    case ManageRepair::kMainUnread:
    case ManageRepair::kBackupUnread:
    case ManageRepair::kUnreadable:
    case ManageRepair::kFailed:
      break;
  }
  return "";
}

// No session may still change the database. A lock that cannot be had says nothing of sessions.
bool noRecordingRuns(std::string* error) {
  glob_t locks = {};
  FileLock::Outcome outcome = FileLock::Outcome::kTaken;
  if (glob(kAnyChannelLock, 0, nullptr, &locks) == 0) {
    for (size_t i = 0; i < locks.gl_pathc && outcome == FileLock::Outcome::kTaken; ++i) {
      outcome = FileLock().take(locks.gl_pathv[i], false);
    }
  }
  globfree(&locks);
  *error = outcome == FileLock::Outcome::kHeldByOther ? kErrSaveRecording : kErrSaveRecordingLock;
  return outcome == FileLock::Outcome::kTaken;
}

bool nothingToWaitFor(std::string* error) {
  if (access(DatabaseSetup::defaultPath(), F_OK) != 0) {
    *error = kErrSaveNoDatabase;
    return false;
  }
  if (!noRecordingRuns(error)) return false;
  if (DatabaseGate::look() != DatabaseGate::State::kHolderDead) return true;
  *error = kErrSaveLockOfDead;  // what it was writing is known to be whole by no one
  return false;
}

bool mayBeWritten(std::string* error) {
  const GeometryReport geometry = CardGeometry::verifyRecorder();
  if (!geometry.ok()) *error = geometry.text;
  return geometry.ok();
}

}  // namespace

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

// Runs one step, unless one before it failed, and notes how long it took.
bool Recovery::step(const char* name, const std::function<bool()>& work, const char* failure) {
  const auto begin = std::chrono::steady_clock::now();
  const bool done = work();
  const auto took = std::chrono::steady_clock::now() - begin;
  report_.times.push_back(
      {name, std::chrono::duration_cast<std::chrono::microseconds>(took).count()});
  return done || fail(failure);
}

// Before anything else: all that follows goes by what the card says of itself.
bool Recovery::geometry() {
  const GeometryReport geometry = CardGeometry::verifyRecorder();
  return geometry.ok() || fail(geometry.text);
}

bool Recovery::manageFile(FileType type, ManageRepair* repair, std::vector<CHUNK_MANAGE>* records) {
  std::string unread;
  std::vector<CHUNK_MANAGE> anew;
  if (type == kFileStream && !fuseManageFiles(&anew)) return false;
  *repair = repairManageFile(type, records, &unread, anew.empty() ? nullptr : &anew);
  const std::string name = std::string("management file of the ") + manageName(type);
  switch (*repair) {
    case ManageRepair::kFailed:
      return fail(kErrManageFiles);
    case ManageRepair::kUnreadable:
      return fail("the " + name + " cannot be read (" + unread + "); nothing of it was changed");
    case ManageRepair::kMainUnread:
    case ManageRepair::kBackupUnread:
      report_.problems.push_back("one copy of the " + name + " cannot be read (" + unread +
                                 "); it is left as it is, the other one is good");
      break;
    default:
      break;
  }
  const char* text = manageText(*repair);
  if (*text != 0) syslog(LOG_NOTICE, "recovery: %s %s", name.c_str(), text);
  return true;
}

// False where the fuse stops it. Else what the policy makes of it is logged and reported.
bool Recovery::blow(const FuseFinding& finding) {
  if (!finding.blown()) return true;
  const char* end = policy_ == FusePolicy::kStop    ? kFuseStop
                    : policy_ == FusePolicy::kGuard ? (finding.isDone ? kFuseDone : kFuseGuard)
                                                    : kFuseAccepted;
  report_.fuse.push_back(finding.text + end);
  if (policy_ == FusePolicy::kStop) return fail(report_.fuse.back());
  report_.problems.push_back(report_.fuse.back());
  return true;
}

// In memory; the rebuild of the management data saves the marks. Power lost before that leaves all
// as it was found, and the next start comes to the same end.
void Recovery::guardChunks(const std::vector<uint32_t>& chunks,
                           std::vector<CHUNK_MANAGE>* records) const {
  if (policy_ != FusePolicy::kGuard) return;
  for (const uint32_t chunk : chunks) {
    if (chunk >= records->size() || isGuarded((*records)[chunk].chType)) continue;
    (*records)[chunk].chType = guardMark((*records)[chunk].chType);
  }
}

// Before a bad management file is made anew. The marks go into the new one, in one write with it,
// so that power lost behind it does not free the chunks.
bool Recovery::fuseManageFiles(std::vector<CHUNK_MANAGE>* anew) {
  std::vector<CHUNK_MANAGE> records;
  if (judgeManageFile(kFileStream, &records) != ManageRepair::kDefaults) return true;
  FuseFinding finding;
  std::string error;
  if (!fuseWithoutManagement(static_cast<uint32_t>(records.size()), &finding, &error)) {
    return fail(error);
  }
  if (!blow(finding)) return false;
  guardChunks(finding.chunks, &records);
  *anew = records;
  return true;
}

// Nothing of the journals was written yet. Where chunks are guarded an earlier start has gone on
// without what the stream journal lost.
bool Recovery::fuseJournals(const StartUp& startUp) {
  const bool known =
      std::any_of(channels_.begin(), channels_.end(),
                  [](const CHUNK_MANAGE& record) { return isGuarded(record.chType); });
  const FuseFinding finding = tarn::fuseJournals(
      startUp.report().events, known ? JournalSurvey() : startUp.report().streams);
  journalsLost_ = finding.blown();
  return blow(finding);
}

// The rows that are missing had room in these chunks, and nobody knows which.
bool Recovery::guardForgotten() {
  std::vector<uint32_t> chunks;
  std::string error;
  if (!journalsLost_ || policy_ != FusePolicy::kGuard) return true;
  if (!chunksOfMissing(channels_, &chunks, &error)) return fail(error);
  guardChunks(chunks, &channels_);
  return true;
}

// What an earlier start guards is given free only when a person says so.
bool Recovery::fuseChunks() {
  if (policy_ == FusePolicy::kAccept) {
    for (CHUNK_MANAGE& record : channels_) {
      if (isGuarded(record.chType)) record.chType = guardedChannel(record.chType);
    }
  }
  FuseFinding finding;
  std::string error;
  if (!guardForgotten()) return false;
  if (!fuseLostChunks(channels_, report_.startUp.streams, &finding, &error)) return fail(error);
  if (!blow(finding)) return false;
  guardChunks(finding.chunks, &channels_);
  return true;
}

bool Recovery::headers() {
  HeaderPlan plan;
  uint32_t rows = 0;
  if (!planHeaders(channels_, &plan, &report_)) return false;
  std::vector<DB_STREAM> unreadable = plan.deletions;
  unreadable.insert(unreadable.end(), plan.lost.begin(), plan.lost.end());
  if (!unreadable.empty() && !selectNumber("SELECT COUNT(*) FROM STREAM", &rows)) return false;
  const FuseFinding finding = fuseDeletions(unreadable, rows);
  if (!blow(finding)) return false;
  guardChunks(finding.chunks, &channels_);
  const auto guarded = [this](const DB_STREAM& row) {
    return row.chunkID < channels_.size() && isGuarded(channels_[row.chunkID].chType);
  };
  for (auto* list : {&plan.rewrites, &plan.deletions, &plan.lost}) {
    list->erase(std::remove_if(list->begin(), list->end(), guarded), list->end());
  }
  if (policy_ == FusePolicy::kAccept) {
    plan.deletions.insert(plan.deletions.end(), plan.lost.begin(), plan.lost.end());
    plan.lost.clear();
  }
  return keepLost(plan.lost) && applyHeaders(plan, &report_);
}

// Recordings of which nothing can be read any more, although they were closed: a sector went bad,
// and what is behind it may come back. They keep their room until it is needed, as every other.
// Where the management data do not tell which room that is, nobody gets any of the chunk.
bool Recovery::keepLost(const std::vector<DB_STREAM>& lost) {
  std::vector<uint32_t> unplaced;
  if (!findUnplaced(lost, channels_, &unplaced)) return false;
  for (const uint32_t chunk : unplaced) {
    CHUNK_MANAGE& record = channels_[chunk];
    record.chType = guardMark(record.chType);
  }
  for (const DB_STREAM& row : lost) report_.problems.push_back(nameOf(row) + kProblemLost);
  lost_ = lost;
  return true;
}

void Recovery::noteGuarded() {
  std::string numbers;
  for (uint32_t chunk = 0; chunk < channels_.size(); ++chunk) {
    if (!isGuarded(channels_[chunk].chType)) continue;
    report_.guarded.push_back(chunk);
    numbers += (numbers.empty() ? "" : ", ") + std::to_string(chunk);
  }
  if (!report_.guarded.empty()) report_.problems.push_back(kProblemGuarded + numbers);
}

bool Recovery::manageFiles() {
  if (omitted(Omit::kManageFiles)) return true;
  const bool stream = manageFile(kFileStream, &report_.streamManage, &channels_);
  const bool log = manageFile(kFileSyslog, &report_.syslogManage, nullptr);
  return manageFile(kFileJournal, &report_.journalManage, nullptr) && stream && log;
}

// The image is judged by what the journals hold, and after a start from it they are as good as
// after any other: a damaged copy is mended as long as there is a good one.
bool Recovery::scrub(StartUp* startUp) {
  const bool done = startUp->scrub([&] { return fuseJournals(*startUp); });
  for (const JournalSurvey* survey : {&startUp->report().events, &startUp->report().streams}) {
    if (survey->unread == 0) continue;
    report_.problems.push_back("the " + survey->unreadText + " cannot be read (" +
                               std::to_string(survey->unread) +
                               " records); the other copy is good and is used");
  }
  const uint32_t refused = startUp->report().events.refused + startUp->report().streams.refused;
  if (refused > 0) {
    report_.problems.push_back("the card did not take " + std::to_string(refused) +
                               " corrections of journal records");
  }
  return done;
}

bool Recovery::restoreImage(const StartUp& startUp) {
  std::string error;
  const ImageRestore result =
      restoreDatabaseImage(startUp.report().events, startUp.report().streams, &error);
  if (result == ImageRestore::kFailed) fail(error);
  if (result == ImageRestore::kUnusable) report_.problems.push_back(error);
  report_.fromImage = result == ImageRestore::kRestored;
  return report_.fromImage;
}

// A process that dies with the database locked keeps it locked for all others. Nobody but this
// program can know that no one still relies on it: no server runs, none can start meanwhile, and no
// session is open.
bool Recovery::freeDatabase() {
  pid_t holder = 0;
  if (DatabaseGate::look(&holder) != DatabaseGate::State::kHolderDead) return true;
  std::string ignored;
  if (!noRecordingRuns(&ignored)) return fail(kErrLockOfDead);
  if (!DatabaseGate::releaseDead()) return true;
  report_.problems.push_back("the database was locked by process " + std::to_string(holder) +
                             ", which is gone; it was set free");
  return true;
}

bool Recovery::database() {
  if (!freeDatabase()) return false;
  StartUp startUp;
  const bool scrubbed = scrub(&startUp);
  report_.startUp = startUp.report();
  if (!scrubbed) return fail(report_.startUp.error);  // but for what the fuse has said
  if (!restoreImage(startUp)) {
    if (!report_.ok()) return false;
    report_.startUp = startUp.rebuild();
    return report_.startUp.ok() || fail(report_.startUp.error);
  }
  // Offsets that step 1 had to make anew are nowhere else.
  return omitted(Omit::kJournalFreeOffset) || CDbRestore().recoverJournalManage() == 0 ||
         fail(kErrJournalManage);
}

// The journals once more: rows that were deleted meanwhile may have been the newest, and the next
// start would put the offsets behind those that are left.
bool Recovery::manageData() {
  CDbRestore restore;
  const int channels = omitted(Omit::kChannels) ? 0 : static_cast<int>(channels_.size());
  return (omitted(Omit::kJournalFreeOffset) || restore.recoverJournalManage() == 0) &&
         (omitted(Omit::kStreamManage) ||
          restore.recoverStreamManage(channels_.data(), channels, lost_) == 0) &&
         (omitted(Omit::kSyslogManage) || syslogManage(&restore));
}

bool Recovery::syslogManage(CDbRestore* restore) {
  std::string unread;
  if (restore->recoverSyslogManage(&unread) != 0) return false;
  if (!unread.empty()) {
    report_.problems.push_back("the system log cannot be read (" + unread +
                               "); its end stays where it was saved");
  }
  return true;
}

bool Recovery::countRows() {
  return selectNumber("SELECT COUNT(*) FROM EVENT", &report_.eventRows) &&
         selectNumber("SELECT COUNT(*) FROM STREAM", &report_.streamRows);
}

bool Recovery::flushCard() {
  if (omitted(Omit::kRecoveryFlush)) return true;
  const UniqueFd card(open(deviceName(kRecorderPartition), O_RDONLY | O_CLOEXEC));
  return card.valid() && fsync(card.get()) == 0;
}

// A card that hiccups says no to whoever asks next, also to readers that ask once. What is done is
// done, a recovery may be cut short anywhere, so what a start needs of such a card is the next one.
RecoveryReport Recovery::run() {
  return orNoMemory(
      "Recovery",
      [&]() -> RecoveryReport {
        attempt();
        for (const useconds_t pause : kRetryPauses) {
          const bool stopped = policy_ == FusePolicy::kStop && !report_.fuse.empty();
          if (report_.ok() || report_.refused || stopped || omitted(Omit::kReadAgain)) break;
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
  static_cast<void>(
      step(
          "geometry", [this] { return geometry(); }, kErrGeometry) &&
      step(
          "management files", [this] { return manageFiles(); }, kErrManageFiles) &&
      step(
          "database", [this] { return database() && fuseChunks(); }, kErrJournalManage) &&
      step(
          "overtaken rows", [this] { return settleOvertakenRows(&report_); }, kErrOvertaken) &&
      step(
          "video rows", [this] { return settleVideoRows(&report_); }, kErrVideoRows) &&
      step(
          "remaining rows", [this] { return settleRemainingRows(&report_); }, kErrRemaining) &&
      step(
          "events", [this] { return endOpenEvents(&report_); }, kErrEvents) &&
      step(
          "stream headers", [this] { return headers(); }, kErrHeaders) &&
      step(
          "management data", [this] { return manageData() && countRows(); }, kErrManageData) &&
      step(
          "flush", [this] { return flushCard(); }, kErrFlush));
  noteGuarded();
  for (const RecoveryChange& change : report_.changes) {
    syslog(LOG_NOTICE, kMsgRecoveryChange, change.text.c_str());
  }
  for (const std::string& problem : report_.problems) {
    syslog(LOG_WARNING, kMsgRecoveryProblem, problem.c_str());
  }
  lock_.reset();
}

int Recovery::saveImage(std::string* error) {
  return orNoMemory(
      "Recovery",
      [&]() -> int {
        const bool saved = keepServerOut(kErrSaveServerRuns, error) && nothingToWaitFor(error) &&
                           mayBeWritten(error) && saveDatabaseImage(error);
        lock_.reset();
        return saved ? 0 : -1;
      },
      [&]() -> int {
        lock_.reset();
        return memoryOut(error);
      });
}

}  // namespace tarn
