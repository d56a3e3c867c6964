#include "media/export/TrackTurns.h"

namespace tarn {

TrackTurns::TrackTurns(const std::vector<ChannelExport*>& channels)
    : channels_(channels), more_(channels.size(), true) {
  chooseTrack();
}

void TrackTurns::chooseTrack() {
  track_ = channels_.size();
  int64_t first = 0;
  for (size_t i = 0; i < channels_.size(); ++i) {
    const OutputPicture& picture = channels_[i]->picture();
    const int64_t decode = picture.presentation.totalMicros() + picture.decodeOffsetUs;
    if (!more_[i] || (hasNext() && decode >= first)) continue;
    track_ = i;
    first = decode;
  }
}

bool TrackTurns::advance() {
  const ChannelExport::Result result = channels_[track_]->next();
  if (result == ChannelExport::Result::kError) {
    error_ = channels_[track_]->error();
    return false;
  }
  more_[track_] = result == ChannelExport::Result::kPicture;
  chooseTrack();
  return true;
}

}  // namespace tarn
