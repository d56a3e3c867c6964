#include "media/evidence/EvidenceExporter.h"

#include <sys/utsname.h>
#include <time.h>

#include <algorithm>
#include <ctime>
#include <map>

#include "api/Version.h"
#include "db/DbRecordFormat.h"
#include "fat/ChunkFiles.h"
#include "media/RunError.h"
#include "media/evidence/EvidenceFolder.h"
#include "media/evidence/EvidenceReadme.h"
#include "media/evidence/FinishedParts.h"
#include "media/evidence/FolderSeal.h"
#include "media/evidence/JournalExtract.h"
#include "media/evidence/LogExtract.h"
#include "media/evidence/Manifest.h"
#include "media/evidence/RecordingsExtract.h"
#include "media/evidence/Report.h"
#include "media/export/ExportSelection.h"
#include "media/export/MediaExporter.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

constexpr char kErrStopped[] = "stopped before its end";

int64_t nowUs() {
  timespec now = {};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

bool needsMov(const DB_STREAM& row) {
  const SoundCodec codec = isSound(row) ? soundCodecOf(row) : SoundCodec::kUnknown;
  return codec == SoundCodec::kAlaw || codec == SoundCodec::kMulaw;
}

// The paths of a file and of those that go on behind it, with another beginning.
void movePaths(const std::string& from, const std::string& to, ExportedChannel* exported) {
  const auto move = [&](std::string* path) {
    if (!path->empty() && path->compare(0, from.size(), from) == 0)
      *path = to + path->substr(from.size());
  };
  move(&exported->path);
  for (FormatChange& change : exported->totals.changes) move(&change.next);
  for (SoundChange& change : exported->sound.changes) move(&change.next);
}

}  // namespace

class EvidenceExporter::Impl : public RunError {
 public:
  explicit Impl(const EvidenceRequest& request)
      : request_(request), folder_(request.folder), parts_(folder_.part()) {}
  bool run(const StopAsked& stopAsked);
  const std::vector<ExportedChannel>& channels() const { return exported_; }
  const std::vector<std::string>& missing() const { return missing_; }
  bool beganAnew() const { return folder_.foundLeft() && kept_ == 0; }
  size_t keptChannels() const { return kept_; }
  bool leavesParts() const { return left_; }

 private:
  bool prepare();
  bool make(const ExportSelection& selection);
  void choosePeriod(const ExportSelection& selection);
  bool takeOut(const ExportSelection& selection);
  bool exportVideo(const ExportSelection& selection);
  bool takeVideo(ExportedChannel exported);
  bool takeFinished(int channel);
  bool finishChannel(int channel, const std::vector<ExportedChannel>& files);
  std::string sumOfSource(const std::vector<DB_STREAM>& rows, size_t channels, bool mov) const;
  EvidenceChannel* storyOf(int channel);
  bool verify();
  bool writeReport();
  bool writeManifest();
  void noteMissing();

  const EvidenceRequest request_;
  EvidenceFolder folder_;
  FinishedParts parts_;
  std::map<int, std::string> sources_;  // of each channel: the sum of what its video is made of
  size_t kept_ = 0;                     // channels of a run before
  bool spoiled_ = false;                // what is finished is no good
  bool left_ = false;                   // what is finished is for another run
  FolderSeal seal_;
  StopAsked stopAsked_;
  CardInfo card_;
  EvidenceMaking making_;
  EvidenceStory story_;
  std::vector<ReportedProof> proofs_;
  std::vector<ExportedChannel> exported_;
  std::vector<std::string> missing_;
};

// What does not do is told before anything is made.
bool EvidenceExporter::Impl::prepare() {
  if (request_.seal && !seal_.load(*request_.seal)) return fail(seal_.error());
  if (card_.read(deviceName(kRecorderPartition), &error_) != 0) return false;
  making_.madeUs = nowUs();
  making_.tool = std::string("tarn ") + tarn_version();
  utsname machine{};
  if (uname(&machine) == 0) making_.unit = machine.nodename;
  making_.card = request_.card;
  making_.sealed = request_.seal.has_value();
  if (making_.sealed) {
    making_.operatorName = request_.seal->operatorName;
    making_.note = request_.seal->note;
  }
  return true;
}

