#include "media/archive/ArchiveVerifier.h"

#include <map>
#include <set>

#include "media/RunError.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ArchiveStore.h"
#include "media/archive/DayIndex.h"
#include "media/archive/RemoteName.h"
#include "media/archive/SealCheck.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr char kErrVerifyStopped[] = "stopped before all was compared";
constexpr char kErrNoArchive[] = "there is no archive of a recorder";

}  // namespace

class ArchiveVerifier::Impl : public RunError {
 public:
  Impl(const std::string& place, const std::string& recorder)
      : place_(place), recorder_(recorder) {}
  bool run(const StopAsked& stopAsked, const Progress& progress);
  void waitAtMost(uint32_t seconds) { patienceSeconds_ = seconds; }
  void trust(const std::vector<std::string>& authorities) { authorities_ = authorities; }
  const std::vector<Finding>& findings() const { return findings_; }
  uint64_t objects() const { return objects_; }

 private:
  bool verifyDay(const std::string& day);
  bool verifySeal(const ArchiveLine& line);
  bool verifyLine(const ArchiveLine& line);
  bool verifySidecar(const ArchiveLine& line);
  void findParts(const ArchiveLine& line, const DayIndex& index);
  void findUnlisted(const std::string& day);
  void note(const std::string& object, const std::string& text) {
    findings_.push_back({object, text});
  }

  const std::string place_;
  const std::string recorder_;
  uint32_t patienceSeconds_ = kPatienceSeconds;
  StopAsked stopAsked_;
  Progress progress_;
  std::unique_ptr<ArchiveStore> store_;
  std::unique_ptr<SealCheck> seals_;
  std::vector<std::string> authorities_;
  std::set<std::string> held_;
  std::set<std::string> listed_;  // clips and sidecars that an index names
  size_t clips_ = 0;
  uint64_t objects_ = 0;
  std::vector<Finding> findings_;
};

bool ArchiveVerifier::Impl::verifySidecar(const ArchiveLine& line) {
  const std::string name = sidecarOf(line.object);
  listed_.insert(name);
  if (held_.count(name) == 0) {
    note(name, "is missing, and the index names its clip");
    return true;
  }
  DayIndex own(store_.get(), "");
  if (!own.addSidecar(name)) return fail(store_->error());
  const ArchiveLine* said = own.find(line.object);
  if (said == nullptr) {
    note(name, "is damaged: it is no sidecar of its clip");
  } else if (said->text() != line.text()) {
    note(name, "says something else than the index");
  }
  return true;
}

bool ArchiveVerifier::Impl::verifySeal(const ArchiveLine& line) {
  std::string finding;
  if (!seals_->isAsked(line)) return true;
  if (!seals_->prove(line, &finding)) return fail(seals_->error());
  if (!finding.empty()) note(line.object, finding);
  return true;
}

bool ArchiveVerifier::Impl::verifyLine(const ArchiveLine& line) {
  if (line.object.empty()) return true;
  listed_.insert(line.object);
  if (!verifySidecar(line)) return false;
  if (held_.count(line.object) == 0) {
    note(line.object, "is missing, and the index names it");
    return true;
  }
  ArchiveStore::Stored expected;
  expected.bytes = line.bytes;
  expected.hashes = line.hashes;
  const ArchiveStore::Answer answer = store_->compare(line.object, false, &expected);
  if (answer == ArchiveStore::Answer::kFailed) return fail(store_->error());
  if (answer == ArchiveStore::Answer::kDiffers)
    note(line.object, store_->error().substr(line.object.size() + 1));
  if (answer == ArchiveStore::Answer::kSame && !verifySeal(line)) return false;
  ++objects_;
  if (progress_) progress_(objects_, clips_);
  return true;
}

// One that the index does not name would be missed by nobody.
void ArchiveVerifier::Impl::findParts(const ArchiveLine& line, const DayIndex& index) {
  for (uint32_t part = 2; part <= line.parts; ++part) {
    const std::string name = partName(line.object, part);
    if (index.find(name) != nullptr) continue;
    note(name, "is a part of its clip, and the index does not name it");
    return;
  }
}

