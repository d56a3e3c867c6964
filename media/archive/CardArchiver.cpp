#include "media/archive/CardArchiver.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <optional>
#include <set>
#include <utility>

#include "fat/ChunkFiles.h"
#include "media/ArchiveStatus.h"
#include "media/RunError.h"
#include "media/archive/ArchiveClip.h"
#include "media/archive/ArchiveIndexes.h"
#include "media/archive/ArchiveMessages.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ArchivePlan.h"
#include "media/archive/ArchiveStore.h"
#include "media/archive/ClipSeal.h"
#include "media/archive/DayIndex.h"
#include "media/archive/ReadYield.h"
#include "media/seal/SealingKey.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr char kErrStoppedBetween[] =
    "stopped before all was archived; the next run goes on from there";

}  // namespace

class CardArchiver::Impl : public RunError {
 public:
  explicit Impl(const Settings& settings) : settings_(settings) {}
  bool run(const StopAsked& stopAsked, const Progress& progress);
  const ArchiveReport& report() const { return report_; }

 private:
  bool nameRecorder();
  bool lookAround(const ArchivePlan& plan);
  bool listHeld(const ArchivePlan& plan);
  bool archiveAll(ArchivePlan* plan);
  void noteEndangered(const ArchivePlan& plan);
  void tellStatus(bool good) const;
  bool dropParts();
  bool settlePart(const std::string& name);
  bool archiveClips(const std::vector<ArchiveLine>& clips);
  bool archive(const ArchiveLine& clip);
  bool isWanted(const ArchiveLine& clip) const;
  bool isThere(const ArchiveLine& clip, bool* there);
  bool hasParts(const ArchiveLine& first) const;
  bool isHeld(const std::string& clip) const {
    return held_.count(clip) != 0 && held_.count(sidecarOf(clip)) != 0;
  }
  bool adopt(const ArchiveLine& clip, bool* adopted);
  bool send(const ArchiveLine& clip);
  bool sendPart(ArchiveClip* maker, const std::string& object, ArchiveLine* line, bool* made);
  bool noteSent(const ArchiveLine& line);
  bool sendSidecar(const ArchiveLine& line);
  bool put(const std::string& name, const ByteSource& source, ArchiveStore::Stored* stored);
  void noteMissing(const ArchiveLine& line);

  const Settings settings_;
  StopAsked stopAsked_;
  Progress progress_;
  std::unique_ptr<ArchiveStore> store_;
  std::map<std::string, int64_t> held_;  // objects of the archive with their bytes
  std::unique_ptr<ArchiveIndexes> indexes_;
  size_t done_ = 0;
  size_t clips_ = 0;
  size_t sentClips_ = 0;
  uint64_t sent_ = 0;
  std::unique_ptr<ReadYield> yield_;  // where reads make way
  bool listed_ = false;               // held_ is all that the archive has
  SealingKey key_;                    // loaded where something is sealed
  ArchiveReport report_;
};

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

bool CardArchiver::Impl::lookAround(const ArchivePlan& plan) {
  store_ = ArchiveStore::open(settings_.place, &error_);
  if (store_ == nullptr) return false;
  store_->limitRate(settings_.bytesPerSecond);
  store_->waitAtMost(settings_.patienceSeconds);
  store_->trustSize(settings_.trustSize);
  if (!listHeld(plan)) return false;
  indexes_ = std::make_unique<ArchiveIndexes>(store_.get(), report_.recorder, &held_);
  listed_ = true;
  return settings_.dryRun || dropParts();
}

// All of the recorder's; where only events are wanted that is their days'.
bool CardArchiver::Impl::listHeld(const ArchivePlan& plan) {
  std::set<std::string> folders = {folderOfRecorder(report_.recorder)};
  if (settings_.onlyEvents) {
    folders.clear();
    for (const ArchiveLine& clip : plan.clips()) {
      if (isWanted(clip)) folders.insert(dayOf(clip.object));
    }
  }
  std::vector<ArchiveStore::Object> objects;
  for (const std::string& folder : folders) {
    if (!store_->list(folder, &objects)) return fail(store_->error());
  }
  for (const ArchiveStore::Object& object : objects) held_[object.name] = object.bytes;
  return true;
}

