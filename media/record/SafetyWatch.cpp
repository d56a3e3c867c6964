#include "media/record/SafetyWatch.h"

#include <unistd.h>

#include <cstdlib>

namespace tarn {

SafetyWatch::SafetyWatch(int64_t limitUs, int64_t nowUs)
    : limitUs_(limitUs), grewUs_(nowUs), fedUs_(nowUs - limitUs) {}

int64_t SafetyWatch::limitOfManager() {
  const char* limit = getenv("WATCHDOG_USEC");
  const char* process = getenv("WATCHDOG_PID");
  if (limit == nullptr || (process != nullptr && strtoll(process, nullptr, 10) != getpid()))
    return 0;
  const long long micros = strtoll(limit, nullptr, 10);
  return micros > 0 ? micros : 0;
}

SafetyWatch::Verdict SafetyWatch::look(uint64_t safe, int64_t nowUs) {
  if (limitUs_ == 0) return Verdict::kNothing;
  if (safe > safe_) {
    safe_ = safe;
    grewUs_ = nowUs;
    warned_ = false;
    if (nowUs - fedUs_ < limitUs_ / 4) return Verdict::kNothing;
    fedUs_ = nowUs;
    return Verdict::kFeed;
  }
  if (warned_ || nowUs - grewUs_ < limitUs_ / 2) return Verdict::kNothing;
  warned_ = true;
  return Verdict::kWarn;
}

}  // namespace tarn
