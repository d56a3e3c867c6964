#include "recorder/check/CardHoldings.h"

#include <algorithm>

#include "recorder/card/CardText.h"
#include "recorder/card/TimeText.h"
#include "recorder/check/CardContents.h"

namespace tarn {
namespace {

std::string countText(size_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// ", from ... to ..."
std::string periodText(const std::map<uint32_t, DB_STREAM>& rows) {
  uint32_t first = 0xFFFFFFFF;
  uint32_t last = 0;
  for (const auto& [key, row] : rows) {
    first = std::min(first, row.startDate);
    last = std::max({last, row.startDate, row.endDate});
  }
  return ", from " + TimeText::of(first) + " to " + TimeText::of(last);
}

bool managementIsLost(const CardInfo& info) {
  return info.management(kFileStreamManage).copies == CardManagement::Copies::kBothBad;
}

}  // namespace

CardHoldings cardHoldings(const std::string& path) {
  CardContents contents;
  CardHoldings holdings;
  std::string error;
  if (contents.card.open(path, &error) != 0) {
    holdings.any = true;
    holdings.text = "what " + path + " holds cannot be determined (" + error + ")";
    return holdings;
  }
  checkJournals(&contents);
  const uint64_t bytes = contents.card.info().usedBytes(kFileStream);
  const bool unclear = contents.findings.count(FindingKind::kJournalRecord) > 0 ||
                       contents.findings.count(FindingKind::kUnreadable) > 0 ||
                       managementIsLost(contents.card.info());
  holdings.any = !contents.streams.empty() || bytes > 0 || unclear;
  if (!holdings.any) return holdings;
  holdings.text = path + " holds " + (unclear ? "at least " : "") +
                  countText(contents.streams.size(), "recording");
  if (!contents.events.empty()) {
    holdings.text += " and " + countText(contents.events.size(), "event");
  }
  if (!contents.streams.empty()) holdings.text += periodText(contents.streams);
  if (bytes > 0) holdings.text += ", " + sizeText(bytes);
  return holdings;
}

}  // namespace tarn
