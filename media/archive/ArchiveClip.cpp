#include "media/archive/ArchiveClip.h"

#include <utility>

#include "media/FragmentedMovie.h"
#include "media/archive/ArchiveNames.h"
#include "media/archive/ClipSeal.h"
#include "media/archive/ContentHasher.h"
#include "media/archive/ReadYield.h"
#include "media/export/ChannelTracks.h"
#include "media/export/ExportSelection.h"
#include "media/export/TrackTurns.h"

namespace tarn {
namespace {

constexpr char kErrStoppedInside[] = "stopped before its end";

ExportRequest requestOf(const ArchiveLine& line) {
  ExportRequest request;
  (line.kind == "event" ? request.eventID : request.streamID) = line.key;
  if (line.channel >= 0) request.channel = line.channel;
  request.output = line.object;
  return request;
}

}  // namespace

// A movie that goes to a sink instead of a file, with a seal in it or without.
class ArchiveClip::Movie : public MediaOutput {
 public:
  Movie(ByteSink sink, ClipSeal* seal) : sink_(std::move(sink)), seal_(seal) {}
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

ArchiveClip::ArchiveClip(const ArchiveLine& line, StopAsked stopAsked, ReadYield* yield)
    : whole_(line), line_(line), stopAsked_(std::move(stopAsked)), yield_(yield) {}

ArchiveClip::~ArchiveClip() = default;

bool ArchiveClip::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool ArchiveClip::begin(std::unique_ptr<ChannelTracks>* place) {
  if (*place != nullptr) return true;
  const ExportRequest request = requestOf(whole_);
  ExportSelection selection(request);
  if (!selection.choose(stopAsked_)) return fail(selection.error());
  const auto found = selection.rowsOfChannels().find(whole_.channel);
  if (found == selection.rowsOfChannels().end())
    return fail("it is no longer of the channel that it was");
  *place = std::make_unique<ChannelTracks>(whole_.channel, selection, request, found->second);
  const std::string reason = (*place)->begin();
  return reason.empty() || fail(reason);
}

// To the piece behind the one at hand.
bool ArchiveClip::go(TrackTurns* turns) {
  if (!turns->advance()) return fail(turns->error());
  if (stopAsked_ && stopAsked_()) return fail(kErrStoppedInside);
  if (yield_ != nullptr) yield_->rest();
  return true;
}

bool ArchiveClip::writePieces(ChannelTracks* channel, Movie* movie) {
  for (TrackTurns turns(channel->tracks()); turns.hasNext();) {
    // A movie describes its tracks once, at its begin.
    if (channel->leavesBefore(turns.piece())) {
      channel->leaveFile();
      return true;
    }
    if (channel->waitsBefore(turns.piece())) {
      turns.drop(turns.track());
      continue;
    }
    // What the sink refuses is for the one whose sink it is to tell.
    if (!turns.piece().write(movie, turns.track())) return !refused_ && fail(movie->error());
    if (!go(&turns)) return false;
  }
  if (channel->stillWaits()) channel->leaveFile();
  return true;
}

bool ArchiveClip::writeTracks(ChannelTracks* channel, const ByteSink* sink, ClipSeal* seal) {
  refused_ = false;
  const ByteSink send = [&](const uint8_t* data, size_t size) {
    refused_ = refused_ || (sink != nullptr && !(*sink)(data, size));
    return !refused_;
  };
  if (seal != nullptr) seal->begin(sink == nullptr ? nullptr : &send, channel->sources());
  Movie movie(send, seal);
  const auto failed = [&] { return !refused_ && fail(movie.error()); };
  const std::vector<ExportTrack*> tracks = channel->tracks();
  if (!movie.open(tracks.size(), endsIn(whole_.object, ".mov"))) return failed();
  for (size_t i = 0; i < tracks.size(); ++i) {
    if (!tracks[i]->describe(&movie, i)) return failed();
  }
  line_.firstUs = movie.firstUs();
  if (!writePieces(channel, &movie)) return false;
  if (!movie.complete()) return failed();
  return seal == nullptr || seal->end() || fail(seal->error());
}

void ArchiveClip::note(const ChannelTracks& channel) {
  const ExportedChannel report = channel.report();
  line_.pictures = report.totals.written;
  line_.soundFrames = report.sound.frames;
  line_.damaged = report.totals.damaged + report.sound.damaged;
  line_.missing = report.totals.lost + report.sound.lost;
  line_.undecodable = report.totals.undecodable;
}

bool ArchiveClip::pass(std::unique_ptr<ChannelTracks>* place, const ByteSink* sink,
                       ClipSeal* seal) {
  if (!begin(place)) return false;
  const bool written = writeTracks(place->get(), sink, seal);
  note(**place);
  goesOn_ = written && (*place)->goesOn();
  return written;
}

void ArchiveClip::beginPart() {
  line_ = whole_;
  if (++part_ == 1) return;
  line_.part = part_;
  line_.object = partName(whole_.object, part_);
}

bool ArchiveClip::measure(ArchiveStore::Stored* stored) {
  ContentHasher hasher;
  const auto add = [&hasher](const uint8_t* data, size_t size) {
    hasher.add(data, size);
    return true;
  };
  if (!write(add)) return false;
  stored->bytes = hasher.bytes();
  return hasher.finish(&stored->hashes) || fail("its SHA-256 cannot be made");
}

bool ArchiveClip::countMissing(uint64_t* missing) {
  *missing = 0;
  do {
    if (!write([](const uint8_t* /*data*/, size_t /*size*/) { return true; })) return false;
    *missing += line_.missing;
  } while (goesOn_);
  return true;
}

bool ArchiveClip::write(const ByteSink& sink, ClipSeal* seal) {
  beginPart();
  if (seal == nullptr) return pass(&channel_, &sink, nullptr);
  if (!pass(&toSign_, nullptr, seal) || !pass(&channel_, &sink, seal)) return false;
  line_.sealed = true;
  line_.contentSha256 = seal->content();
  return true;
}

}  // namespace tarn
