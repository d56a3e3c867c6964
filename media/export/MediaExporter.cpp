#include "media/export/MediaExporter.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <list>
#include <optional>
#include <utility>

#include "media/MediaOutput.h"
#include "media/OutputFormat.h"
#include "media/RunError.h"
#include "media/export/ChannelTracks.h"
#include "media/export/ExportSelection.h"
#include "media/export/TrackTurns.h"
#include "media/seal/SealedOutput.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

constexpr char kErrStopped[] = "stopped before its end";
constexpr char kErrOnePipe[] =
    "several channels were recorded then, and standard output takes one: choose it with --channel";

// Between one recording of video, or of sound, and the next, in microseconds.
int64_t longestGap(const std::vector<DB_STREAM>& rows, bool sound) {
  int64_t longest = 0;
  int64_t end = INT64_MAX;
  for (const DB_STREAM& row : rows) {
    if (isSound(row) != sound) continue;
    const PictureTime start = {row.startDate, row.startMSec * 1000u};
    if (end != INT64_MAX) longest = std::max(longest, start.totalMicros() - end);
    end = PictureTime{row.endDate, row.endMSec * 1000u}.totalMicros();
  }
  return longest;
}

}  // namespace

class MediaExporter::Impl : public RunError {
 public:
  explicit Impl(const ExportRequest& request) : request_(request) {}
  void seal(const SealRequest& seal) { seal_ = seal; }
  using Wanted = std::function<bool(int)>;
  using Finished = std::function<bool(int, const std::vector<ExportedChannel>&)>;
  void channelByChannel(Wanted wanted, Finished finished) {
    wanted_ = std::move(wanted);
    finished_ = std::move(finished);
  }
  bool run(const StopAsked& stopAsked);
  const std::vector<ExportedChannel>& channels() const { return exported_; }

 private:
  using Sources = std::vector<ExportStatement::Source>;
  using Channels = std::vector<ChannelTracks*>;

  bool exportFiles();
  bool exportTracks();
  bool loadKey();
  std::unique_ptr<MediaOutput> create(const std::string& path, const Sources& sources,
                                      std::string* error);
  std::string writePieces(const Channels& channels, MediaOutput* output);
  std::string writeFile(const Channels& channels, const std::string& path);
  bool writeFiles(ChannelTracks* channel, int number);
  bool report(const ChannelTracks& channel, const std::string& path, const std::string& error,
              int next);
  std::string pathOf(int channel, int number) const;
  bool stopped() const { return stopAsked_ && stopAsked_(); }

  const ExportRequest request_;
  std::optional<SealRequest> seal_;
  SealingKey key_;
  int64_t began_ = 0;  // seconds since 1970
  StopAsked stopAsked_;
  Wanted wanted_;
  Finished finished_;
  std::list<ChannelTracks> channels_;  // in the order of their numbers
  int64_t longestGapUs_ = 0;           // between two recordings of one of them
  std::vector<ExportedChannel> exported_;
};

// NAME.mp4, of several channels NAME-chN.mp4; where the format changes NAME-2.mp4, NAME-chN-2.mp4.
std::string MediaExporter::Impl::pathOf(int channel, int number) const {
  const size_t dot = request_.output.rfind('.');
  if (dot == std::string::npos) return request_.output;
  std::string name;
  if (channels_.size() > 1)
    name = channel == ChunkChannels::kUnknown ? "-unknown" : "-ch" + std::to_string(channel);
  if (number > 1) name += "-" + std::to_string(number);
  return request_.output.substr(0, dot) + name + request_.output.substr(dot);
}

// False when something is missing. `next`: the number of its file behind this one.
bool MediaExporter::Impl::report(const ChannelTracks& channel, const std::string& path,
                                 const std::string& error, int next) {
  ExportedChannel exported = channel.report();
  exported.path = path;
  exported.error = error;
  if (outputFormat(path) != OutputFormat::kBare) {
    for (FormatChange& change : exported.totals.changes)
      change.next = pathOf(channel.channel(), next);
    for (SoundChange& change : exported.sound.changes)
      change.next = pathOf(channel.channel(), next);
  }
  exported_.push_back(exported);
  return error.empty() && exported.totals.lost == 0 && exported.sound.lost == 0;
}

// A key that does not do is told before anything is read.
bool MediaExporter::Impl::loadKey() {
  began_ = time(nullptr);
  return !seal_ || key_.load(*seal_) || fail(key_.error());
}

std::unique_ptr<MediaOutput> MediaExporter::Impl::create(const std::string& path,
                                                         const Sources& sources,
                                                         std::string* error) {
  if (!seal_)
    return MediaOutput::create(path, request_.overwrite, error, sources.size(), longestGapUs_);
  ExportStatement statement;
  utsname machine{};
  if (uname(&machine) == 0) statement.unitName = machine.nodename;
  statement.time = static_cast<uint64_t>(began_ + kSecondsFrom1904);
  statement.operatorName = seal_->operatorName;
  statement.sources = sources;
  return SealedOutput::create(path, request_.overwrite, &key_, statement, sealWords(*seal_, began_),
                              error);
}

