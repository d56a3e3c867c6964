#include "media/archive/ArchiveFollower.h"

#include <syslog.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "db/CApiDb.h"
#include "media/MonotonicTime.h"
#include "media/archive/ArchiveMessages.h"
#include "media/archive/ArchivePlan.h"
#include "recorder/rows/RecorderDatabase.h"
#include "recorder/rows/RowQueries.h"

namespace tarn {
namespace {

constexpr int kLookMs = 1000;
constexpr int kStopMs = 100;  // how soon it hears that it is to stop
// Short enough for an impact's clip behind a moment without a network.
constexpr int64_t kAgainMs = 5000;
constexpr int64_t kAllAgainMs = 60000;
constexpr char kSqlNewEvents[] = "SELECT * FROM EVENT WHERE eventID > %u";

}  // namespace

void ArchiveFollower::tell(const std::string& problem) {
  if (problem == problem_) return;
  problem_ = problem;
  if (problem.empty()) {
    syslog(LOG_INFO, kMsgArchiveGood);
  } else {
    syslog(LOG_WARNING, kMsgArchiveFailed, problem.c_str());
  }
}

// Those that were over at the first look are the first run's, as all the rest.
bool ArchiveFollower::lookForEvents() {
  CApiDb database;
  RowQueries queries(&database, nullptr);
  char sql[64];
  const uint32_t from = open_.empty() ? lastKey_ : std::min(lastKey_, *open_.begin() - 1);
  snprintf(sql, sizeof sql, kSqlNewEvents, from);
  std::vector<DB_EVENT> events;
  if (!queries.events(sql, &events)) return false;
  std::set<uint32_t> open;
  for (const DB_EVENT& event : events) {
    if (event.endDate == 0) {
      open.insert(event.eventID);
    } else if (looked_ && (event.eventID > lastKey_ || open_.count(event.eventID) != 0)) {
      pending_.insert(event.eventID);
    }
  }
  for (const DB_EVENT& event : events) lastKey_ = std::max(lastKey_, event.eventID);
  open_ = open;
  looked_ = true;
  return true;
}

// One that is neither to be archived nor waited for has gone from the card.
bool ArchiveFollower::findReady() {
  ready_.clear();
  if (pending_.empty()) return false;
  ArchivePlan plan(settings_.recorder);
  if (!plan.read(nullptr)) return false;
  for (const ArchiveLine& clip : plan.clips()) {
    if (clip.kind == "event" && pending_.count(clip.key) != 0) ready_.insert(clip.key);
  }
  std::set<uint32_t> left;
  for (const uint32_t key : pending_) {
    if (ready_.count(key) != 0 || plan.waitingEvents().count(key) != 0) left.insert(key);
  }
  pending_ = left;
  return !ready_.empty();
}

// While recordings are sent: whether one is to give way.
bool ArchiveFollower::isEventReady() {
  const int64_t nowMs = monotonicUs() / 1000;
  if (nowMs - polledMs_ < kLookMs) return !ready_.empty();
  polledMs_ = nowMs;
  return lookForEvents() && findReady();
}

void ArchiveFollower::archiveEvents(int64_t nowMs, const StopAsked& stopAsked) {
  CardArchiver::Settings settings = settings_;
  settings.onlyEvents = ready_;
  CardArchiver archiver(settings);
  const bool good = archiver.run(stopAsked, nullptr);
  // One that could not be made, or not as a whole, is looked at again with all the rest.
  if (!good && *archiver.error() != '\0') {
    eventsAtMs_ = nowMs + kAgainMs;
    return tell(archiver.error());
  }
  for (const uint32_t key : ready_) {
    syslog(LOG_INFO, kMsgArchiveEvent, key);
    pending_.erase(key);
  }
  ready_.clear();
}

void ArchiveFollower::archiveAll(int64_t nowMs, const StopAsked& stopAsked) {
  bool gaveWay = false;
  CardArchiver archiver(settings_);
  const bool good = archiver.run(
      [&] {
        gaveWay = gaveWay || isEventReady();
        return gaveWay || (stopAsked && stopAsked());
      },
      nullptr);
  if (gaveWay || (stopAsked && stopAsked())) return;
  allAtMs_ = nowMs + (good ? everyMs_ : std::min(everyMs_, kAllAgainMs));
  for (const uint32_t key : archiver.report().waitingEvents) pending_.insert(key);
  const ArchiveReport& report = archiver.report();
  if (*archiver.error() != '\0') return tell(archiver.error());
  if (!report.failures.empty())
    return tell(report.failures.front().object + ": " + report.failures.front().reason);
  tell(report.incomplete.empty()
           ? ""
           : report.incomplete.front().object + ": " + report.incomplete.front().reason);
}

void ArchiveFollower::step(int64_t nowMs, const StopAsked& stopAsked) {
  std::string problem;
  if (!databaseIsGood(stopAsked, &problem)) return tell(problem);
  if (!lookForEvents()) return tell(kDatabaseUnread);
  if (findReady() && nowMs >= eventsAtMs_) return archiveEvents(nowMs, stopAsked);
  if (nowMs >= allAtMs_) archiveAll(nowMs, stopAsked);
}

void ArchiveFollower::run(const StopAsked& stopAsked) {
  int64_t nextMs = 0;
  while (!stopAsked()) {
    const int64_t nowMs = monotonicUs() / 1000;
    if (nowMs >= nextMs) {
      step(nowMs, stopAsked);
      nextMs = nowMs + kLookMs;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(kStopMs));
  }
}

}  // namespace tarn
