// Times and sizes as a person types them. What is taken is the same when it is shown and typed in.
#include <cstdlib>
#include <ctime>
#include <string>

#include "tarn/Console.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  uint32_t seconds = 0;
  if (tarn::parseTime(text, &seconds)) {
    uint32_t again = 0;
    tarn::isoTime(seconds, 999);
    const std::string shown = tarn::timeText(seconds, 0);
    if (!tarn::parseTime(shown.substr(0, 19), &again)) abort();
    // The times themselves may differ: an hour of autumn is there twice.
    if (tarn::timeText(again, 0) != shown) abort();
  }
  uint64_t bytes = 0;
  if (tarn::parseSize(text, &bytes)) {
    uint64_t again = 0;
    if (!tarn::parseSize(std::to_string(bytes), &again) || again != bytes) abort();
  }
  return 0;
}
