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

// One input with the channel that it is recorded on.
struct InputRequest {
  std::string input;  // file, "-" for standard input, or an rtsp:// address
  uint8_t channel = 0;
};

// Where the times of pictures come from.
enum class TimesFrom {
  kInput,    // the wall clock of what comes as it is taken, the input's own of files
  kArrival,  // when each picture came
  kStream,   // counted from the start, as a file's
};

// What `tarn record` was asked for.
struct RecordRequest {
  std::vector<InputRequest> inputs;  // each with a channel of its own
  uint32_t loop = 1;                 // how often files are recorded, one after the other
  std::optional<PictureTime> start;  // time of the first picture; now when not given
  TimesFrom times = TimesFrom::kInput;
  uint32_t segmentSeconds = 60;
  uint32_t flushMs = 1000;
  uint32_t eventSeconds = 10;  // length of each event
  double frameRate = 0;        // for streams without times; 0: what the stream tells
  bool realtime = false;
  bool progress = false;             // say how far it is on standard output
  std::vector<EventRequest> events;  // of the first input
};

// Reads "TRIGGER@SECONDS". Empty when the text is not of this form or out of range.
std::optional<EventRequest> parseEvent(const std::string& text);

// Records each input in a thread of its own, until its end or SIGINT/SIGTERM, and says what came of
// it on standard output. An input that fails stops no other. The exit status: 0, or 1 after a
// failure of any, which is told on standard error.
int recordMedia(const RecordRequest& request);

}  // namespace tarn::tool
