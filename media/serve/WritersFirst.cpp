#include "media/serve/WritersFirst.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <thread>

#include "media/DeviceCounts.h"
#include "media/MonotonicTime.h"

namespace tarn {
namespace {

constexpr uint64_t kWrittenForOneRead = 64;
constexpr int64_t kLookUs = 5000;   // a crowd that waits asks the kernel no more often
constexpr int64_t kCalmUs = 20000;  // without a write: the device has time to spare
constexpr auto kPause = std::chrono::milliseconds(10);

std::string lineOf(const std::string& path) {
  std::string line;
  std::ifstream file(path);
  std::getline(file, line);
  return line;
}

}  // namespace

unsigned long WritersFirst::Reading::sectorsRead() {
  struct rusage used = {};
  getrusage(RUSAGE_THREAD, &used);
  return static_cast<unsigned long>(used.ru_inblock);
}

// With mutex_. What is under way is not in what was written: a card that stands still is busy.
void WritersFirst::look() {
  const int64_t now = monotonicUs();
  if (lookedUs_ != 0 && now - lookedUs_ < kLookUs) return;
  lookedUs_ = now;
  DeviceCounts counts;
  if (!counts.read(lineOf(folder_ + "stat"))) return;
  uint64_t reads = 0;
  uint64_t writes = 0;
  std::ifstream(folder_ + "inflight") >> reads >> writes;
  isWriting_ = writes > 0;
  if (isWriting_ || counts.sectorsWritten != written_) writesUs_ = now;
  written_ = counts.sectorsWritten;
}

// With mutex_, as it was when looked at last.
bool WritersFirst::isCalm() const { return !isWriting_ && lookedUs_ - writesUs_ >= kCalmUs; }

bool WritersFirst::isFree() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (paidAt_ == 0) return true;
  look();
  if (written_ < paidAt_ && !isCalm()) return false;
  paidAt_ = 0;
  return true;
}

bool WritersFirst::wait(int64_t patienceMs) {
  const int64_t untilUs = monotonicUs() + patienceMs * 1000;
  while (!isFree()) {
    if (monotonicUs() >= untilUs) return false;
    std::this_thread::sleep_for(kPause);
  }
  return true;
}

void WritersFirst::noteRead(uint64_t sectors) {
  if (sectors == 0 || folder_.empty()) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  look();
  if (isCalm()) return;
  paidAt_ = std::max(paidAt_, written_) + sectors * kWrittenForOneRead;
}

}  // namespace tarn
