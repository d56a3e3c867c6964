#include "media/archive/CardArchiver.h"

#include <cstdio>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "fat/ChunkFiles.h"
#include "media/archive/ArchiveClip.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ArchivePlan.h"
#include "media/archive/ArchiveStore.h"
#include "media/archive/ClipSeal.h"
#include "media/archive/DayIndex.h"
#include "media/seal/SealingKey.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr char kErrStoppedBetween[] =
    "stopped before all was archived; the next run goes on from there";

}  // namespace

class CardArchiver::Impl {
 public:
  explicit Impl(const Settings& settings) : settings_(settings) {}
  bool run(const StopAsked& stopAsked, const Progress& progress);
  bool failForMemory() {
    noMemory_ = true;
    return false;
  }
  const char* error() const { return noMemory_ ? kErrNoMemory : error_.c_str(); }
  const ArchiveReport& report() const { return report_; }

 private:
  bool fail(const std::string& text);
  bool nameRecorder();
  bool lookAround();
  bool dropParts();
  bool archiveClips(const std::vector<ArchiveLine>& clips);
  bool archive(const ArchiveLine& clip);
  bool isWanted(const ArchiveLine& clip) const;
  bool isThere(const ArchiveLine& clip, bool* there);
  bool send(const ArchiveLine& clip);
  bool sendSidecar(const ArchiveLine& line);
  bool put(const std::string& name, const ByteSource& source, ArchiveStore::Stored* stored);
  bool updateIndexes(const ArchivePlan& plan);
  bool addStories(const ArchivePlan& plan);
  bool addSidecars(const std::string& day, DayIndex* index);
  bool indexOf(const std::string& day, DayIndex** index);
  void noteMissing(const ArchiveLine& line);

  const Settings settings_;
  StopAsked stopAsked_;
  Progress progress_;
  std::unique_ptr<ArchiveStore> store_;
  std::map<std::string, int64_t> held_;      // objects of the archive with their bytes
  std::map<std::string, DayIndex> indexes_;  // by day's folder, those that were asked for
  std::set<std::string> fresh_;              // recordings that were sent
  size_t done_ = 0;
  size_t clips_ = 0;
  uint64_t sent_ = 0;
  SealingKey key_;  // loaded where something is sealed
  ArchiveReport report_;
  std::string error_;
  bool noMemory_ = false;
};

bool CardArchiver::Impl::fail(const std::string& text) {
  error_ = text;
  return false;
}

// The number that formatting a card gives it: two cards of one recorder are two, unless they are
// given one name.
bool CardArchiver::Impl::nameRecorder() {
  report_.recorder = settings_.recorder;
  if (!report_.recorder.empty()) return isRecorderName(report_.recorder) || fail(kErrRecorderName);
  CardInfo info;
  if (info.read(deviceName(kRecorderPartition), &error_) != 0) return false;
  char number[16];
  snprintf(number, sizeof number, "%04X-%04X", unsigned{info.volumeId() >> 16},
           unsigned{info.volumeId() & 0xFFFF});
  report_.recorder = number;
  return true;
}

bool CardArchiver::Impl::lookAround() {
  store_ = ArchiveStore::open(settings_.place, &error_);
  if (store_ == nullptr) return false;
  store_->limitRate(settings_.bytesPerSecond);
  store_->waitAtMost(settings_.patienceSeconds);
  store_->trustSize(settings_.trustSize);
  std::vector<ArchiveStore::Object> objects;
  if (!store_->list(folderOfRecorder(report_.recorder), &objects)) return fail(store_->error());
  for (const ArchiveStore::Object& object : objects) held_[object.name] = object.bytes;
  return settings_.dryRun || dropParts();
}

// What a run that was killed has left: nobody but an archiver of this recorder gives such names.
bool CardArchiver::Impl::dropParts() {
  for (auto object = held_.begin(); object != held_.end();) {
    if (!endsIn(object->first, kPartEnding)) {
      ++object;
      continue;
    }
    const size_t length = object->first.size() - (sizeof kPartEnding - 1);
    if (!store_->dropPart(object->first.substr(0, length))) return fail(store_->error());
    object = held_.erase(object);
  }
  return true;
}

bool CardArchiver::Impl::isWanted(const ArchiveLine& clip) const {
  return !settings_.since || settings_.since->totalMicros() <= clip.endMs * 1000 + 999;
}

