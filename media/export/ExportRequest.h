#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "recorder/card/PictureTime.h"

namespace tarn {

// What a MediaExporter is to write: what was recorded in a recording, an event,
// or a period: pictures with the sound of that time, or the sound alone.
struct ExportRequest {
  std::optional<uint32_t> streamID;  // this recording
  std::optional<uint32_t> eventID;   // all that was recorded during this event
  std::optional<PictureTime>
      from;  // otherwise: of a period, which without one of its ends has none
  std::optional<PictureTime> to;
  std::optional<uint16_t> trigger;  // of a period: only recordings of this trigger
  std::optional<int> channel;       // only recordings of this channel
  std::string output;      // .mp4, .mov or .h264, of several channels NAME-chN.mp4 each; - (a pipe)
  bool sound = true;       // the channels' sound, too
  bool tracks = false;     // several channels into one file, a track each
  bool overwrite = false;  // replace a file that exists
};

}  // namespace tarn
