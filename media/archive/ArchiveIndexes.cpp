#include "media/archive/ArchiveIndexes.h"

#include <algorithm>
#include <vector>

#include "media/archive/ArchiveNames.h"

namespace tarn {
namespace {

constexpr char kErrNotListed[] = " is there, but the archive's listing leaves it out";

}  // namespace

bool ArchiveIndexes::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool ArchiveIndexes::of(const std::string& day, DayIndex** index) {
  const auto [place, isNew] = indexes_.try_emplace(day, store_, day);
  *index = &place->second;
  if (!isNew) return true;
  for (const char* name : {kIndexName, kPlainIndexName}) {
    if (held_->count(day + name) != 0) return place->second.read(name) || fail(store_->error());
  }
  // A listing that leaves something out would have a new index take the place of one that has more.
  bool there = false;
  if (!store_->holds(day + kIndexName, &there)) return fail(store_->error());
  return !there || fail(day + kIndexName + kErrNotListed);
}

bool ArchiveIndexes::add(const ArchiveLine& line) {
  DayIndex* index = nullptr;
  if (!of(dayOf(line.object), &index)) return false;
  index->add(line);
  if (line.kind == "recording") fresh_.insert(line.object);
  return true;
}

// Of what a run has sent that was killed before it wrote the index.
bool ArchiveIndexes::addSidecars(const std::string& day, DayIndex* index) {
  std::set<std::string> listed;
  for (const auto& one : index->lines()) {
    if (!one.second.object.empty()) listed.insert(sidecarOf(one.second.object));
  }
  for (auto object = held_->lower_bound(day + "/"); object != held_->end(); ++object) {
    const std::string& name = object->first;
    if (name.compare(0, day.size() + 1, day + "/") != 0) break;
    if (!endsIn(name, kSidecarEnding) || listed.count(name) != 0) continue;
    if (!index->addSidecar(name)) return fail(store_->error());
  }
  return true;
}

// Whether each byte of a recording was read, and found good, when its clip was made.
bool ArchiveIndexes::wasReadWhole(const ArchiveLine& line) const {
  return fresh_.count(line.object) != 0 && line.parts == 0 &&
         line.damaged + line.missing + line.undecodable == 0;
}

// What an index says beside the sidecars of the recordings that are new to it. A card is recorded
// on while this runs: what is wrong with a recording that has gone meanwhile is no finding of it.
bool ArchiveIndexes::addStories(const ArchivePlan& plan, const StopAsked& stopAsked) {
  std::vector<DB_STREAM> rows;
  std::vector<DB_STREAM> proven;
  std::map<uint32_t, DayIndex*> indexOfKey;
  for (const ArchiveLine& clip : plan.clips()) {
    DayIndex* index = nullptr;
    if (clip.kind != "recording") continue;
    if (!of(dayOf(clip.object), &index)) return false;
    const bool isNew = fresh_.count(clip.object) != 0 || !index->had(clip.object);
    if (!isNew || index->find(clip.object) == nullptr) continue;
    const DB_STREAM* row = plan.rowOf(clip.key);
    if (row == nullptr) continue;
    index->forgetStory(clip);
    for (const ArchiveLine& gap : plan.story().gapsInside(*row)) {
      DayIndex* ofGap = nullptr;
      if (!of(folderOfDay(recorder_, gap.startMs), &ofGap)) return false;
      ofGap->add(gap);
    }
    (wasReadWhole(*index->find(clip.object)) ? proven : rows).push_back(*row);
    indexOfKey[clip.key] = index;
  }
  std::vector<ArchiveLine> findings;
  const CardStory& story = plan.story();
  if (!rows.empty() && !story.findings(rows, plan.events(), true, stopAsked, &findings, &error_))
    return false;
  if (!proven.empty() &&
      !story.findings(proven, plan.events(), false, stopAsked, &findings, &error_))
    return false;
  for (const ArchiveLine& one : findings) indexOfKey[one.key]->add(one);
  return (rows.empty() && proven.empty()) || addCardStory(plan);
}

// Of the card as it is now; in the index of the newest day of which it has a recording, so that it
// stands there whenever it is archived.
bool ArchiveIndexes::addCardStory(const ArchivePlan& plan) {
  constexpr int64_t kDayMs = 86400000;
  int64_t newestMs = 0;
  for (const ArchiveLine& clip : plan.clips()) {
    if (clip.kind == "recording") newestMs = std::max(newestMs, clip.startMs);
  }
  DayIndex* index = nullptr;
  std::vector<ArchiveLine> findings;
  if (!of(folderOfDay(recorder_, newestMs), &index)) return false;
  if (!plan.story().cardFindings(newestMs - newestMs % kDayMs, &findings, &error_)) return false;
  index->forgetCard();
  for (const ArchiveLine& one : findings) index->add(one);
  return true;
}

// Days of which the card holds something, and those that have no index yet.
bool ArchiveIndexes::update(ArchivePlan* plan, const StopAsked& stopAsked) {
  std::set<std::string> days;
  for (const ArchiveLine& line : plan->clips()) days.insert(dayOf(line.object));
  for (const auto& object : *held_) {
    const std::string day = dayOf(object.first);
    if (!day.empty() && held_->count(day + kIndexName) == 0) days.insert(day);
  }
  DayIndex* index = nullptr;
  for (const std::string& day : days) {
    if (!of(day, &index) || !addSidecars(day, index)) return false;
  }
  plan->addGaps();
  if (!addStories(*plan, stopAsked)) return false;
  for (const ArchiveLine& line : plan->others()) {
    const std::string day = folderOfDay(recorder_, line.startMs);
    if (!of(day, &index)) return false;
    if (line.kind == "gap" && index->fills(line)) continue;
    index->add(line);
  }
  return write();
}

bool ArchiveIndexes::write() {
  for (auto& [day, one] : indexes_) {
    bool written = false;
    if (one.lines().empty()) continue;
    if (!one.write(&written)) return fail(store_->error());
    if (written) ++written_;
  }
  return true;
}

}  // namespace tarn
