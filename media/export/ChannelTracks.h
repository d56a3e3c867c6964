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
  // Those that have a first piece; after begin().
  const std::vector<ExportTrack*>& tracks() const { return tracks_; }
  // Where each of these comes from.
  std::vector<ExportStatement::Source> sources() const;

  int channel() const { return pictures_.channel(); }
  // Of what was read so far, without path and error.
  ExportedChannel report() const;

 private:
  ChannelExport pictures_;
  bool hasPictureRows_;
  SoundExport sound_;
  bool hasSoundRows_;
  const bool bare_;  // the file takes pictures only
  std::vector<ExportTrack*> tracks_;
};

}  // namespace tarn
