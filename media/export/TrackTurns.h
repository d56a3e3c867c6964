#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "media/export/ChannelExport.h"

namespace tarn {

// Pictures of several channels in the order in which they are decoded, as a file of several tracks
// wants them. Used by one thread.
class TrackTurns {
 public:
  // Each channel's first picture is at hand; the channels outlive this.
  explicit TrackTurns(const std::vector<ChannelExport*>& channels);

  // Whether there is a picture: of track(), counted as the channels were given.
  bool hasNext() const { return track_ < channels_.size(); }
  size_t track() const { return track_; }
  const OutputPicture& picture() const { return channels_[track_]->picture(); }
  // To the picture behind it. False with error() set when the channel cannot be read.
  bool advance();
  const std::string& error() const { return error_; }

 private:
  void chooseTrack();

  std::vector<ChannelExport*> channels_;
  std::vector<bool> more_;  // of each channel: its picture is still to be written
  size_t track_ = 0;
  std::string error_;
};

}  // namespace tarn
