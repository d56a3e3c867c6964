// Preloaded into a program: its wall clock is wrong by the seconds of TARN_CLOCK_SHIFT ("seconds
// until") as long as the monotonic clock shows less than "until", which is when somebody sets it.
#include <dlfcn.h>
#include <sys/time.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace {

using ClockGettime = int(clockid_t, timespec*);

int realClock(clockid_t clock, timespec* out) {
  static const auto real =
      reinterpret_cast<ClockGettime*>(reinterpret_cast<void*>(dlsym(RTLD_NEXT, "clock_gettime")));
  return real(clock, out);
}

long long shiftNow() {
  const char* text = getenv("TARN_CLOCK_SHIFT");
  long long seconds = 0;
  long long until = 0;
  timespec now{};
  if (text == nullptr || sscanf(text, "%lld %lld", &seconds, &until) != 2) return 0;
  realClock(CLOCK_MONOTONIC, &now);
  return now.tv_sec < until ? seconds : 0;
}

}  // namespace

extern "C" {

[[gnu::visibility("default")]] int clock_gettime(clockid_t clock, timespec* out) noexcept {
  const int result = realClock(clock, out);
  if (result == 0 && clock == CLOCK_REALTIME) out->tv_sec += static_cast<time_t>(shiftNow());
  return result;
}

[[gnu::visibility("default")]] int gettimeofday(timeval* out, void* /*zone*/) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  out->tv_sec = now.tv_sec;
  out->tv_usec = now.tv_nsec / 1000;
  return 0;
}

[[gnu::visibility("default")]] time_t time(time_t* out) noexcept {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  if (out != nullptr) *out = now.tv_sec;
  return now.tv_sec;
}

}  // extern "C"
