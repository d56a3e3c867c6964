#include "media/archive/CardRestorer.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "base/UniqueFd.h"
#include "media/RunError.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ArchivedClips.h"
#include "media/archive/ClipRecorder.h"
#include "media/archive/ContentHasher.h"
#include "media/archive/RemoteName.h"
#include "media/archive/RestoreTarget.h"
#include "media/archive/SealCheck.h"
#include "recorder/card/DeviceIo.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/KeptRow.h"

namespace tarn {
namespace {

constexpr char kErrNoChannel[] = "the archive does not say which channel it is of";
constexpr char kErrNoPart[] = "the archive does not have all of its parts";

std::string pathOf(const UniqueFd& file) { return "/proc/self/fd/" + std::to_string(file.get()); }

// All parts together.
ArchiveLine sumOf(const std::vector<ArchiveLine>& parts) {
  ArchiveLine whole = parts.front();
  for (auto part = parts.begin() + 1; part != parts.end(); ++part) {
    whole.bytes += part->bytes;
    whole.pictures += part->pictures;
    whole.soundFrames += part->soundFrames;
  }
  return whole;
}

}  // namespace

class CardRestorer::Impl : public RunError {
 public:
  explicit Impl(const Settings& settings) : settings_(settings) {}
  bool run(const StopAsked& stopAsked, const Progress& progress);
  const Report& report() const { return report_; }

 private:
  bool refuse(const ArchiveLine& line, const std::string& reason);
  bool isWanted(const ArchiveLine& line) const;
  bool restoreClips(const ArchivedClips& clips);
  bool restore(const ArchiveLine& line, const ArchivedClips& clips);
  bool copy(const ArchiveLine& part, UniqueFd* file, std::string* wrong);
  bool record(const ArchiveLine& line, const std::vector<ArchiveLine>& parts,
              const std::vector<uint32_t>& leftOver);
  bool takeBack(const ArchiveLine& line, const std::vector<uint32_t>& before);
  bool fetch(const ArchiveLine& line, int file, bool* good);
  bool restoreEvents(const std::vector<ArchiveLine>& events);

