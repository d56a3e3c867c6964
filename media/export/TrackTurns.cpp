#include "media/export/TrackTurns.h"

namespace tarn {

TrackTurns::TrackTurns(const std::vector<ExportTrack*>& tracks)
    : tracks_(tracks), more_(tracks.size(), true) {
  chooseTrack();
}

void TrackTurns::chooseTrack() {
  track_ = tracks_.size();
  int64_t first = 0;
  for (size_t i = 0; i < tracks_.size(); ++i) {
    const int64_t decode = tracks_[i]->decodeUs();
    if (!more_[i] || (hasNext() && decode >= first)) continue;
    track_ = i;
    first = decode;
  }
}

void TrackTurns::drop(size_t track) {
  more_[track] = false;
  chooseTrack();
}

bool TrackTurns::advance() {
  const ExportTrack::Result result = tracks_[track_]->next();
  if (result == ExportTrack::Result::kError) {
    error_ = tracks_[track_]->error();
    return false;
  }
  more_[track_] = result == ExportTrack::Result::kPiece;
  chooseTrack();
  return true;
}

}  // namespace tarn
