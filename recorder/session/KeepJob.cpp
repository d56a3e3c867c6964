#include "recorder/session/KeepJob.h"

#include <algorithm>
#include <cstdio>

#include "db/CApiDb.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/DatabaseConnection.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/RowMessages.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/KeptMessages.h"

namespace tarn {
namespace {

constexpr char kSqlEvent[] = "SELECT * FROM EVENT WHERE eventID = %u";
constexpr char kSqlNewestEvents[] = "SELECT * FROM EVENT ORDER BY eventID DESC LIMIT 64";
constexpr char kSqlKept[] = "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT_WHOLE;
constexpr char kSqlNewestEnd[] =
    "SELECT COALESCE(MAX(MAX(startDate), MAX(endDate)), 0) FROM STREAM WHERE " TARN_SQL_NOT_KEPT;
constexpr int kNewestEvents = 64;
// A copy follows its event by seconds; one that a power loss kept away was due within this.
constexpr uint32_t kResumeSeconds = 600;
constexpr int64_t kStalledMs = 60000;

void failJob(KeepJob* job, const char* text) {
  job->state = KeepState::kFailed;
  job->text = text;
}

// False when the job is settled or has to wait.
bool findPeriod(KeepJob* job, KeepWanted* wanted) {
  wanted->from = job->request.from;
  wanted->to = job->request.to;
  wanted->channel = job->request.channel;
  if (job->request.command == KeepCommand::kKeepPeriod) return true;
  DatabaseWatch watch;
  if (!watch.begin()) {
    failJob(job, kErrDatabaseGone);
    return false;
  }
  DatabaseConnection connection;
  RowQueries queries(&connection.db(), &watch);
  char sql[sizeof kSqlEvent + 16];
  snprintf(sql, sizeof sql, kSqlEvent, job->request.number);
  DB_EVENT event = {};
  const RowQueries::Answer answer = queries.event(sql, &event);
  if (answer == RowQueries::Answer::kFailed) failJob(job, queries.failure());
  if (answer == RowQueries::Answer::kNone) failJob(job, kErrKeepNoEvent);
  if (answer != RowQueries::Answer::kRow) return false;
  const EventPeriod period = periodOf(event);
  wanted->from = period.from;
  wanted->to = period.to;
  return event.endDate != 0 || job->request.command == KeepCommand::kReleaseEvent;
}

void keep(KeptCopies* copies, const KeepWanted& given, const KeptCopies::Pause& pause,
          KeepJob* job) {
  KeepWanted wanted = given;
  wanted.asItIs = monotonicMs() - job->firstTryMs > kStalledMs;
  switch (copies->keep(wanted, pause, &job->result)) {
    case KeepOutcome::kDone:
      job->state = KeepState::kDone;
      return;
    case KeepOutcome::kNotYet:
      return;
    case KeepOutcome::kFailed:
      failJob(job, copies->errorText());
      copies->close();
      return;
    default:
      failJob(job, copies->errorText());
  }
}

void release(KeptCopies* copies, const KeepWanted& wanted, KeepJob* job) {
  if (copies->release(wanted.from, wanted.to, &job->result.copies) != 0) {
    failJob(job, copies->errorText());
    copies->close();
  } else if (job->result.copies == 0) {
    failJob(job, kErrKeepNoCopy);
  } else {
    job->state = KeepState::kDone;
  }
}

}  // namespace

void carryOut(KeptCopies* copies, const KeepOptions& options, const KeptCopies::Pause& pause,
              KeepJob* job) {
  KeepWanted wanted;
  if (!findPeriod(job, &wanted)) return;
  if (job->firstTryMs == 0) job->firstTryMs = monotonicMs();
  if (copies->isOpen()) {
    copies->setOptions(options);
  } else if (copies->open(options) != 0) {
    failJob(job, copies->errorText());
    copies->close();
    return;
  }
  if (job->request.command == KeepCommand::kReleaseEvent) {
    release(copies, wanted, job);
  } else {
    keep(copies, wanted, pause, job);
  }
}

std::vector<uint32_t> eventsLeftWithoutCopies() {
  std::vector<uint32_t> keys;
  DatabaseWatch watch;
  if (!watch.begin()) return keys;  // nothing makes a database by looking at it
  DatabaseConnection connection;
  RowQueries queries(&connection.db(), &watch);
  std::vector<DB_STREAM> kept;
  uint32_t newestEnd = 0;
  DB_EVENT events[kNewestEvents];
  int count = 0;
  if (!queries.streams(kSqlKept, &kept) || !queries.number(kSqlNewestEnd, &newestEnd) ||
      !queries.events(kSqlNewestEvents, events, kNewestEvents, &count))
    return keys;
  for (int i = 0; i < count; ++i) {
    const EventPeriod period = periodOf(events[i]);
    const bool shown = std::any_of(kept.begin(), kept.end(), [&](const DB_STREAM& row) {
      return showsAnyOf(row, period.from, period.to);
    });
    const bool old = events[i].endDate != 0 && newestEnd > events[i].endDate &&
                     newestEnd - events[i].endDate > kResumeSeconds;
    if (shown || old) break;
    if (events[i].endDate != 0) keys.push_back(events[i].eventID);
  }
  std::reverse(keys.begin(), keys.end());
  return keys;
}

}  // namespace tarn