// What a run that was interrupted has not come to is completed by the next one.
void ArchiveVerifier::Impl::findUnlisted(const std::string& day) {
  for (auto object = held_.lower_bound(day + "/"); object != held_.end(); ++object) {
    if (object->compare(0, day.size() + 1, day + "/") != 0) break;
    if (*object == day + kIndexName || *object == day + kPlainIndexName) continue;
    if (listed_.count(*object) != 0) continue;
    note(*object, endsIn(*object, kPartEnding)
                      ? "is left over from a run that was interrupted"
                      : "is not in its day's index; archive the card again, or it is not of an "
                        "archive");
  }
}

bool ArchiveVerifier::Impl::verifyDay(const std::string& day) {
  DayIndex index(store_.get(), day);
  const char* const name = held_.count(day + kIndexName) != 0 ? kIndexName : kPlainIndexName;
  if (held_.count(day + name) == 0) {
    note(day, "has no index");
  } else if (!index.read(name)) {
    return fail(store_->error());
  }
  if (index.isBroken()) note(day + name, "is damaged: it cannot be unpacked");
  if (index.brokenLines() > 0)
    note(day + name, "has " + std::to_string(index.brokenLines()) + " damaged lines");
  for (const auto& one : index.lines()) {
    if (stopAsked_ && stopAsked_()) return fail(kErrVerifyStopped);
    if (!verifyLine(one.second)) return false;
    findParts(one.second, index);
  }
  findUnlisted(day);
  return true;
}

bool ArchiveVerifier::Impl::run(const StopAsked& stopAsked, const Progress& progress) {
  stopAsked_ = stopAsked;
  progress_ = progress;
  if (!recorder_.empty() && !isRecorderName(recorder_)) return fail(kErrRecorderName);
  store_ = ArchiveStore::open(place_, &error_);
  if (store_ == nullptr) return false;
  store_->waitAtMost(patienceSeconds_);
  seals_ = std::make_unique<SealCheck>(store_.get());
  if (!seals_->trust(authorities_)) return fail(seals_->error());
  std::vector<ArchiveStore::Object> objects;
  if (!store_->list(recorder_.empty() ? "" : folderOfRecorder(recorder_), &objects))
    return fail(store_->error());
  std::set<std::string> days;
  for (const ArchiveStore::Object& object : objects) {
    const std::string day = dayOf(object.name);
    if (day.compare(0, folderOfRecorder("").size(), folderOfRecorder("")) != 0) continue;
    days.insert(day);
    held_.insert(object.name);
    if (!endsIn(object.name, kSidecarEnding)) ++clips_;
  }
  if (days.empty()) return fail(RemoteName(place_).shown() + ": " + kErrNoArchive);
  for (const std::string& day : days) {
    if (!verifyDay(day)) return false;
  }
  return true;
}

ArchiveVerifier::ArchiveVerifier(const std::string& place, const std::string& recorder) noexcept {
  impl_ = orNoMemory(
      "ArchiveVerifier", [&] { return std::make_unique<Impl>(place, recorder); },
      [] { return std::unique_ptr<Impl>(); });
}

ArchiveVerifier::~ArchiveVerifier() = default;

void ArchiveVerifier::waitAtMost(uint32_t seconds) noexcept {
  if (impl_) impl_->waitAtMost(seconds);
}

void ArchiveVerifier::trust(const std::vector<std::string>& authorities) noexcept {
  if (!impl_) return;
  orNoMemory(
      "ArchiveVerifier::trust",
      [&] {
        impl_->trust(authorities);
        return true;
      },
      [this] { return impl_->failForMemory(); });
}

bool ArchiveVerifier::run(const StopAsked& stopAsked, const Progress& progress) noexcept {
  if (!impl_) return false;
  return orNoMemory(
      "ArchiveVerifier::run", [&] { return impl_->run(stopAsked, progress); },
      [this] { return impl_->failForMemory(); });
}

const std::vector<ArchiveVerifier::Finding>& ArchiveVerifier::findings() const noexcept {
  static const std::vector<Finding> none;
  return impl_ ? impl_->findings() : none;
}

uint64_t ArchiveVerifier::objects() const noexcept { return impl_ ? impl_->objects() : 0; }

const char* ArchiveVerifier::error() const noexcept {
  return impl_ ? impl_->error() : kErrNoMemory;
}

}  // namespace tarn