  const Settings settings_;
  StopAsked stopAsked_;
  Progress progress_;
  std::unique_ptr<ArchiveStore> store_;
  std::unique_ptr<SealCheck> seals_;
  RestoreTarget target_;
  Report report_;
};

// One clip that is not what it should be is no reason to leave out the others.
bool CardRestorer::Impl::refuse(const ArchiveLine& line, const std::string& reason) {
  report_.failures.push_back({line.object, reason});
  return true;
}

bool CardRestorer::Impl::isWanted(const ArchiveLine& line) const {
  return !settings_.since || settings_.since->totalMicros() <= line.endMs * 1000 + 999;
}

// A copy of its own, whose bytes are proven: what is looked at is what is recorded.
bool CardRestorer::Impl::fetch(const ArchiveLine& line, int file, bool* good) {
  ContentHasher hasher;
  ArchiveStore::Stored copied;
  uint64_t failed = 0;
  int reason = 0;
  bool tooLong = false;
  const bool got = store_->get(line.object, [&](const uint8_t* data, size_t size) {
    // One that has no end would fill this machine.
    tooLong = hasher.bytes() + size > line.bytes;
    if (tooLong) return false;
    if (!writeFully(file, hasher.bytes(), data, size, &failed)) reason = errno;
    hasher.add(data, size);
    return reason == 0 && !(stopAsked_ && stopAsked_());
  });
  if (reason != 0) return fail(std::string("cannot keep a copy of a clip: ") + strerror(reason));
  if (stopAsked_ && stopAsked_()) return fail(kErrRestoreStopped);
  if (!got && !tooLong) return fail(store_->error());
  if (!hasher.finish(&copied.hashes)) return fail("SHA-256 of " + line.object + " cannot be made");
  copied.bytes = hasher.bytes();
  *good = !tooLong && copied.bytes == line.bytes && copied.hashes.sha256 == line.hashes.sha256;
  if (*good || tooLong) return true;
  // Before it is called another one: the way here may have made it so.
  return store_->confirm(line.object, copied) != ArchiveStore::Answer::kFailed ||
         fail(store_->error());
}

// *wrong: why it is not to be recorded.
bool CardRestorer::Impl::copy(const ArchiveLine& part, UniqueFd* file, std::string* wrong) {
  std::error_code none;
  const std::string folder = std::filesystem::temp_directory_path(none).string();
  file->reset(::open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  if (!file->valid()) return fail("cannot keep a clip in " + folder + ": " + strerror(errno));
  bool good = false;
  if (!fetch(part, file->get(), &good)) return false;
  *wrong = kErrOtherClip;
  if (!good) return true;
  wrong->clear();
  if (seals_->isAsked(part)) *wrong = seals_->whyNot(pathOf(*file), part);
  return true;
}

// What a run that was interrupted has left of it goes once the whole is there: at no moment less of
// it is on the card.
bool CardRestorer::Impl::record(const ArchiveLine& line, const std::vector<ArchiveLine>& parts,
                                const std::vector<uint32_t>& leftOver) {
  std::vector<UniqueFd> copies(parts.size());
  std::vector<ClipRecorder::Part> copied;
  for (size_t i = 0; i < parts.size(); ++i) {
    std::string wrong;
    if (!copy(parts[i], &copies[i], &wrong)) return false;
    if (!wrong.empty()) return refuse(parts[i], wrong);
    copied.push_back({pathOf(copies[i]), parts[i]});
  }
  ClipRecorder recorder(std::move(copied), stopAsked_);
  if (!recorder.run() && !recorder.isOfClip()) return fail(recorder.error());
  if (!recorder.error().empty()) return takeBack(line, leftOver) && refuse(line, recorder.error());
  for (const uint32_t key : leftOver) {
    if (!target_.remove(key)) return fail(target_.error());
  }
  report_.restored.push_back(line.object);
  return true;
}

// What was recorded of a clip that then proved to be none.
bool CardRestorer::Impl::takeBack(const ArchiveLine& line, const std::vector<uint32_t>& before) {
  if (!target_.read()) return fail(target_.error());
  for (const uint32_t key : target_.keysOf(line)) {
    const bool isNew = std::find(before.begin(), before.end(), key) == before.end();
    if (isNew && !target_.remove(key)) return fail(target_.error());
  }
  return true;
}

bool CardRestorer::Impl::restore(const ArchiveLine& line, const ArchivedClips& clips) {
  std::vector<uint32_t> leftOver;
  const std::vector<ArchiveLine> parts = clips.partsOf(line);
  if (parts.empty()) return refuse(line, kErrNoPart);
  if (line.channel < 0 || line.channel == kKeptChannel) return refuse(line, kErrNoChannel);
  const ArchiveLine whole = sumOf(parts);
  if (!target_.read()) return fail(target_.error());
  if (target_.has(whole, &leftOver)) {
    ++report_.present;
    return true;
  }
  if (!target_.hasRoomFor(whole)) return fail(target_.error());
  return record(whole, parts, leftOver);
}

bool CardRestorer::Impl::restoreClips(const ArchivedClips& clips) {
  size_t done = 0;
  const std::vector<ArchiveLine>& lines = clips.recordings();
  for (const ArchiveLine& line : lines) {
    if (stopAsked_ && stopAsked_()) return fail(kErrRestoreStopped);
    if (progress_) progress_(line.object, done++, lines.size());
    if (isWanted(line) && !restore(line, clips)) return false;
  }
  return true;
}

bool CardRestorer::Impl::restoreEvents(const std::vector<ArchiveLine>& events) {
  if (!target_.read()) return fail(target_.error());
  for (const ArchiveLine& event : events) {
    if (!isWanted(event) || target_.hasEvent(event)) continue;
    if (!target_.addEvent(event)) return fail(target_.error());
    ++report_.events;
  }
  return true;
}

bool CardRestorer::Impl::run(const StopAsked& stopAsked, const Progress& progress) {
  stopAsked_ = stopAsked;
  progress_ = progress;
  if (!settings_.recorder.empty() && !isRecorderName(settings_.recorder))
    return fail(kErrRecorderName);
  store_ = ArchiveStore::open(settings_.place, &error_);
  if (store_ == nullptr) return false;
  store_->waitAtMost(settings_.patienceSeconds);
  seals_ = std::make_unique<SealCheck>(store_.get());
  if (!seals_->trust(settings_.authorities)) return fail(seals_->error());
  ArchivedClips clips(store_.get());
  if (!clips.read(settings_.recorder, stopAsked_))
    return fail(RemoteName(settings_.place).shown() + ": " + clips.error());
  for (const auto& [name, reason] : clips.damaged()) report_.failures.push_back({name, reason});
  return restoreClips(clips) && restoreEvents(clips.events()) && report_.failures.empty();
}

CardRestorer::CardRestorer(const Settings& settings) noexcept {
  impl_ = orNoMemory(
      "CardRestorer", [&] { return std::make_unique<Impl>(settings); },
      [] { return std::unique_ptr<Impl>(); });
}

CardRestorer::~CardRestorer() = default;

bool CardRestorer::run(const StopAsked& stopAsked, const Progress& progress) noexcept {
  if (!impl_) return false;
  return orNoMemory(
      "CardRestorer::run", [&] { return impl_->run(stopAsked, progress); },
      [this] { return impl_->failForMemory(); });
}

const CardRestorer::Report& CardRestorer::report() const noexcept {
  static const Report none;
  return impl_ ? impl_->report() : none;
}

const char* CardRestorer::error() const noexcept { return impl_ ? impl_->error() : kErrNoMemory; }

}  // namespace tarn