// Where a piece begins another file, its channel leaves this one.
std::string MediaExporter::Impl::writePieces(const Channels& channels, MediaOutput* output) {
  std::vector<ExportTrack*> tracks;
  std::vector<ChannelTracks*> owners;
  for (ChannelTracks* channel : channels) {
    tracks.insert(tracks.end(), channel->tracks().begin(), channel->tracks().end());
    owners.resize(tracks.size(), channel);
  }
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (!tracks[i]->describe(output, i)) return output->error();
  }
  const bool splits = outputFormat(request_.output) != OutputFormat::kBare;
  TrackTurns turns(tracks);
  while (turns.hasNext()) {
    ChannelTracks* const channel = owners[turns.track()];
    if (splits && channel->leavesBefore(turns.piece())) {
      channel->leaveFile();
      for (size_t i = 0; i < owners.size(); ++i) {
        if (owners[i] == channel) turns.drop(i);
      }
      continue;
    }
    if (channel->waitsBefore(turns.piece())) {
      turns.drop(turns.track());
      continue;
    }
    if (!turns.piece().write(output, turns.track())) return output->error();
    if (!turns.advance()) return turns.error();
    if (stopped()) return kErrStopped;
  }
  for (ChannelTracks* channel : channels) {
    if (channel->stillWaits()) channel->leaveFile();
  }
  return "";
}

// Why there is no file; "" when there is one.
std::string MediaExporter::Impl::writeFile(const Channels& channels, const std::string& path) {
  Sources sources;
  for (const ChannelTracks* channel : channels) {
    const Sources own = channel->sources();
    sources.insert(sources.end(), own.begin(), own.end());
  }
  std::string error;
  const auto output = create(path, sources, &error);
  if (output == nullptr) return error;
  error = writePieces(channels, output.get());
  if (!error.empty()) return error;
  return output->finish() ? "" : output->error();
}

// What a channel has from its file of that number on.
bool MediaExporter::Impl::writeFiles(ChannelTracks* channel, int number) {
  bool good = true;
  bool more = true;
  for (; more; ++number) {
    const std::string path = pathOf(channel->channel(), number);
    const std::string error = writeFile({channel}, path);
    good = report(*channel, path, error, number + 1) && good;
    more = error.empty() && channel->goesOn();
  }
  return good;
}

// One channel that cannot be read is no reason to leave out the others.
bool MediaExporter::Impl::exportFiles() {
  bool good = true;
  for (ChannelTracks& channel : channels_) {
    if (wanted_ && !wanted_(channel.channel())) continue;
    const auto before = static_cast<std::ptrdiff_t>(exported_.size());
    const std::string error = channel.begin();
    const bool written = error.empty() ? writeFiles(&channel, 1)
                                       : report(channel, pathOf(channel.channel(), 1), error, 2);
    good = written && good;
    if (finished_ && !finished_(channel.channel(), {exported_.begin() + before, exported_.end()}))
      return false;
  }
  return good;
}

// Channels that have nothing are told, and get no track. Those whose format changes go on in files
// of their own, because all tracks of a file are described at its beginning.
bool MediaExporter::Impl::exportTracks() {
  Channels written;
  bool good = true;
  for (ChannelTracks& channel : channels_) {
    const std::string error = channel.begin();
    if (error.empty()) {
      written.push_back(&channel);
    } else {
      good = report(channel, request_.output, error, 2);
    }
  }
  if (written.empty()) return false;
  const std::string error = writeFile(written, request_.output);
  if (!error.empty()) return fail(error);
  for (ChannelTracks* channel : written) {
    good = report(*channel, request_.output, "", 2) && good;
    if (channel->goesOn()) good = writeFiles(channel, 2) && good;
  }
  return good;
}

bool MediaExporter::Impl::run(const StopAsked& stopAsked) {
  stopAsked_ = stopAsked;
  if (lacksMemory() || !loadKey()) return false;
  ExportSelection selection(request_);
  if (!selection.choose(stopAsked_)) return fail(selection.error());
  for (const auto& [channel, rows] : selection.rowsOfChannels()) {
    channels_.emplace_back(channel, selection, request_, rows);
    longestGapUs_ = std::max({longestGapUs_, longestGap(rows, false), longestGap(rows, true)});
  }
  if (request_.output == kStandardOutput && channels_.size() > 1) return fail(kErrOnePipe);
  return request_.tracks ? exportTracks() : exportFiles();
}

MediaExporter::MediaExporter(const ExportRequest& request) noexcept {
  impl_ = orNoMemory(
      "MediaExporter", [&] { return std::make_unique<Impl>(request); },
      [] { return std::unique_ptr<Impl>(); });
}

MediaExporter::~MediaExporter() = default;

void MediaExporter::seal(const SealRequest& seal) noexcept {
  if (!impl_) return;
  orNoMemory(
      "MediaExporter::seal",
      [&] {
        impl_->seal(seal);
        return true;
      },
      [this] { return impl_->failForMemory(); });
}

void MediaExporter::channelByChannel(Impl::Wanted wanted, Impl::Finished finished) noexcept {
  if (impl_) impl_->channelByChannel(std::move(wanted), std::move(finished));
}

bool MediaExporter::run(const StopAsked& stopAsked) noexcept {
  if (!impl_) return false;
  return orNoMemory(
      "MediaExporter::run", [&] { return impl_->run(stopAsked); },
      [this] { return impl_->failForMemory(); });
}

const char* MediaExporter::error() const noexcept { return impl_ ? impl_->error() : kErrNoMemory; }

const std::vector<ExportedChannel>& MediaExporter::channels() const noexcept {
  static const std::vector<ExportedChannel> none;
  return impl_ ? impl_->channels() : none;
}

}  // namespace tarn
