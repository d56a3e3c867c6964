#include "recorder/recovery/StartUp.h"

#include <syslog.h>

#include "base/Omission.h"
#include "db/CApiDb.h"
#include "dblog/CDbRestore.h"
#include "dblog/JournalFormat.h"
#include "dblog/ReplayFailure.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recovery/JournalSurvey.h"
#include "recorder/rows/DatabaseSetup.h"
#include "recorder/rows/JournalMessages.h"

namespace tarn {
namespace {

constexpr char kSqlCountEvents[] = "SELECT COUNT(*) FROM EVENT";
constexpr char kSqlCountStreams[] = "SELECT COUNT(*) FROM STREAM";

uint32_t count(const char* sql) {
  CApiDb db;
  db.setSql(sql);
  return db.getNTuple() == 1 ? db.getValue(0, 0) : 0;
}

}  // namespace

bool StartUp::fail(StartUpReport::Step step, const std::string& text) {
  syslog(LOG_ERR, kMsgStartUpFailed, text.c_str());
  if (report_.failed == 0) report_.error = text;
  report_.failed |= step;
  return false;
}

// The command's exit status says little: what counts is what it left.
bool StartUp::makeDatabase() {
  if (omitted(Omit::kEmptyDatabase)) return true;
  std::string error;
  if (CDbRestore().setupEmptyDb() != 0) {
    return fail(StartUpReport::kEmptyDatabase, kErrNoEmptyDatabase);
  }
  return DatabaseSetup::check(DatabaseSetup::defaultPath(), &error) ||
         fail(StartUpReport::kEmptyDatabase, error);
}

bool StartUp::scrub(const std::function<bool()>& mayWrite) {
  scrubbed_ = true;
  JournalSurvey& events = report_.events;
  JournalSurvey& streams = report_.streams;
  const bool done = omitted(Omit::kScrub) ? surveyJournal(JournalKind::kEvent, &events) == 0 &&
                                                surveyJournal(JournalKind::kStream, &streams) == 0
                                          : scrubJournals(&events, &streams, mayWrite) == 0;
  if (done) return true;
  const std::string& reason = events.error.empty() ? streams.error : events.error;
  return fail(StartUpReport::kSurvey, reason.empty() ? kErrSurvey : reason);
}

// Where the replay itself knows why.
void StartUp::replayFailed(StartUpReport::Step step, const char* text) {
  const std::string reason = lastReplayFailure();
  fail(step, reason.empty() ? text : text + (": " + reason));
}

bool StartUp::replay() {
  CDbRestore restore;
  if (omitted(Omit::kReplay)) return true;
  if (restore.restoreEventDb() != 0) replayFailed(StartUpReport::kEventReplay, kErrEventReplay);
  if (restore.restoreStreamDb(kStreamJournalChunk) != 0) {
    replayFailed(StartUpReport::kStreamReplay, kErrStreamReplay);
  }
  report_.eventRows = count(kSqlCountEvents);
  report_.streamRows = count(kSqlCountStreams);
  return report_.ok();
}

// A row that is missing now would take its recording with it: its chunk would count as free.
bool StartUp::countRows() {
  if (omitted(Omit::kRowCount)) return true;
  return (report_.eventRows == report_.events.liveKeys &&
          report_.streamRows == report_.streams.liveKeys) ||
         fail(StartUpReport::kRowCount, kErrRowCount);
}

bool StartUp::seedKeys() {
  if (omitted(Omit::kSeedKeys)) return true;
  std::string error;
  return DatabaseSetup::seedKeys(DatabaseSetup::defaultPath(), report_.events.greatestKey,
                                 report_.streams.greatestKey, &error) ||
         fail(StartUpReport::kSeedKeys, error);
}

// Nothing that follows a failed rebuild is run: free offsets taken from rows that are not all there
// would have the next insert overwrite the records of those that are missing.
StartUpReport StartUp::rebuild() {
  if (makeDatabase() && (scrubbed_ || scrub()) && replay() && countRows() && seedKeys() &&
      !omitted(Omit::kJournalFreeOffset) && CDbRestore().recoverJournalManage() != 0) {
    fail(StartUpReport::kJournalManage, kErrJournalManage);
  }
  return report_;
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
