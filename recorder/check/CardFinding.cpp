#include "recorder/check/CardFinding.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <numeric>
#include <utility>

namespace tarn {
namespace {

constexpr const char* kNames[kFindingKinds] = {
    "fat",          "file",    "management", "journalCopy", "journalRecord",
    "journalOrder", "openRow", "row",        "header",      "entry",
    "data",         "ring",    "log",        "image",       "unreadable"};

constexpr const char* kConsequenceNames[kConsequences] = {
    "", "none", "risk", "interrupted", "damaged", "lost", "unread", "unknown"};

struct Meaning {
  Consequence consequence;
  const char* text;
};

constexpr char kNotTold[] = "whether anything is lost by it is not known";

// In the order of the kinds. Those of pictures have their own, with times.
constexpr Meaning kMeanings[kFindingKinds] = {
    {Consequence::kNone, "nothing is lost: the recorder finds its chunks without it"},
    {Consequence::kUnknown, kNotTold},
    {Consequence::kNone, "nothing is lost: the other copy has the same"},
    {Consequence::kNone, "nothing is lost: one copy is enough"},
    {Consequence::kUnknown, "a recording or an event may be missing from the list"},
    {Consequence::kUnknown, kNotTold},
    {Consequence::kInterrupted, "what is safe of it is kept: the recorder's next start closes it"},
    {Consequence::kNone, "nothing is lost: no picture is affected"},
    {Consequence::kNone, "nothing is lost: the entries of its pictures say the same"},
    {Consequence::kLost, "video is lost"},
    {Consequence::kDamaged, "video is damaged"},
    {Consequence::kRisk, "nothing is lost yet, but a new recording could overwrite it"},
    {Consequence::kNone, "no recording is affected, only the system log"},
    {Consequence::kNone, "nothing is lost: a start takes the journals instead"},
    {Consequence::kUnread, "the card did not deliver it; the next try may succeed"}};

void addPart(std::string* all, const std::string& part) {
  if (!all->empty()) *all += ", ";
  *all += part;
}

// Times of damaged rows can be anything; so much video lies on no card.
constexpr int64_t kMostMicros = int64_t{UINT32_MAX} * 1000000;

std::string counted(size_t count, const char* one, const char* more) {
  return std::to_string(count) + " " + (count == 1 ? one : more);
}

}  // namespace

const char* consequenceName(Consequence consequence) {
  return kConsequenceNames[static_cast<size_t>(consequence)];
}

std::string videoText(int64_t micros) {
  constexpr int64_t kTenth = 100000;
  const int64_t tenths = (micros + kTenth - 1) / kTenth;
  const int64_t minutes = tenths / 600;
  char text[64];
  if (minutes >= 60) {
    snprintf(text, sizeof text, "%" PRId64 " h %" PRId64 " min", minutes / 60, minutes % 60);
  } else if (minutes >= 1) {
    snprintf(text, sizeof text, "%" PRId64 " min %" PRId64 " s", minutes, tenths / 10 % 60);
  } else {
    snprintf(text, sizeof text, "%" PRId64 ".%" PRId64 " s", tenths / 10, tenths % 10);
  }
  return text;
}

std::string meaningOfAll(const CardFindings& findings, size_t eventsWithoutVideo) {
  std::string all;
  const auto video = [&](Consequence consequence, const char* what) {
    if (findings.countOf(consequence) == 0) return;
    const int64_t micros = findings.videoMicros(consequence);
    const int64_t sound = findings.soundMicros(consequence);
    if (micros > 0) addPart(&all, videoText(micros) + " of video " + what);
    if (sound > 0) addPart(&all, videoText(sound) + " of sound " + what);
    if (micros > 0 || sound > 0) return;
    addPart(&all, counted(findings.countOf(consequence), "place", "places") + " " + what);
  };
  video(Consequence::kLost, "lost");
  video(Consequence::kDamaged, "damaged");
  video(Consequence::kUnread, "not read");
  if (eventsWithoutVideo != 0) {
    addPart(&all, counted(eventsWithoutVideo, "event", "events") + " without video");
  }
  const size_t unknown = findings.countOf(Consequence::kUnknown);
  if (all.empty()) all = unknown == 0 ? "nothing lost" : "nothing known to be lost";
  const size_t open = findings.countOf(Consequence::kInterrupted);
  if (open != 0) addPart(&all, std::to_string(open) + " interrupted");
  const size_t risk = findings.countOf(Consequence::kRisk);
  if (risk != 0) addPart(&all, std::to_string(risk) + " in danger of being overwritten");
  if (unknown != 0) addPart(&all, counted(unknown, "finding", "findings") + " of unknown effect");
  return all;
}

const char* findingKindName(FindingKind kind) { return kNames[static_cast<size_t>(kind)]; }

void CardFindings::add(CardFinding finding) {
  const Meaning& usual = kMeanings[static_cast<size_t>(finding.kind)];
  if (finding.consequence == Consequence::kOfKind) finding.consequence = usual.consequence;
  if (finding.meaning.empty()) finding.meaning = usual.text;
  auto& all = finding.isSound ? soundMicros_ : micros_;
  int64_t& micros = all[static_cast<size_t>(finding.consequence)];
  micros = std::min(micros + std::min(finding.videoMicros, kMostMicros), kMostMicros);
  ++meant_[static_cast<size_t>(finding.consequence)];
  size_t& count = counts_[static_cast<size_t>(finding.kind)];
  if (count++ < kKeptOfAKind) list_.push_back(std::move(finding));
}

void CardFindings::add(FindingKind kind, std::string text) {
  CardFinding finding;
  finding.kind = kind;
  finding.text = std::move(text);
  add(std::move(finding));
}

void CardFindings::append(const CardFindings& other) {
  std::array<size_t, kFindingKinds> listed{};
  for (const CardFinding& finding : other.list_) {
    const auto kind = static_cast<size_t>(finding.kind);
    if (counts_[kind] + listed[kind]++ < kKeptOfAKind) list_.push_back(finding);
  }
  for (size_t kind = 0; kind < kFindingKinds; ++kind) counts_[kind] += other.counts_[kind];
  for (size_t i = 0; i < kConsequences; ++i) {
    micros_[i] = std::min(micros_[i] + other.micros_[i], kMostMicros);
    soundMicros_[i] = std::min(soundMicros_[i] + other.soundMicros_[i], kMostMicros);
    meant_[i] += other.meant_[i];
  }
}

size_t CardFindings::total() const {
  return std::accumulate(counts_.begin(), counts_.end(), size_t{0});
}

}  // namespace tarn
