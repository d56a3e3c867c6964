#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "recorder/card/PictureTime.h"

namespace tarn::tool {

// One event of a recording, relative to its start.
struct EventRequest {
  uint16_t trigger = 0;
  double atSeconds = 0;
};

// What `tarn record` was asked for.
struct RecordRequest {
  std::string input;                 // file, or "-" for an Annex B stream on standard input
  uint32_t loop = 1;                 // how often the input is recorded, one after the other
  std::optional<PictureTime> start;  // time of the first picture; now when not given
  uint32_t segmentSeconds = 60;
  uint32_t flushMs = 1000;
  uint32_t eventSeconds = 10;  // length of each event
  uint8_t channel = 0;
  double frameRate = 0;  // for streams without times; 0: what the stream tells
  bool realtime = false;
  bool progress = false;  // say how far it is on standard output
  std::vector<EventRequest> events;
};

// Reads "TRIGGER@SECONDS". Empty when the text is not of this form or out of range.
std::optional<EventRequest> parseEvent(const std::string& text);

// Records until the input's end or SIGINT/SIGTERM, and says what came of it on standard output. The
// exit status: 0, or 1 after a failure, which is told on standard error.
int recordMedia(const RecordRequest& request);

}  // namespace tarn::tool