// A period without a begin or an end has those of what was recorded.
void EvidenceExporter::Impl::choosePeriod(const ExportSelection& selection) {
  int64_t first = INT64_MAX, last = 0;
  for (const auto& channel : selection.rowsOfChannels()) {
    for (const DB_STREAM& row : channel.second) {
      const int64_t end = PictureTime{row.endDate, row.endMSec * 1000u + 999u}.totalMicros();
      first = std::min(first, PictureTime{row.startDate, row.startMSec * 1000u}.totalMicros());
      last = std::max(last, row.endDate != 0 ? end : making_.madeUs);
    }
  }
  const bool begins = selection.from().totalMicros() != 0;
  const bool ends = selection.to().seconds != UINT32_MAX;
  story_.fromUs = begins ? selection.from().totalMicros() : first;
  // What has not come yet is no gap.
  const int64_t latest = std::max(last, making_.madeUs);
  story_.toUs = ends ? std::min(selection.to().totalMicros(), latest) : last;
  story_.toUs = std::max(story_.toUs, story_.fromUs);
  const auto seconds = static_cast<time_t>(story_.fromUs / 1000000);
  struct tm local = {};
  if (localtime_r(&seconds, &local) != nullptr && local.tm_zone != nullptr)
    making_.zone = local.tm_zone;
}

bool EvidenceExporter::Impl::takeOut(const ExportSelection& selection) {
  if (!JournalExtract(story_.fromUs, story_.toUs, &story_.journal).write(&folder_))
    return fail(folder_.error());
  RecordingsExtract recordings(&folder_, &story_, stopAsked_);
  if (!recordings.write(selection)) return fail(recordings.error());
  return LogExtract(&story_).write(&folder_) || fail(folder_.error());
}

EvidenceChannel* EvidenceExporter::Impl::storyOf(int channel) {
  const auto found =
      std::find_if(story_.channels.begin(), story_.channels.end(),
                   [&](const EvidenceChannel& one) { return one.channel == channel; });
  if (found != story_.channels.end()) return &*found;
  story_.channels.emplace_back();
  story_.channels.back().channel = channel;
  return &story_.channels.back();
}

// Nothing that could be written, or a recording that nobody can open: told, and no reason to go
// without everything else. Anything else that went wrong may go wrong with the next file, too.
bool EvidenceExporter::Impl::takeVideo(ExportedChannel exported) {
  EvidenceChannel* channel = storyOf(exported.channel);
  const bool nothing = exported.totals.written == 0 && exported.sound.frames == 0;
  if (!exported.error.empty() && !nothing && !channel->hasUnreadable()) return fail(exported.error);
  channel->videos.push_back(exported);
  movePaths("", request_.folder + "/", &exported);
  exported_.push_back(exported);
  return true;
}

// Of all that the video of a channel depends on; "" where it goes on while it is exported.
std::string EvidenceExporter::Impl::sumOfSource(const std::vector<DB_STREAM>& rows, size_t channels,
                                                bool mov) const {
  const ExportRequest& what = request_.what;
  std::string text = making_.tool + "\n" + std::to_string(card_.volumeId()) +
                     (mov ? " mov " : " ") + std::to_string(channels) +
                     (what.sound ? " sound" : "");
  const auto add = [&text](const auto& value) {
    text += value ? " " + std::to_string(*value) : " -";
  };
  add(what.streamID);
  add(what.eventID);
  for (const auto& time : {what.from, what.to})
    text += time ? " " + std::to_string(time->totalMicros()) : " -";
  if (request_.seal)
    text += "\n" + seal_.certificate() + request_.seal->operatorName + "\n" + request_.seal->note;
  for (const DB_STREAM& row : rows) {
    if (row.endDate == 0) return "";
    char record[kStreamRecordSize];
    encodeStreamRecord(row, record);
    text.append(record, sizeof record);
  }
  return sumOf(text);
}

