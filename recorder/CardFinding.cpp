#include "recorder/CardFinding.h"

#include <numeric>
#include <utility>

namespace tarn {
namespace {

constexpr const char* kNames[kFindingKinds] = {
    "fat",          "file",    "management", "journalCopy", "journalRecord",
    "journalOrder", "openRow", "row",        "header",      "entry",
    "data",         "ring",    "log",        "image",       "unreadable"};

}  // namespace

const char* findingKindName(FindingKind kind) { return kNames[static_cast<size_t>(kind)]; }

void CardFindings::add(CardFinding finding) {
  size_t& count = counts_[static_cast<size_t>(finding.kind)];
  if (count++ < kKeptOfAKind) list_.push_back(std::move(finding));
}

void CardFindings::add(FindingKind kind, std::string text) {
  CardFinding finding;
  finding.kind = kind;
  finding.text = std::move(text);
  add(std::move(finding));
}

size_t CardFindings::total() const {
  return std::accumulate(counts_.begin(), counts_.end(), size_t{0});
}

}  // namespace tarn
