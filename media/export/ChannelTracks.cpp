#include "media/export/ChannelTracks.h"

#include <algorithm>

#include "media/OutputFormat.h"
#include "recorder/card/ChunkChannels.h"

namespace tarn {
namespace {

constexpr char kErrNothingReadable[] = "no picture of that time can be read";
constexpr char kErrNoSoundReadable[] = "no sound of that time can be read";
constexpr char kErrOnlySound[] =
    "only sound was recorded in that time, which a .h264 does not hold: name the file .mp4";
constexpr char kErrSoundNotWanted[] = "only sound was recorded in that time";

// Why there is not one picture.
std::string emptyText(const ExportTotals& totals) {
  if (totals.undecodable == 0) return kErrNothingReadable;
  return std::to_string(totals.undecodable) +
         " pictures need a key picture that is not among them and are left out; no other picture "
         "of that time can be read";
}

std::vector<DB_STREAM> only(bool sound, const std::vector<DB_STREAM>& rows) {
  std::vector<DB_STREAM> chosen;
  std::copy_if(rows.begin(), rows.end(), std::back_inserter(chosen),
               [sound](const DB_STREAM& row) { return isSound(row) == sound; });
  return chosen;
}

}  // namespace

ChannelTracks::ChannelTracks(int channel, const ExportSelection& selection,
                             const ExportRequest& request, const std::vector<DB_STREAM>& rows)
    : pictures_(channel, only(false, rows), selection.from(), selection.to()),
      hasPictureRows_(!only(false, rows).empty()),
      sound_(request.sound ? only(true, rows) : std::vector<DB_STREAM>(), selection.from(),
             selection.soundTo()),
      hasSoundRows_(request.sound && !only(true, rows).empty()),
      bare_(outputFormat(request.output) == OutputFormat::kBare) {}

// Pictures that cannot be read are an error, however much sound there is.
std::string ChannelTracks::begin() {
  if (hasPictureRows_) {
    const ExportTrack::Result result = pictures_.next();
    if (result == ExportTrack::Result::kError) return pictures_.error();
    if (result == ExportTrack::Result::kEnd) return emptyText(pictures_.totals());
    tracks_.push_back(&pictures_);
    sound_.beginWith(pictures_.picture().presentation);
  } else if (!hasSoundRows_ || bare_) {
    return bare_ ? kErrOnlySound : kErrSoundNotWanted;
  }
  if (hasSoundRows_ && !bare_ && sound_.next() == ExportTrack::Result::kPiece)
    tracks_.push_back(&sound_);
  return tracks_.empty() ? kErrNoSoundReadable : "";
}

std::vector<ExportStatement::Source> ChannelTracks::sources() const {
  const bool known = channel() != ChunkChannels::kUnknown;
  ExportStatement::Source source;
  source.line = known ? std::to_string(channel()) : "";
  const std::string name = known ? "channel " + source.line : "unknown channel";
  std::vector<ExportStatement::Source> sources;
  for (const ExportTrack* track : tracks_) {
    source.name = name + (track == &sound_ ? ", sound" : ", pictures");
    sources.push_back(source);
  }
  return sources;
}

bool ChannelTracks::leavesBefore(const ExportTrack& piece) const {
  if (pictures_.beginsFile() && piece.decodeUs() >= pictures_.decodeUs() - SoundExport::kLeadUs)
    return true;
  if (!sound_.beginsFile()) return false;
  if (&piece == &sound_) return pictures_.atEnd();
  return pictures_.mayBeginFile() &&
         pictures_.decodeUs() >= sound_.decodeUs() - SoundExport::kLeadUs;
}

bool ChannelTracks::waitsBefore(const ExportTrack& piece) const {
  return &piece == &sound_ && sound_.beginsFile();
}

void ChannelTracks::leaveFile() {
  left_.emplace();
  left_->channel = channel();
  left_->totals = pictures_.closeFile();
  left_->sound = sound_.closeFile();
  tracks_.clear();
  if (!pictures_.atEnd()) tracks_.push_back(&pictures_);
  if (!sound_.atEnd()) tracks_.push_back(&sound_);
}

bool ChannelTracks::goesOn() {
  const bool more = left_.has_value();
  left_.reset();
  return more;
}

ExportedChannel ChannelTracks::report() const {
  if (left_) return *left_;
  ExportedChannel exported;
  exported.channel = channel();
  exported.totals = pictures_.totals();
  exported.sound = sound_.totals();
  exported.sound.leftOut = hasSoundRows_ && bare_;
  return exported;
}

}  // namespace tarn