// A remote takes an object away before another one, whole and proven, gets its name: a run that was
// killed between the two has left the only one. A clip is then sent again, if the card still has
// it.
bool CardArchiver::Impl::settlePart(const std::string& name) {
  if (held_.count(name) != 0) return store_->dropPart(name);
  bool whole = false;
  if (!endsIn(name, kIndexName) && !endsIn(name, kSidecarEnding))
    return held_.count(sidecarOf(name)) != 0 || store_->dropPart(name);
  if (!DayIndex(store_.get(), "").isWholePart(name, &whole)) return false;
  if (!whole) return store_->dropPart(name);
  held_[name] = 0;
  return store_->namePart(name);
}

// What a run that was killed has left: nobody but an archiver of this recorder gives such names.
bool CardArchiver::Impl::dropParts() {
  for (auto object = held_.begin(); object != held_.end();) {
    if (!endsIn(object->first, kPartEnding)) {
      ++object;
      continue;
    }
    const size_t length = object->first.size() - (sizeof kPartEnding - 1);
    if (!settlePart(object->first.substr(0, length))) return fail(store_->error());
    object = held_.erase(object);
  }
  return true;
}

bool CardArchiver::Impl::isWanted(const ArchiveLine& clip) const {
  if (settings_.onlyEvents)
    return clip.kind == "event" && settings_.onlyEvents->count(clip.key) != 0;
  return !settings_.since || settings_.since->totalMicros() <= clip.endMs * 1000 + 999;
}

// A clip counts once its sidecar is there. One that lacks pictures is made again, and replaced
// where the card gives more of them now.
bool CardArchiver::Impl::isThere(const ArchiveLine& clip, bool* there) {
  DayIndex* index = nullptr;
  if (!indexes_->of(dayOf(clip.object), &index)) return fail(indexes_->error());
  *there = isHeld(clip.object);
  if (!*there) return true;
  const ArchiveLine* known = index->find(clip.object);
  if (known == nullptr) return true;
  *there = hasParts(*known);
  const uint64_t missing = index->missingOf(*known);
  if (!*there || missing == 0) return true;
  uint64_t now = 0;
  *there = !ArchiveClip(clip, stopAsked_, yield_.get()).countMissing(&now) || now >= missing;
  ArchiveLine whole = *known;
  whole.missing = missing;
  if (*there) noteMissing(whole);
  return true;
}

