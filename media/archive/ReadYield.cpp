#include "media/archive/ReadYield.h"

#include <linux/ioprio.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

#include "media/MonotonicTime.h"
#include "recorder/session/RecordingStatus.h"

namespace tarn {
namespace {

constexpr int64_t kWorkUs = 10000;   // that is done in one go
constexpr int64_t kLookUs = 200000;  // how often the device is asked
constexpr int64_t kPauseUs = 50000;
constexpr int kMostPauses = 40;  // two seconds; then it goes on, or a busy card was never archived
// A write that takes this many times as long as usual, and this much longer, is slow.
constexpr double kSlowTimes = 2;
constexpr double kSlowMs = 5;
// Of a pause in which others kept the device busy for longer than this part another one follows.
constexpr int64_t kBusyPart = 2;
constexpr double kForgetting = 1.02;  // of what is usual, each time: a card gets slower as it ages
constexpr int kNicest = 19;

// Of the kernel's line: reads, merged, sectors, milliseconds, and the same of writes; those under
// way, and milliseconds in which there were any.
struct Counts {
  uint64_t writes = 0;
  uint64_t writeMs = 0;
  uint64_t busyMs = 0;

  bool read(const std::string& line) {
    std::istringstream fields(line);
    uint64_t field[10] = {};
    for (uint64_t& one : field) {
      if (!(fields >> one)) return false;
    }
    writes = field[4];
    writeMs = field[7];
    busyMs = field[9];
    return true;
  }
};

void pauseFor(int64_t us) { std::this_thread::sleep_for(std::chrono::microseconds(us)); }

}  // namespace

// What a sandbox or an old kernel refuses is no reason not to archive: a service has it from its
// unit.
ReadYield::ReadYield(const std::string& statistics)
    : statistics_(statistics), sinceUs_(monotonicUs()) {
  setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kNicest);
  syscall(SYS_ioprio_set, IOPRIO_WHO_PROCESS, 0, IOPRIO_PRIO_VALUE(IOPRIO_CLASS_IDLE, 0));
}

std::string ReadYield::statisticsOf(const std::string& device) {
  struct stat status = {};
  if (stat(device.c_str(), &status) != 0 || !S_ISBLK(status.st_mode)) return "";
  return "/sys/dev/block/" + std::to_string(major(status.st_rdev)) + ":" +
         std::to_string(minor(status.st_rdev)) + "/stat";
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

bool ReadYield::isTaken(const std::string& before, const std::string& behind, int64_t pausedUs) {
  Counts first;
  Counts now;
  if (!first.read(before) || !now.read(behind)) return false;
  const auto busyUs = static_cast<int64_t>(now.busyMs - first.busyMs) * 1000;
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

bool ReadYield::isTaken() {
  const std::string before = look();
  const int64_t fromUs = monotonicUs();
  pauseFor(kPauseUs);
  const bool slow = areFlushesSlow();
  return isTaken(before, look(), monotonicUs() - fromUs) || slow;
}

void ReadYield::rest() {
  const int64_t now = monotonicUs();
  const int64_t worked = now - sinceUs_;
  if (worked < kWorkUs) return;
  pauseFor(worked);
  if (now - lookedUs_ >= kLookUs) {
    int pauses = 0;
    while (pauses < kMostPauses && isTaken()) ++pauses;
    // One that is never free gets no more than a piece of work between two such pauses.
    lookedUs_ = pauses < kMostPauses ? monotonicUs() : 0;
  }
  sinceUs_ = monotonicUs();
}

}  // namespace tarn
