#include "media/archive/ArchiveClip.h"

#include <utility>

#include "media/FragmentedMovie.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ClipSeal.h"
#include "media/archive/ReadYield.h"
#include "media/export/ChannelTracks.h"
#include "media/export/ExportSelection.h"
#include "media/export/TrackTurns.h"

namespace tarn {
namespace {

constexpr char kErrStoppedInside[] = "stopped before its end";

// A movie that goes to a sink instead of a file, with a seal in it or without.
class SentMovie : public MediaOutput {
 public:
  SentMovie(ByteSink sink, ClipSeal* seal) : sink_(std::move(sink)), seal_(seal) {}
  bool open(size_t tracks, bool quickTime) {
    FragmentedMovie::Plan plan;
    plan.tracks = tracks;
    plan.quickTime = quickTime;
    return told(movie_.open(plan, [this](const uint8_t* data, size_t size) {
      return seal_ != nullptr ? seal_->add(data, size) : sink_(data, size);
    }));
  }
  bool describe(size_t track, const OutputPicture& first) override {
    firstUs_ = first.presentation.totalMicros();
    hasPictures_ = true;
    return told(movie_.describe(track, first));
  }
  bool write(const OutputPicture& picture, size_t track) override {
    return begin() && told(movie_.write(picture, track));
  }
  bool describe(size_t track, const OutputSound& first) override {
    if (!hasPictures_) firstUs_ = first.time.totalMicros();
    return told(movie_.describe(track, first));
  }
  bool write(const OutputSound& sound, size_t track) override {
    return begin() && told(movie_.write(sound, track));
  }
  bool complete() override { return told(movie_.finish()); }
  // Of its pictures, where it has any, else of its sound.
  int64_t firstUs() const { return firstUs_; }

 private:
  // As an export has it, the seal stands in front of the pictures.
  bool begin() {
    if (begun_ || seal_ == nullptr) return true;
    begun_ = true;
    return told(movie_.begin()) && seal_->addSeal(movie_.origin().totalMicros());
  }
  bool told(bool good) {
    if (!good) error_ = movie_.error();
    return good;
  }
  const ByteSink sink_;
  ClipSeal* const seal_;
  bool begun_ = false;
  bool hasPictures_ = false;
  int64_t firstUs_ = 0;
  FragmentedMovie movie_;
};

ExportRequest requestOf(const ArchiveLine& line) {
  ExportRequest request;
  (line.kind == "event" ? request.eventID : request.streamID) = line.key;
  if (line.channel >= 0) request.channel = line.channel;
  request.output = line.object;
  return request;
}

}  // namespace

bool ArchiveClip::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool ArchiveClip::writeTracks(ChannelTracks* channel, const ByteSink* sink) {
  bool refused = false;
  const ByteSink send = [&](const uint8_t* data, size_t size) {
    refused = refused || (sink != nullptr && !(*sink)(data, size));
    return !refused;
  };
  if (seal_ != nullptr) seal_->begin(sink == nullptr ? nullptr : &send, channel->sources());
  SentMovie movie(send, seal_);
  // What the sink refuses is for the one whose sink it is to tell.
  const auto failed = [&](const std::string& text) { return refused ? false : fail(text); };
  const std::vector<ExportTrack*>& tracks = channel->tracks();
  if (!movie.open(tracks.size(), endsIn(line_.object, ".mov"))) return failed(movie.error());
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (!tracks[i]->describe(&movie, i)) return failed(movie.error());
  }
  line_.firstUs = movie.firstUs();
  uint64_t& soundLeftOut = line_.soundLeftOut = 0;
  TrackTurns turns(tracks);
  while (turns.hasNext()) {
    // An object holds one format of sound, and says how much of another there was.
    const bool other = channel->waitsBefore(turns.piece());
    if (other) ++soundLeftOut;
    if (!other && !turns.piece().write(&movie, turns.track())) return failed(movie.error());
    if (!turns.advance()) return fail(turns.error());
    if (stopAsked_ && stopAsked_()) return fail(kErrStoppedInside);
    if (yield_ != nullptr) yield_->rest();
  }
  if (!movie.complete()) return failed(movie.error());
  return seal_ == nullptr || seal_->end() || fail(seal_->error());
}

void ArchiveClip::note(const ChannelTracks& channel) {
  const ExportedChannel report = channel.report();
  line_.pictures = report.totals.written;
  line_.soundFrames = report.sound.frames - line_.soundLeftOut;
  line_.damaged = report.totals.damaged + report.sound.damaged;
  line_.missing = report.totals.lost + report.sound.lost;
  line_.undecodable = report.totals.undecodable;
}

bool ArchiveClip::pass(const ByteSink* sink) {
  const ExportRequest request = requestOf(line_);
  ExportSelection selection(request);
  if (!selection.choose(stopAsked_)) return fail(selection.error());
  const auto found = selection.rowsOfChannels().find(line_.channel);
  if (found == selection.rowsOfChannels().end())
    return fail("it is no longer of the channel that it was");
  ChannelTracks channel(line_.channel, selection, request, found->second);
  const std::string reason = channel.begin();
  if (!reason.empty()) return fail(reason);
  const bool written = writeTracks(&channel, sink);
  note(channel);
  return written;
}

bool ArchiveClip::write(const ByteSink& sink) {
  if (seal_ == nullptr) return pass(&sink);
  if (!pass(nullptr) || !pass(&sink)) return false;
  line_.sealed = true;
  line_.contentSha256 = seal_->content();
  return true;
}

}  // namespace tarn
