#include "recorder/recovery/StartUp.h"

#include <syslog.h>

#include <algorithm>
#include <iterator>

#include "base/Omission.h"
#include "db/CApiDb.h"
#include "dblog/CDbRestore.h"
#include "dblog/JournalFormat.h"
#include "dblog/ReplayFailure.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recovery/JournalSurvey.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/rows/JournalMessages.h"
#include "recorder/rows/ServerPatience.h"

namespace tarn {
namespace {

constexpr char kSqlCountEvents[] = "SELECT COUNT(*) FROM EVENT";
constexpr char kSqlCountStreams[] = "SELECT COUNT(*) FROM STREAM";

uint32_t count(const char* sql) {
  CApiDb db;
  db.setSql(sql);
  return db.getNTuple() == 1 ? db.getValue(0, 0) : 0;
}

bool surveyBoth(JournalSurvey* events, JournalSurvey* streams) {
  return surveyJournal(JournalKind::kEvent, events) == 0 &&
         surveyJournal(JournalKind::kStream, streams) == 0;
}

// The two copies of each journal, which are counted on the way.
bool makeEqual(JournalSurvey* events, JournalSurvey* streams, const std::function<bool()>& mayWrite,
               JournalBytes* readEvents, JournalBytes* readStreams, HeaderPlaces* places,
               EarlyRows* early) {
  if (omitted("scrub")) return surveyBoth(events, streams);
  return scrubJournals(events, streams, mayWrite, readEvents, readStreams, places, early) == 0;
}

}  // namespace

// Steps of a rebuild, in their order; those behind one that failed are not run.
struct StartUp::Step {
  const char* name;  // as the power-cut tests leave it out
  bool (StartUp::*work)();
};

bool StartUp::fail(StartUpReport::Step step, const std::string& text) {
  syslog(LOG_ERR, kMsgStartUpFailed, text.c_str());
  if (report_.failed == 0) report_.error = text;
  report_.failed |= step;
  return false;
}

// The set-up program may have been killed inside a statement, of which its status tells nothing:
// whoever asks for the lock then waits for ever. The next start sets it free.
bool StartUp::databaseIsFree() {
  using State = DatabaseGate::State;
  pid_t holder = 0;
  const State state = DatabaseGate::await(kServerPatienceMs, &holder);
  if (state != State::kHolderDead && state != State::kHeld) return true;
  const std::string who = ": it is locked by process " + std::to_string(holder);
  return fail(StartUpReport::kEmptyDatabase,
              kErrNoEmptyDatabase + who + (state == State::kHeld ? "" : ", which is gone"));
}

// The command's exit status says little: what counts is what it left.
bool StartUp::makeDatabase() {
  std::string error;
  if (CDbRestore().setupEmptyDb() != 0) {
    return fail(StartUpReport::kEmptyDatabase, kErrNoEmptyDatabase);
  }
  if (!databaseIsFree()) return false;
  return DatabaseSetup::check(DatabaseSetup::defaultPath(), &error) ||
         fail(StartUpReport::kEmptyDatabase, error);
}

bool StartUp::scrub(const std::function<bool()>& mayWrite) {
  scrubbed_ = true;
  JournalSurvey& events = report_.events;
  JournalSurvey& streams = report_.streams;
  early_.reset();
  readEvents_ = std::make_unique<JournalBytes>(journalTraits(JournalKind::kEvent));
  readStreams_ = std::make_unique<JournalBytes>(journalTraits(JournalKind::kStream));
  early_ = std::make_unique<EarlyRows>(readEvents_.get(), readStreams_.get());
  places_ = std::make_unique<HeaderPlaces>();
  if (makeEqual(&events, &streams, mayWrite, readEvents_.get(), readStreams_.get(), places_.get(),
                early_.get())) {
    places_->askAhead();
    return true;
  }
  forget();
  const std::string& reason = events.error.empty() ? streams.error : events.error;
  return fail(StartUpReport::kSurvey, reason.empty() ? kErrSurvey : reason);
}

void StartUp::forget() {
  early_.reset();
  readEvents_.reset();
  readStreams_.reset();
}

// Where the replay itself knows why.
void StartUp::replayFailed(StartUpReport::Step step, const char* text) {
  const std::string reason = lastReplayFailure();
  fail(step, reason.empty() ? text : text + (": " + reason));
}

void StartUp::replayBehind() {
  CDbRestore restore;
  if (restore.restoreEventDb(readEvents_.get()) != 0) {
    replayFailed(StartUpReport::kEventReplay, kErrEventReplay);
  }
  readEvents_.reset();
  if (restore.restoreStreamDb(kStreamJournalChunk, readStreams_.get()) != 0) {
    replayFailed(StartUpReport::kStreamReplay, kErrStreamReplay);
  }
  readStreams_.reset();
}

// All else of a replay.
void StartUp::noteEarlyRows() {
  CDbRestore restore;
  if (restore.restoredBefore(JournalKind::kEvent, early_->records(JournalKind::kEvent)) != 0) {
    replayFailed(StartUpReport::kEventReplay, kErrEventReplay);
  }
  if (restore.restoredBefore(JournalKind::kStream, early_->records(JournalKind::kStream)) != 0) {
    replayFailed(StartUpReport::kStreamReplay, kErrStreamReplay);
  }
}

bool StartUp::replay() {
  hadEarlyRows_ = early_ != nullptr && early_->moveInto();
  if (hadEarlyRows_) {
    noteEarlyRows();
    forget();
  } else {
    early_.reset();  // which gives the memory of its file free
    replayBehind();
  }
  report_.eventRows = count(kSqlCountEvents);
  report_.streamRows = count(kSqlCountStreams);
  return report_.ok();
}

// A row that is missing now would take its recording with it: its chunk would count as free.
bool StartUp::countRows() {
  return (report_.eventRows == report_.events.liveKeys &&
          report_.streamRows == report_.streams.liveKeys) ||
         fail(StartUpReport::kRowCount, kErrRowCount);
}

bool StartUp::seedKeys() {
  std::string error;
  return DatabaseSetup::seedKeys(DatabaseSetup::defaultPath(), report_.events.greatestKey,
                                 report_.streams.greatestKey, &error) ||
         fail(StartUpReport::kSeedKeys, error);
}

// Nothing that follows a failed rebuild is run: free offsets taken from rows that are not all there
// would have the next insert overwrite the records of those that are missing.
StartUpReport StartUp::rebuild() {
  static constexpr Step kSteps[] = {
      {"empty database", &StartUp::makeDatabase},
      {"journals", &StartUp::scrubUnlessDone},
      {"replay", &StartUp::replay},
      {"row count", &StartUp::countRows},
      {"seed keys", &StartUp::seedKeys},
      {"journal free offset", &StartUp::journalManage},
  };
  static_cast<void>(std::all_of(std::begin(kSteps), std::end(kSteps),
                                [this](const Step& step) { return take(step); }));
  return report_;
}

bool StartUp::take(const Step& step) {
  if (omitted(step.name)) return true;
  return (this->*step.work)();
}

bool StartUp::scrubUnlessDone() { return scrubbed_ || scrub(); }

bool StartUp::journalManage() {
  return CDbRestore().recoverJournalManage() == 0 ||
         fail(StartUpReport::kJournalManage, kErrJournalManage);
}

StartUpReport StartUp::run() {
  return orNoMemory(
      "StartUp",
      [&]() -> StartUpReport {
        report_ = StartUpReport();
        scrubbed_ = false;
        return rebuild();
      },
      [&]() -> StartUpReport {
        StartUpReport report;
        report.failed = StartUpReport::kEmptyDatabase;
        report.error = kErrMemoryOut;
        return report;
      });
}

}  // namespace tarn
