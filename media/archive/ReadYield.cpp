#include "media/archive/ReadYield.h"

#include <linux/ioprio.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "media/DeviceCounts.h"
#include "media/MonotonicTime.h"
#include "recorder/session/RecordingStatus.h"

namespace tarn {
namespace {

constexpr int64_t kWorkUs = 10000;  // that is done in one go
constexpr int64_t kPauseUs = 50000;
constexpr int64_t kLeastPauseUs = 10000;   // that tells something of others
constexpr int64_t kMostRestUs = 4000000;   // then it goes on, or a busy card was never archived
constexpr double kRememberedUs = 1000000;  // of pauses, what others did in them
// A recorder that leaves less than this part of the device free needs all of it.
constexpr double kLeastFree = 0.02;
// A write that takes this many times as long as usual, and this much longer, is slow.
constexpr double kSlowTimes = 2;
constexpr double kSlowMs = 5;
// Of a pause in which others kept the device busy for longer than this part another one follows.
constexpr int64_t kBusyPart = 2;
constexpr double kForgetting = 1.02;  // of what is usual, each time: a card gets slower as it ages
constexpr int kNicest = 19;

void pauseFor(int64_t us) { std::this_thread::sleep_for(std::chrono::microseconds(us)); }

}  // namespace

// What a sandbox or an old kernel refuses is no reason not to archive: a service has it from its
// unit.
ReadYield::ReadYield(const std::string& statistics, bool urgent)
    : statistics_(statistics),
      urgent_(urgent),
      // It looks what others do before it begins: as if it had worked.
      sinceUs_(monotonicUs() - (statistics.empty() || urgent ? 0 : kWorkUs)),
      share_(statistics.empty() ? 0 : 1) {
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kNicest);
  syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0));
}

std::string ReadYield::statisticsOf(const std::string& device) {
  const std::string folder = DeviceCounts::folderOf(device);
  return folder.empty() ? "" : folder + "stat";
}

bool ReadYield::Usual::isExceeded(uint64_t count, double ms) {
  const uint64_t newOnes = count - count_;
  const double each = newOnes == 0 ? 0 : (ms - ms_) / static_cast<double>(newOnes);
  const bool first = !known_;
  known_ = true;
  count_ = count;
  ms_ = ms;
  if (first || newOnes == 0) return exceeded_;
  usualMs_ = usualMs_ == 0 ? each : std::min(each, usualMs_ * kForgetting);
  exceeded_ = each > usualMs_ * kSlowTimes + kSlowMs;
  return exceeded_;
}

// A recorder writes in bursts: what a single pause shows is not what it needs.
void ReadYield::note(int64_t busyUs, int64_t pausedUs) {
  const double paused = std::max<double>(static_cast<double>(pausedUs), 1);
  const double now = std::clamp(static_cast<double>(busyUs) / paused, 0.0, 1.0);
  const double weight = std::min(1.0, paused / kRememberedUs);
  share_ += (now - share_) * weight;
}

// Of what others leave free, half; and of that ever less the less there is, because what is read
// between two writes delays the second one.
int64_t ReadYield::restUs(int64_t workedUs) const {
  if (urgent_) return workedUs;
  const double free = std::max(1 - share_, kLeastFree);
  const double rest = static_cast<double>(workedUs) * (2 / (free * free) - 1);
  return std::min(static_cast<int64_t>(rest), kMostRestUs);
}

bool ReadYield::isTaken(const std::string& before, const std::string& behind, int64_t pausedUs) {
  DeviceCounts first;
  DeviceCounts now;
  if (!first.read(before) || !now.read(behind)) {
    note(0, pausedUs);
    return false;
  }
  const auto busyUs = static_cast<int64_t>(now.busyMs - first.busyMs) * 1000;
  note(busyUs, pausedUs);
  const bool slow = writes_.isExceeded(now.writes, static_cast<double>(now.writeMs));
  return busyUs > pausedUs / kBusyPart || slow;
}

bool ReadYield::areFlushesSlow(uint64_t flushes, int64_t allUs) {
  return flushes_.isExceeded(flushes, static_cast<double>(allUs) / 1000);
}

// Told once a second.
bool ReadYield::areFlushesSlow() {
  uint64_t flushes = 0;
  int64_t allUs = 0;
  for (const RecordingStatus& status : toldStatuses()) {
    for (const uint64_t count : status.flushes.counts) flushes += count;
    allUs += status.flushes.allUs;
  }
  return areFlushesSlow(flushes, allUs);
}

std::string ReadYield::look() const {
  std::string line;
  std::ifstream file(statistics_);
  std::getline(file, line);
  return line;
}

bool ReadYield::isTaken(int64_t pauseUs) {
  const std::string before = look();
  const int64_t fromUs = monotonicUs();
  pauseFor(pauseUs);
  const bool slow = areFlushesSlow();
  return isTaken(before, look(), monotonicUs() - fromUs) || slow;
}

void ReadYield::rest() {
  const int64_t fromUs = monotonicUs();
  const int64_t worked = fromUs - sinceUs_;
  if (worked < kWorkUs) return;
  bool taken = true;
  for (int64_t rested = 0; rested < kMostRestUs && (taken || rested < restUs(worked));
       rested = monotonicUs() - fromUs) {
    taken = isTaken(std::clamp(restUs(worked) - rested, kLeastPauseUs, kPauseUs));
  }
  sinceUs_ = monotonicUs();
}

}  // namespace tarn