// Null where the archive has no index of that day yet. False when it cannot be read.
bool CardArchiver::Impl::indexOf(const std::string& day, DayIndex** index) {
  const auto [place, isNew] = indexes_.try_emplace(day, store_.get(), day);
  *index = &place->second;
  if (!isNew) return true;
  for (const char* name : {kIndexName, kPlainIndexName}) {
    if (held_.count(day + name) != 0) return place->second.read(name) || fail(store_->error());
  }
  return true;
}

// A clip counts once its sidecar is there. One that lacks pictures is made again, and replaced
// where the card gives more of them now.
bool CardArchiver::Impl::isThere(const ArchiveLine& clip, bool* there) {
  *there = held_.count(clip.object) != 0 && held_.count(sidecarOf(clip.object)) != 0;
  if (!*there) return true;
  DayIndex* index = nullptr;
  if (!indexOf(dayOf(clip.object), &index)) return false;
  const ArchiveLine* known = index->find(clip.object);
  if (known == nullptr || known->missing == 0) return true;
  ArchiveClip again(clip, stopAsked_);
  const bool made = again.write([](const uint8_t* /*data*/, size_t /*size*/) { return true; });
  *there = !made || again.line().missing >= known->missing;
  if (*there) noteMissing(*known);
  return true;
}

void CardArchiver::Impl::noteMissing(const ArchiveLine& line) {
  if (line.missing == 0) return;
  report_.incomplete.push_back(
      {line.object, std::to_string(line.missing) + " pictures or pieces of sound cannot be read"});
}

bool CardArchiver::Impl::put(const std::string& name, const ByteSource& source,
                             ArchiveStore::Stored* stored) {
  if (!store_->put(name, source, stored)) return false;
  held_[name] = static_cast<int64_t>(stored->bytes);
  uint64_t* counters[] = {&report_.byHash, &report_.byReadBack, &report_.bySize};
  ++*counters[static_cast<size_t>(stored->proof)];
  return true;
}

bool CardArchiver::Impl::sendSidecar(const ArchiveLine& line) {
  const std::string text = line.text() + "\n";
  ArchiveStore::Stored stored;
  const auto source = [&text](const ByteSink& sink) {
    return sink(reinterpret_cast<const uint8_t*>(text.data()), text.size());
  };
  return put(sidecarOf(line.object), source, &stored) || fail(store_->error());
}

// A clip that cannot be made is no reason to leave out the others; one that cannot be sent is.
bool CardArchiver::Impl::send(const ArchiveLine& clip) {
  std::optional<ClipSeal> seal;
  if (settings_.seal) seal.emplace(&key_, *settings_.seal, report_.recorder, clip.object);
  ArchiveClip maker(clip, stopAsked_, seal ? &*seal : nullptr);
  ArchiveStore::Stored stored;
  const auto source = [&](const ByteSink& sink) {
    return maker.write([&](const uint8_t* data, size_t size) {
      sent_ += size;
      if (progress_) progress_(clip.object, done_, clips_, sent_);
      return sink(data, size);
    });
  };
  if (!put(clip.object, source, &stored)) {
    if (stopAsked_ && stopAsked_()) return fail(kErrStoppedBetween);
    if (!store_->error().empty()) return fail(store_->error());
    report_.failures.push_back({clip.object, maker.error()});
    return true;
  }
  ArchiveLine line = maker.line();
  line.bytes = stored.bytes;
  line.hashes = stored.hashes;
  if (!sendSidecar(line)) return false;
  DayIndex* index = nullptr;
  if (!indexOf(dayOf(line.object), &index)) return false;
  index->add(line);
  if (line.kind == "recording") fresh_.insert(line.object);
  noteMissing(line);
  report_.uploaded.push_back(line.object);
  report_.bytes += line.bytes;
  return true;
}

bool CardArchiver::Impl::archive(const ArchiveLine& clip) {
  bool there = false;
  if (!isThere(clip, &there)) return false;
  if (there) {
    ++report_.present;
    return true;
  }
  if (!settings_.dryRun) return send(clip);
  report_.uploaded.push_back(clip.object);
  return true;
}

bool CardArchiver::Impl::archiveClips(const std::vector<ArchiveLine>& clips) {
  for (const ArchiveLine& clip : clips) {
    if (stopAsked_ && stopAsked_()) return fail(kErrStoppedBetween);
    if (progress_) progress_(clip.object, done_, clips_, sent_);
    if (isWanted(clip) && !archive(clip)) return false;
    ++done_;
  }
  return true;
}