bool EvidenceExporter::Impl::takeFinished(int channel) {
  const std::vector<ExportedChannel>* files = parts_.find(channel, sources_[channel]);
  if (files == nullptr) return false;
  ++kept_;
  return std::all_of(files->begin(), files->end(),
                     [this](const ExportedChannel& one) { return takeVideo(one); });
}

// What lacks something is not kept for another run: a card that refused it may give it then.
bool EvidenceExporter::Impl::finishChannel(int channel, const std::vector<ExportedChannel>& files) {
  std::vector<ExportedChannel> finished = files;
  bool whole = !sources_[channel].empty();
  for (ExportedChannel& file : finished) {
    movePaths(folder_.part() + "/", "", &file);
    whole = whole && file.error.empty() && file.totals.lost == 0 && file.sound.lost == 0;
  }
  if (whole && !parts_.add(channel, sources_[channel], finished)) return fail(parts_.error());
  return std::all_of(finished.begin(), finished.end(),
                     [this](const ExportedChannel& one) { return takeVideo(one); });
}

bool EvidenceExporter::Impl::exportVideo(const ExportSelection& selection) {
  bool mov = false;
  for (const auto& channel : selection.rowsOfChannels())
    mov = mov || (request_.what.sound &&
                  std::any_of(channel.second.begin(), channel.second.end(), needsMov));
  ExportRequest what = request_.what;
  what.output = folder_.pathOf(mov ? "video/video.mov" : "video/video.mp4");
  what.tracks = what.overwrite = false;
  for (const auto& [channel, rows] : selection.rowsOfChannels())
    sources_[channel] = sumOfSource(rows, selection.rowsOfChannels().size(), mov);
  MediaExporter exporter(what);
  if (request_.seal) exporter.seal(*request_.seal);
  exporter.channelByChannel([this](int channel) { return !takeFinished(channel); },
                            [this](int channel, const std::vector<ExportedChannel>& files) {
                              return finishChannel(channel, files);
                            });
  exporter.run(stopAsked_);
  if (!error_.empty()) return false;
  if (*exporter.error() != '\0') return fail(exporter.error());
  return !stopAsked_ || !stopAsked_() || fail(kErrStopped);
}

// A seal that does not hold right now never will.
bool EvidenceExporter::Impl::verify() {
  if (!making_.sealed) return true;
  const FileVerifier verifier;
  for (const EvidenceChannel& channel : story_.channels) {
    for (const ExportedChannel& video : channel.videos) {
      if (!video.error.empty()) continue;
      proofs_.push_back({video.path, verifier.verify(folder_.pathOf(video.path))});
      spoiled_ = !proofs_.back().proof.proven();
      if (spoiled_)
        return fail(folder_.pathOf(video.path) + " was sealed, and its seal does not hold");
    }
  }
  return true;
}

void EvidenceExporter::Impl::noteMissing() {
  const auto note = [this](const std::string& text) { missing_.push_back(text); };
  for (const EvidenceChannel& channel : story_.channels) {
    const std::string name = channelText(channel.channel) + ": ";
    for (const ExportedChannel& video : channel.videos) {
      if (!video.error.empty()) note(name + "no file: " + video.error);
      if (video.totals.lost > 0)
        note(name + std::to_string(video.totals.lost) + " pictures could not be read");
      if (video.sound.lost > 0)
        note(name + std::to_string(video.sound.lost) + " blocks of sound could not be read");
    }
    for (const EvidenceRecording& one : channel.recordings) {
      const std::string recording = name + "recording " + std::to_string(one.row.streamID);
      if (!one.readable) note(recording + " cannot be read");
      if (one.entriesMissing > 0)
        note(recording + ": " + std::to_string(one.entriesMissing) +
             " bytes of its entries were not given by the card");
    }
  }
  if (!story_.journal.error.empty()) note(story_.journal.error);
  if (story_.journal.unreadable > 0)
    note(std::to_string(story_.journal.unreadable) +
         " records of the journal were not given by the card");
  if (!story_.logError.empty()) note(story_.logError);
}

