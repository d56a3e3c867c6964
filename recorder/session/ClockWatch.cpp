#include "recorder/session/ClockWatch.h"

#include <sys/timex.h>

#include <cstdlib>
#include <ctime>

namespace tarn {
namespace {

// A wall clock that has moved by more against the monotonic one was set.
constexpr int64_t kStepUs = 500000;
// 2020-01-01 00:00 UTC: no recorder was built before.
constexpr int64_t kKnownFromUs = int64_t{1577836800} * 1000000;

int64_t micros(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

// Where the kernel does not say, a clock that somebody sets is one that was known.
ClockWatch::Reading ClockWatch::read() {
  timex state{};
  const int result = adjtimex(&state);
  return {micros(CLOCK_REALTIME), micros(CLOCK_MONOTONIC),
          result < 0 || (state.status & STA_UNSYNC) == 0};
}

ClockWatch::Verdict ClockWatch::look(const Reading& now) {
  const int64_t offset = now.wallUs - now.monotonicUs;
  const int64_t step = offset - offsetUs();
  const bool wasSynchronised = last_.synchronised;
  last_.synchronised = now.synchronised;
  if (std::abs(step) < kStepUs) return Verdict::kSame;
  const int64_t before = now.wallUs - step;
  last_ = now;
  stepUs_ = step;
  const bool known = (before < kKnownFromUs && now.wallUs >= kKnownFromUs) ||
                     (!wasSynchronised && now.synchronised);
  return known ? Verdict::kBecameKnown : Verdict::kStepped;
}

}  // namespace tarn
