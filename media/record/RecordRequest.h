#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"
#include "recorder/session/EventKeeper.h"

namespace tarn {

// One event of a recording, relative to its start.
struct EventRequest {
  uint16_t trigger = 0;
  double atSeconds = 0;  // 0 or more
};

// One input with the channel that it is recorded on.
struct InputRequest {
  std::string input;    // as MediaInput::open() takes it: a file, "-", or an address
  uint8_t channel = 0;  // 0 to 127
};

// Where the times of pictures come from.
enum class TimesFrom {
  kInput,    // the wall clock of what comes as it is taken, the input's own of files
  kArrival,  // when each picture came
  kStream,   // counted from the start, as a file's
};

// What a MediaRecorder is to record, and how.
struct RecordRequest {
  std::vector<InputRequest> inputs;  // each with a channel of its own
  uint32_t loop = 1;                 // how often files are recorded, one after the other
  std::optional<PictureTime> start;  // time of the first picture; now when not given
  TimesFrom times = TimesFrom::kInput;
  uint32_t segmentSeconds = 60;      // as RecordingOptions::segmentSeconds
  uint32_t flushMs = 1000;           // as RecordingOptions::flushIntervalMs
  uint32_t eventSeconds = 10;        // length of each event
  double frameRate = 0;              // for streams without times; 0: what the stream tells
  bool realtime = false;             // no faster than the pictures' own times
  std::vector<EventRequest> events;  // of the first input
  bool sound = true;                 // the inputs' sound, too, as far as it can be recorded
  KeeperOptions keeper;              // of the EventKeeper that runs along
};

// False with *error set when a request contradicts itself: no input, a channel or
// standard input given twice, a stream that would have to be read a second time. Opens nothing.
// Throws std::bad_alloc when memory runs out.
TARN_API bool checkRecordRequest(const RecordRequest& request, std::string* error);

}  // namespace tarn