bool EvidenceExporter::Impl::writeReport() {
  noteMissing();
  Report report(making_, card_, story_, proofs_, missing_);
  return report.write(folder_.pathOf("report.html"), stopAsked_) || fail(report.error());
}

bool EvidenceExporter::Impl::writeManifest() {
  if (!folder_.write("README.txt", kEvidenceReadme) ||
      (making_.sealed && !folder_.write("certificate.pem", seal_.certificate())))
    return fail(folder_.error());
  std::vector<FileSum> sums;
  if (!sumFolder(folder_.part(), stopAsked_, &sums, &error_)) return false;
  if (!folder_.write("manifest.json", Manifest(making_, card_, story_, missing_).text(sums)))
    return fail(folder_.error());
  FileSum own;
  if (!sumFile(folder_.part(), "manifest.json", stopAsked_, &own, &error_)) return false;
  sums.push_back(own);
  std::string list;
  for (const FileSum& sum : sums) list += sum.sha256 + "  " + sum.name + "\n";
  if (!folder_.write("SHA256SUMS", list)) return fail(folder_.error());
  if (!making_.sealed) return true;
  std::string signature;
  if (!seal_.sign(list, &signature)) return fail(seal_.error());
  return folder_.write("SHA256SUMS.sig", signature) || fail(folder_.error());
}

bool EvidenceExporter::Impl::make(const ExportSelection& selection) {
  if (!folder_.begin(request_.overwrite)) return fail(folder_.error());
  if (!parts_.open(stopAsked_)) return fail(parts_.error());
  if (!takeOut(selection) || !exportVideo(selection) || !verify() || !writeReport() ||
      !writeManifest())
    return false;
  return folder_.finish() || fail(folder_.error());
}

bool EvidenceExporter::Impl::run(const StopAsked& stopAsked) {
  stopAsked_ = stopAsked;
  if (lacksMemory() || !prepare()) return false;
  ExportSelection selection(request_.what);
  if (!selection.choose(stopAsked_)) return fail(selection.error());
  choosePeriod(selection);
  const bool made = make(selection);
  left_ = !made && parts_.count() > 0 && !spoiled_;
  left_ ? folder_.leave() : folder_.abandon();  // or what it replaces
  return made && missing_.empty();
}

EvidenceExporter::EvidenceExporter(const EvidenceRequest& request) noexcept {
  impl_ = orNoMemory(
      "EvidenceExporter", [&] { return std::make_unique<Impl>(request); },
      [] { return std::unique_ptr<Impl>(); });
}

EvidenceExporter::~EvidenceExporter() = default;

bool EvidenceExporter::run(const StopAsked& stopAsked) noexcept {
  if (!impl_) return false;
  return orNoMemory(
      "EvidenceExporter::run", [&] { return impl_->run(stopAsked); },
      [this] { return impl_->failForMemory(); });
}

const char* EvidenceExporter::error() const noexcept {
  return impl_ ? impl_->error() : kErrNoMemory;
}

const std::vector<ExportedChannel>& EvidenceExporter::channels() const noexcept {
  static const std::vector<ExportedChannel> none;
  return impl_ ? impl_->channels() : none;
}

const std::vector<std::string>& EvidenceExporter::missing() const noexcept {
  static const std::vector<std::string> none;
  return impl_ ? impl_->missing() : none;
}

bool EvidenceExporter::beganAnew() const noexcept { return impl_ && impl_->beganAnew(); }

size_t EvidenceExporter::keptChannels() const noexcept { return impl_ ? impl_->keptChannels() : 0; }

bool EvidenceExporter::leavesParts() const noexcept { return impl_ && impl_->leavesParts(); }

}  // namespace tarn
