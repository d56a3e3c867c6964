#include "mesg/RequestPatience.h"

#include <algorithm>
#include <atomic>
#include <ctime>

namespace tarn {
namespace {

// A signal handler sets a flag, and a wait looks at it: a signal may come just before the wait.
constexpr int64_t kUsPerMs = 1000;
constexpr int64_t kSliceUs = 100 * kUsPerMs;
constexpr int64_t kHurriedUs = 1000 * kUsPerMs;
constexpr uint32_t kUnansweredPart = 10;  // of the limit
// A server that lives answers in less; a dozen such waits are not felt.
constexpr int64_t kMomentUs = 20 * kUsPerMs;

std::atomic<uint32_t> g_limitMs{RequestPatience::kDefaultLimitMs};
std::atomic<bool> g_hurried{false};
std::atomic<bool> g_unanswered{false};  // the last request had no answer in time
std::atomic<bool> g_silent{false};      // hurried, and a wait has ended without an answer

int64_t monotonicNowUs() {
  struct timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

int64_t later(int64_t now, int64_t byUs) {
  return byUs >= RequestPatience::kForever - now ? RequestPatience::kForever : now + byUs;
}

int64_t inUs(int64_t ms) {
  return ms >= RequestPatience::kForever / kUsPerMs ? RequestPatience::kForever : ms * kUsPerMs;
}

}  // namespace

void RequestPatience::setLimitMs(uint32_t limitMs) { g_limitMs = limitMs; }

uint32_t RequestPatience::limitMs() { return g_limitMs; }

void RequestPatience::hurry() noexcept { g_hurried = true; }

bool RequestPatience::hurried() noexcept { return g_hurried; }

void RequestPatience::resume() noexcept {
  g_hurried = false;
  g_silent = false;
  g_unanswered = false;
}

void RequestPatience::answered(bool was) noexcept { g_unanswered = !was; }

RequestPatience::RequestPatience()
    : RequestPatience(g_unanswered ? limitMs() / kUnansweredPart : limitMs()) {}

RequestPatience::RequestPatience(int64_t patienceMs)
    : end_(later(monotonicNowUs(), inUs(patienceMs))) {}

// The second counts from when the wait sees that it is to hurry: it looks often enough.
void RequestPatience::shorten(int64_t now) {
  if (shortened_ || !g_hurried) return;
  shortened_ = true;
  end_ = std::min(end_, later(now, g_silent ? kMomentUs : kHurriedUs));
}

// A part of a millisecond is waited for as a whole one: no wait ends before its time.
int RequestPatience::nextWaitMs() {
  const int64_t now = monotonicNowUs();
  shorten(now);
  if (now < end_) {
    return static_cast<int>((std::min(end_ - now, kSliceUs) + kUsPerMs - 1) / kUsPerMs);
  }
  if (shortened_) g_silent = true;
  return 0;
}

}  // namespace tarn
