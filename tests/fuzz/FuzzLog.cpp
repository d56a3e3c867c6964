// The system log: its lines, and its text as a recovery and a check find it.
#include <algorithm>
#include <cstdlib>
#include <string>
#include <string_view>

#include "base/Endian.h"
#include "dblog/CDbRestore.h"
#include "fuzz/FuzzCard.h"
#include "recorder/check/CardCheck.h"
#include "recorder/log/LogFormat.h"

using namespace tarn_fuzz;

namespace {

// A long text comes out of its lines as it went in.
void split(std::string_view text) {
  std::string whole;
  while (!text.empty() && whole.size() < tarn::kLogTextBytes) whole += text;
  const std::string clean = tarn::logCleanText(whole);
  const std::vector<std::string> pieces = tarn::logSplitText(clean);
  constexpr size_t kMore = sizeof tarn::kLogMore - 1;
  std::string joined;
  for (size_t i = 0; i < pieces.size(); ++i) {
    const size_t front = i > 0 ? kMore : 0;
    const size_t back = i + 1 < pieces.size() ? kMore : 0;
    joined += pieces[i].substr(front, pieces[i].size() - front - back);
  }
  if (joined != clean) abort();
}

// A line tells the clock's time whatever the one before it was.
void stamp(const uint8_t* data, size_t size) {
  if (size < 16) return;
  const auto seconds = static_cast<int64_t>(tarn::getLe64(data));
  const std::string last = data[8] % 2 == 0 ? "" : tarn::logStamp(tarn::getLe32(data + 8));
  const std::string line = tarn::logPrefix(last, seconds) + "text";
  const bool told = seconds >= 0 && seconds <= INT32_MAX;
  if (told && tarn::parseLogLine(line).seconds != seconds) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  tarn::parseLogLine(text);
  tarn::logStampSeconds(text.substr(0, tarn::kLogStampBytes));
  tarn::logStampTime(text.substr(0, tarn::kLogStampBytes));
  split(text);
  stamp(data, size);
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kLog);
  CDbRestore().recoverSyslogManage();
  std::string error;
  tarn::CardCheck().run(kCardPath, {}, &error);
  card.restore();
  return 0;
}
