#pragma once

#include <optional>
#include <string>
#include <vector>

#include "media/export/ChannelExport.h"
#include "media/export/ExportReport.h"
#include "media/export/ExportRequest.h"
#include "media/export/ExportSelection.h"
#include "media/export/SoundExport.h"
#include "media/seal/SealBoxes.h"

namespace tarn {

// What an export holds of one channel: a track of its pictures, one of its sound, or both. Used by
// one thread.
class ChannelTracks {
 public:
  ChannelTracks(int channel, const ExportSelection& selection, const ExportRequest& request,
                const std::vector<DB_STREAM>& rows);

  // Reads the first piece of each track. Empty, or why there is nothing to export.
  std::string begin();
  // Whether this piece, the next one of the channel, belongs to the file behind the one at hand:
  // its pictures at hand begin that, and it is one of them or of the sound right before them; or
  // its sound begins that, and it is the key picture that is next, or the sound when there is no
  // picture any more.
  bool leavesBefore(const ExportTrack& piece) const;
  // Whether it is sound that waits for a key picture to begin the next file with.
  bool waitsBefore(const ExportTrack& piece) const;
  // Behind the last piece of a file: whether what waited is left, and there was no key picture.
  bool stillWaits() const { return sound_.beginsFile(); }
  // Then: it has no more in the file at hand.
  void leaveFile();
  // Behind a file that it left: true when it has more, for another one. Once for each.
  bool goesOn();
  // Those that have a first piece; after begin().
  const std::vector<ExportTrack*>& tracks() const { return tracks_; }
  // Where each of these comes from.
  std::vector<ExportStatement::Source> sources() const;

  int channel() const { return pictures_.channel(); }
  // Of the file that it left, or of what was read so far, without path and error.
  ExportedChannel report() const;

 private:
  ChannelExport pictures_;
  bool hasPictureRows_;
  SoundExport sound_;
  bool hasSoundRows_;
  const bool bare_;  // the file takes pictures only
  std::vector<ExportTrack*> tracks_;
  std::optional<ExportedChannel> left_;  // what the file has that it left
};

}  // namespace tarn
