#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "media/export/ExportTrack.h"

namespace tarn {

// Pieces of several tracks in the order in which they are decoded, as a file of several tracks
// wants them. Used by one thread.
class TrackTurns {
 public:
  // Each track's first piece is at hand; the tracks outlive this.
  explicit TrackTurns(const std::vector<ExportTrack*>& tracks);

  // Whether there is a piece: of track(), counted as the tracks were given.
  bool hasNext() const { return track_ < tracks_.size(); }
  size_t track() const { return track_; }
  const ExportTrack& piece() const { return *tracks_[track_]; }
  // Leaves out what there still is of a track.
  void drop(size_t track);
  // To the piece behind it. False with error() set when the track cannot be read.
  bool advance();
  const std::string& error() const { return error_; }

 private:
  void chooseTrack();

  std::vector<ExportTrack*> tracks_;
  std::vector<bool> more_;  // of each track: its piece is still to be written
  size_t track_ = 0;
  std::string error_;
};

}  // namespace tarn
