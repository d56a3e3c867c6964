#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "recorder/card/PictureTime.h"

namespace tarn::tool {

// What `tarn export` was asked for: exactly one of a recording, an event and a period.
struct ExportRequest {
  std::optional<uint32_t> streamID;
  std::optional<uint32_t> eventID;
  std::optional<PictureTime> from;
  std::optional<PictureTime> to;
  std::optional<uint16_t>
      trigger;                 // only recordings of this trigger; others of a period are left out
  std::optional<int> channel;  // only recordings of this channel
  std::string output;          // .mp4 or .h264; of several channels NAME-chN.mp4 each
  bool tracks = false;         // several channels into one file, a track each
  bool overwrite = false;
  bool json = false;  // says what the file holds as JSON
};

// Writes the pictures to a file, or those of several channels to one each, and says on standard
// output what it holds. The exit status: 0, or 1 after a failure, which is told on standard error;
// a file exists only after a success.
int exportMedia(const ExportRequest& request);

}  // namespace tarn::tool
