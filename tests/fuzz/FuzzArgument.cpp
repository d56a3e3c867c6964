// Times and sizes as a person types them. What is taken is the same when it is shown and typed in.
#include <cstdlib>
#include <ctime>
#include <string>

#include "recorder/card/TimeInput.h"
#include "recorder/card/TimeText.h"
#include "tarn/Console.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
  tzset();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const auto edge : {tarn::TimeInput::Edge::kStart, tarn::TimeInput::Edge::kEnd}) {
    tarn::PictureTime time, again;
    std::string error;
    if (!tarn::TimeInput::parse(text, edge, {1772357200, 250000}, &time, &error)) {
      if (error.empty()) abort();
      continue;
    }
    const std::string shown = tarn::TimeText::iso(time.seconds, time.milliseconds());
    if (!tarn::TimeInput::parse(shown, edge, &again, &error)) abort();
    if (again.seconds != time.seconds || again.milliseconds() != time.milliseconds()) abort();
  }
  uint64_t bytes = 0;
  if (tarn::parseSize(text, &bytes)) {
    uint64_t again = 0;
    if (!tarn::parseSize(std::to_string(bytes), &again) || again != bytes) abort();
  }
  return 0;
}