// All that its first part tells of.
bool CardArchiver::Impl::hasParts(const ArchiveLine& first) const {
  for (uint32_t part = 2; part <= first.parts; ++part) {
    if (!isHeld(partName(first.object, part))) return false;
  }
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
bool CardArchiver::Impl::sendPart(ArchiveClip* maker, const std::string& object, ArchiveLine* line,
                                  bool* made) {
  std::optional<ClipSeal> seal;
  if (settings_.seal) seal.emplace(&key_, *settings_.seal, report_.recorder, object);
  ArchiveStore::Stored stored;
  const auto source = [&](const ByteSink& sink) {
    const auto send = [&](const uint8_t* data, size_t size) {
      sent_ += size;
      if (progress_) progress_(object, done_, clips_, sent_);
      return sink(data, size);
    };
    return maker->write(send, seal ? &*seal : nullptr);
  };
  *made = put(object, source, &stored);
  if (!*made && stopAsked_ && stopAsked_()) return fail(kErrStoppedBetween);
  if (!*made && !store_->error().empty()) return fail(store_->error());
  if (!*made) report_.failures.push_back({object, maker->error()});
  *line = maker->line();
  line->bytes = stored.bytes;
  line->hashes = stored.hashes;
  return true;
}

bool CardArchiver::Impl::noteSent(const ArchiveLine& line) {
  if (!sendSidecar(line)) return false;
  if (!indexes_->add(line)) return fail(indexes_->error());
  noteMissing(line);
  report_.uploaded.push_back(line.object);
  report_.bytes += line.bytes;
  return true;
}

// What a run that was killed has left without its sidecar, proven and named: where it is the clip
// of now, it is not sent once more. A seal is another one each time, and so is what is sealed.
bool CardArchiver::Impl::adopt(const ArchiveLine& clip, bool* adopted) {
  *adopted = false;
  if (settings_.seal || held_.count(clip.object) == 0 || isHeld(clip.object)) return true;
  ArchiveClip again(clip, stopAsked_, yield_.get());
  ArchiveStore::Stored stored;
  if (!again.measure(&stored) || again.goesOn()) return true;
  const ArchiveStore::Answer answer = store_->compare(clip.object, settings_.trustSize, &stored);
  if (answer == ArchiveStore::Answer::kFailed) return fail(store_->error());
  if (answer == ArchiveStore::Answer::kDiffers) return true;
  ArchiveLine line = again.line();
  line.bytes = stored.bytes;
  line.hashes = stored.hashes;
  *adopted = true;
  ++report_.present;
  noteMissing(line);
  if (!sendSidecar(line)) return false;
  return indexes_->add(line) || fail(indexes_->error());
}

// The first part's sidecar comes last: with it the clip counts as archived. Where a clip that lacks
// pictures is replaced, or one of its parts has gone, all of them are sent.
bool CardArchiver::Impl::send(const ArchiveLine& clip) {
  ArchiveClip maker(clip, stopAsked_, yield_.get());
  ArchiveLine first;
  uint32_t parts = 0;
  do {
    ArchiveLine line;
    bool made = false;
    const std::string object = ++parts == 1 ? clip.object : partName(clip.object, parts);
    if (!sendPart(&maker, object, &line, &made)) return false;
    if (!made) return true;
    if (parts == 1) {
      first = line;
    } else if (!noteSent(line)) {
      return false;
    }
  } while (maker.goesOn());
  if (parts > 1) first.parts = parts;
  ++sentClips_;
  return noteSent(first);
}

bool CardArchiver::Impl::archive(const ArchiveLine& clip) {
  bool there = false;
  if (!isThere(clip, &there)) return false;
  if (there) {
    ++report_.present;
    return true;
  }
  bool adopted = false;
  if (!settings_.dryRun && !adopt(clip, &adopted)) return false;
  if (!settings_.dryRun) return adopted || send(clip);
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

// What is not known to be in the archive counts as not in it.
void CardArchiver::Impl::noteEndangered(const ArchivePlan& plan) {
  std::set<std::string> archived;
  for (const ArchiveLine& clip : plan.clips()) {
    if (held_.count(sidecarOf(clip.object)) != 0) archived.insert(clip.object);
  }
  for (const ArchiveLine* line : plan.endangered(archived))
    report_.endangered.push_back(line->object);
  if (report_.endangered.empty()) return;
  syslog(LOG_WARNING, kMsgArchiveEndangered, report_.endangered.size(),
         listed_ ? "archived" : "known to be archived", report_.endangered.front().c_str());
}

void CardArchiver::Impl::tellStatus(bool good) const {
  ArchiveStatus status;
  status.read();
  status.endedMs = int64_t{time(nullptr)} * 1000;
  if (good) status.goodMs = status.endedMs;
  status.missing = clips_ - std::min<size_t>(clips_, report_.present + sentClips_);
  status.endangered = report_.endangered.size();
  status.known = listed_;
  status.write();
}

bool CardArchiver::Impl::archiveAll(ArchivePlan* plan) {
  if (!lookAround(*plan) || !archiveClips(plan->clips())) return false;
  if (settings_.dryRun) return true;
  // Looking through recordings reads them once more.
  const StopAsked asked = [this] {
    if (yield_ != nullptr) yield_->rest();
    return stopAsked_ && stopAsked_();
  };
  const bool written = settings_.onlyEvents ? indexes_->write() : indexes_->update(plan, asked);
  report_.indexes = indexes_->written();
  return written || fail(indexes_->error());
}

bool CardArchiver::Impl::run(const StopAsked& stopAsked, const Progress& progress) {
  stopAsked_ = stopAsked;
  progress_ = progress;
  if (!nameRecorder()) return false;
  if (settings_.seal && !key_.load(*settings_.seal)) return fail(key_.error());
  ArchivePlan plan(report_.recorder);
  if (!plan.read(stopAsked_)) return fail(plan.error());
  if (settings_.whileRecording)
    yield_ = std::make_unique<ReadYield>(ReadYield::statisticsOf(deviceName(kRecorderPartition)),
                                         settings_.onlyEvents.has_value());
  clips_ = plan.clips().size();
  report_.waiting = plan.waiting();
  report_.waitingEvents.assign(plan.waitingEvents().begin(), plan.waitingEvents().end());
  const bool done = archiveAll(&plan);
  const bool good = done && report_.failures.empty() && report_.incomplete.empty();
  if (settings_.dryRun || settings_.onlyEvents) return good;
  noteEndangered(plan);
  // A part of the card says nothing of all of it.
  if (!settings_.since) tellStatus(good);
  return good;
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
