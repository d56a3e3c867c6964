// The system log: its text as a recovery, a check and a writer find it.
#include <string_view>

#include "dblog/CDbRestore.h"
#include "fuzz/FuzzCard.h"
#include "recorder/check/CardCheck.h"
#include "recorder/log/LogFormat.h"

using namespace tarn_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  tarn::parseLogLine(text);
  tarn::logStampSeconds(text.substr(0, tarn::kLogStampBytes));
  tarn::logStampTime(text.substr(0, tarn::kLogStampBytes));
  tarn::logSplitText(tarn::logCleanText(text));
  FuzzCard& card = FuzzCard::get();
  card.damage(data, size, kLog);
  CDbRestore().recoverSyslogManage();
  std::string error;
  tarn::CardCheck().run(kCardPath, {}, &error);
  card.restore();
  return 0;
}