// Of what a run has sent that was killed before it wrote the index.
bool CardArchiver::Impl::addSidecars(const std::string& day, DayIndex* index) {
  std::set<std::string> listed;
  for (const auto& one : index->lines()) {
    if (!one.second.object.empty()) listed.insert(sidecarOf(one.second.object));
  }
  for (auto object = held_.lower_bound(day + "/"); object != held_.end(); ++object) {
    const std::string& name = object->first;
    if (name.compare(0, day.size() + 1, day + "/") != 0) break;
    if (!endsIn(name, kSidecarEnding) || listed.count(name) != 0) continue;
    if (!index->addSidecar(name)) return fail(store_->error());
  }
  return true;
}

// What an index says beside the sidecars of the recordings that are new to it. A card is recorded
// on while this runs: what is wrong with a recording that has gone meanwhile is no finding of it.
bool CardArchiver::Impl::addStories(const ArchivePlan& plan) {
  std::vector<DB_STREAM> rows;
  std::map<uint32_t, DayIndex*> indexOfKey;
  for (const ArchiveLine& clip : plan.clips()) {
    DayIndex* index = nullptr;
    if (clip.kind != "recording") continue;
    if (!indexOf(dayOf(clip.object), &index)) return false;
    const bool isNew = fresh_.count(clip.object) != 0 || !index->had(clip.object);
    const DB_STREAM* row = plan.rowOf(clip.key);
    if (!isNew || index->find(clip.object) == nullptr || row == nullptr) continue;
    index->forgetStory(clip);
    for (const ArchiveLine& gap : plan.story().gapsInside(*row)) {
      DayIndex* ofGap = nullptr;
      if (!indexOf(folderOfDay(report_.recorder, gap.startMs), &ofGap)) return false;
      ofGap->add(gap);
    }
    rows.push_back(*row);
    indexOfKey[clip.key] = index;
  }
  std::vector<ArchiveLine> findings;
  if (!rows.empty() && !plan.story().findings(rows, plan.events(), stopAsked_, &findings, &error_))
    return false;
  for (const ArchiveLine& one : findings) indexOfKey[one.key]->add(one);
  return true;
}

// Days of which the card holds something, and those that have no index yet.
bool CardArchiver::Impl::updateIndexes(const ArchivePlan& plan) {
  std::set<std::string> days;
  for (const ArchiveLine& line : plan.clips()) days.insert(dayOf(line.object));
  for (const auto& object : held_) {
    const std::string day = dayOf(object.first);
    if (!day.empty() && held_.count(day + kIndexName) == 0) days.insert(day);
  }
  DayIndex* index = nullptr;
  for (const std::string& day : days) {
    if (!indexOf(day, &index) || !addSidecars(day, index)) return false;
  }
  if (!addStories(plan)) return false;
  for (const ArchiveLine& line : plan.others()) {
    const std::string day = folderOfDay(report_.recorder, line.startMs);
    if (!indexOf(day, &index)) return false;
    if (line.kind == "gap" && index->fills(line)) continue;
    index->add(line);
    days.insert(day);
  }
  for (auto& [day, one] : indexes_) {
    bool written = false;
    if (one.lines().empty()) continue;
    if (!one.write(&written)) return fail(store_->error());
    if (written) ++report_.indexes;
  }
  return true;
}

bool CardArchiver::Impl::run(const StopAsked& stopAsked, const Progress& progress) {
  stopAsked_ = stopAsked;
  progress_ = progress;
  if (!nameRecorder()) return false;
  if (settings_.seal && !key_.load(*settings_.seal)) return fail(key_.error());
  ArchivePlan plan(report_.recorder);
  if (!plan.read(stopAsked_)) return fail(plan.error());
  clips_ = plan.clips().size();
  report_.waiting = plan.waiting();
  if (!lookAround() || !archiveClips(plan.clips())) return false;
  if (!settings_.dryRun && !updateIndexes(plan)) return false;
  return report_.failures.empty() && report_.incomplete.empty();
}

CardArchiver::CardArchiver(const Settings& settings) noexcept {
  impl_ = orNoMemory(
      "CardArchiver", [&] { return std::make_unique<Impl>(settings); },
      [] { return std::unique_ptr<Impl>(); });
}

CardArchiver::~CardArchiver() = default;

bool CardArchiver::run(const StopAsked& stopAsked, const Progress& progress) noexcept {
  if (!impl_) return false;
  return orNoMemory(
      "CardArchiver::run", [&] { return impl_->run(stopAsked, progress); },
      [this] { return impl_->failForMemory(); });
}

const ArchiveReport& CardArchiver::report() const noexcept {
  static const ArchiveReport none;
  return impl_ ? impl_->report() : none;
}

const char* CardArchiver::error() const noexcept { return impl_ ? impl_->error() : kErrNoMemory; }

}  // namespace tarn
