// Times and sizes as a person types them. What is taken is the same when it is shown and typed in.
#include <cstdlib>
#include <ctime>
#include <string>

#include "recorder/card/TimeInput.h"
#include "recorder/card/TimeText.h"
#include "tarn/Console.h"

namespace {

// "2024-02-29T23:59:59": nothing is left to anybody's choice, so it is shown as it was typed.
bool isWhole(const std::string& text) {
  constexpr char kForm[] = "0000-00-00T00:00:00";
  if (text.size() != sizeof kForm - 1) return false;
  for (size_t i = 0; i < text.size(); ++i) {
    const bool digit = text[i] >= '0' && text[i] <= '9';
    if (kForm[i] == '0' ? !digit : text[i] != kForm[i]) return false;
  }
  return true;
}

// A size is a whole number of units, and no less than its number.
void expectUnits(const std::string& text, uint64_t bytes) {
  __extension__ unsigned __int128 number = 0;
  for (size_t i = 0; i < text.size() && i < 30 && text[i] >= '0' && text[i] <= '9'; ++i)
    number = number * 10 + static_cast<unsigned>(text[i] - '0');
  if (number > bytes || (number != 0 && bytes % static_cast<uint64_t>(number) != 0)) abort();
}

}  // namespace

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
    if (isWhole(text) && shown.compare(0, text.size(), text) != 0) abort();
    if (!tarn::TimeInput::parse(shown, edge, &again, &error)) abort();
    if (again.seconds != time.seconds || again.milliseconds() != time.milliseconds()) abort();
  }
  uint64_t bytes = 0;
  if (tarn::parseSize(text, &bytes)) {
    expectUnits(text, bytes);
    uint64_t again = 0;
    if (!tarn::parseSize(std::to_string(bytes), &again) || again != bytes) abort();
  }
  return 0;
}
