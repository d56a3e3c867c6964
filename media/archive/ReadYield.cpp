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

namespace tarn {
namespace {

constexpr int64_t kWorkUs = 10000;   // that is done in one go
constexpr int64_t kLookUs = 200000;  // how often the device is asked
constexpr int64_t kPauseUs = 50000;
constexpr int kMostPauses = 40;  // two seconds; then it goes on, or a busy card was never archived
// A write that takes this many times as long as usual, and this much longer, is slow.
constexpr double kSlowTimes = 2;
constexpr double kSlowMs = 5;
constexpr double kForgetting = 1.02;  // of what is usual, a look: a card gets slower as it ages
constexpr int kNicest = 19;

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

// Fields of the kernel's: reads, merged, sectors, milliseconds, and the same of writes.
bool ReadYield::areWritesSlow(const std::string& line) {
  std::istringstream fields(line);
  uint64_t field[8] = {};
  for (uint64_t& one : field) {
    if (!(fields >> one)) return false;
  }
  const uint64_t writes = field[4] - writes_;
  const uint64_t ms = field[7] - writeMs_;
  const bool first = !known_;
  known_ = true;
  writes_ = field[4];
  writeMs_ = field[7];
  if (first || writes == 0) return false;
  const double each = static_cast<double>(ms) / static_cast<double>(writes);
  usualMs_ = usualMs_ == 0 ? each : std::min(each, usualMs_ * kForgetting);
  return each > usualMs_ * kSlowTimes + kSlowMs;
}

bool ReadYield::areWritesSlow() {
  std::string line;
  std::ifstream file(statistics_);
  return std::getline(file, line) && areWritesSlow(line);
}

void ReadYield::rest() {
  const int64_t now = monotonicUs();
  const int64_t worked = now - sinceUs_;
  if (worked < kWorkUs) return;
  pauseFor(worked);
  if (!statistics_.empty() && now - lookedUs_ >= kLookUs) {
    for (int i = 0; i < kMostPauses && areWritesSlow(); ++i) pauseFor(kPauseUs);
    lookedUs_ = monotonicUs();
  }
  sinceUs_ = monotonicUs();
}

}  // namespace tarn
