#include "media/export/MediaExporter.h"

#include <list>
#include <utility>

#include "media/MediaOutput.h"
#include "media/export/ChannelExport.h"
#include "media/export/ExportSelection.h"
#include "media/export/TrackTurns.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr char kErrStopped[] = "stopped before its end";
constexpr char kErrNothingReadable[] = "no picture of that time can be read";

// Why there is not one picture.
std::string emptyText(const ExportTotals& totals) {
  if (totals.undecodable == 0) return kErrNothingReadable;
  return std::to_string(totals.undecodable) +
         " pictures need a key picture that is not among them and are left out; no other picture "
         "of "
         "that time can be read";
}

}  // namespace

class MediaExporter::Impl {
 public:
  explicit Impl(const ExportRequest& request) : request_(request) {}
  bool run(const StopAsked& stopAsked);
  bool failForMemory();
  const char* error() const { return noMemory_ ? kErrNoMemory : error_.c_str(); }
  const std::vector<ExportedChannel>& channels() const { return exported_; }

 private:
  bool fail(const std::string& text);
  bool exportFiles();
  bool exportTracks();
  bool beginTracks(std::vector<ChannelExport*>* tracks);
  bool writeTracks(const std::vector<ChannelExport*>& tracks, MediaOutput* output);
  std::string exportFile(ChannelExport* channel, const std::string& path);
  bool report(const ChannelExport& channel, const std::string& path, const std::string& error);
  std::string pathOf(int channel) const;
  bool stopped() const { return stopAsked_ && stopAsked_(); }

  const ExportRequest request_;
  StopAsked stopAsked_;
  std::list<ChannelExport> channels_;  // in the order of their numbers
  std::vector<ExportedChannel> exported_;
  std::string error_;
  bool noMemory_ = false;
};

bool MediaExporter::Impl::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool MediaExporter::Impl::failForMemory() {
  noMemory_ = true;
  return false;
}

// NAME.mp4, of several channels NAME-chN.mp4.
std::string MediaExporter::Impl::pathOf(int channel) const {
  if (channels_.size() == 1) return request_.output;
  const size_t dot = request_.output.rfind('.');
  if (dot == std::string::npos) return request_.output;
  const std::string name =
      channel == ChunkChannels::kUnknown ? "-unknown" : "-ch" + std::to_string(channel);
  return request_.output.substr(0, dot) + name + request_.output.substr(dot);
}

// False when pictures are missing.
bool MediaExporter::Impl::report(const ChannelExport& channel, const std::string& path,
                                 const std::string& error) {
  exported_.push_back({path, channel.channel(), channel.totals(), error});
  return error.empty() && channel.totals().lost == 0;
}

// Why there is no file; "" when there is one.
std::string MediaExporter::Impl::exportFile(ChannelExport* channel, const std::string& path) {
  std::string error;
  const auto output = MediaOutput::create(path, request_.overwrite, &error);
  if (output == nullptr) return error;
  ChannelExport::Result result;
  while ((result = channel->next()) == ChannelExport::Result::kPicture) {
    if (!output->write(channel->picture())) return output->error();
    if (stopped()) return kErrStopped;
  }
  if (result == ChannelExport::Result::kError) return channel->error();
  if (channel->totals().written == 0) return emptyText(channel->totals());
  return output->finish() ? "" : output->error();
}

// One channel that cannot be read is no reason to leave out the others.
bool MediaExporter::Impl::exportFiles() {
  bool good = true;
  for (ChannelExport& channel : channels_) {
    const std::string path = pathOf(channel.channel());
    good = report(channel, path, exportFile(&channel, path)) && good;
  }
  return good;
}

// Reads the first picture of each channel; those that have one become tracks. False when a channel
// has none.
bool MediaExporter::Impl::beginTracks(std::vector<ChannelExport*>* tracks) {
  bool good = true;
  for (ChannelExport& channel : channels_) {
    const ChannelExport::Result result = channel.next();
    if (result == ChannelExport::Result::kPicture) {
      tracks->push_back(&channel);
      continue;
    }
    const bool failed = result == ChannelExport::Result::kError;
    good = false;
    report(channel, request_.output, failed ? channel.error() : emptyText(channel.totals()));
  }
  return good;
}

bool MediaExporter::Impl::writeTracks(const std::vector<ChannelExport*>& tracks,
                                      MediaOutput* output) {
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (!output->describe(i, tracks[i]->picture())) return fail(output->error());
  }
  TrackTurns turns(tracks);
  while (turns.hasNext()) {
    if (!output->write(turns.picture(), turns.track())) return fail(output->error());
    if (!turns.advance()) return fail(turns.error());
    if (stopped()) return fail(kErrStopped);
  }
  return output->finish() || fail(output->error());
}

bool MediaExporter::Impl::exportTracks() {
  std::vector<ChannelExport*> tracks;
  bool good = beginTracks(&tracks);
  if (tracks.empty()) return false;
  std::string error;
  const auto output =
      MediaOutput::create(request_.output, request_.overwrite, &error, tracks.size());
  if (output == nullptr) return fail(error);
  if (!writeTracks(tracks, output.get())) return false;
  for (const ChannelExport* channel : tracks) good = report(*channel, request_.output, "") && good;
  return good;
}

bool MediaExporter::Impl::run(const StopAsked& stopAsked) {
  stopAsked_ = stopAsked;
  ExportSelection selection(request_);
  if (!selection.choose(stopAsked_)) return fail(selection.error());
  for (const auto& [channel, rows] : selection.rowsOfChannels())
    channels_.emplace_back(channel, rows, selection.from(), selection.to());
  return request_.tracks ? exportTracks() : exportFiles();
}

MediaExporter::MediaExporter(const ExportRequest& request) noexcept {
  impl_ = orNoMemory(
      "MediaExporter", [&] { return std::make_unique<Impl>(request); },
      [] { return std::unique_ptr<Impl>(); });
}

MediaExporter::~MediaExporter() = default;

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
