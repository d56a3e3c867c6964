#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media/record/RecordRequest.h"
#include "recorder/card/PictureTime.h"
#include "recorder/session/RecordingSession.h"

namespace tarn {

// The events that a recording was asked for: each begins and ends when the recording gets there.
// Times are microseconds from its start. Used by the thread of the session.
class RequestedEvents {
 public:
  // The session outlives this, and is open when events move.
  explicit RequestedEvents(RecordingSession* session) : session_(session) {}

  void add(const EventRequest& event, uint32_t seconds);
  // The recording, which began at `start`, has come to `nowUs`. False when the session failed.
  bool move(int64_t nowUs, PictureTime start);
  // It is over: what runs ends no later than `endUs`. False when the session failed.
  bool end(int64_t endUs, PictureTime start);

  uint32_t begun() const { return begun_; }
  // One sentence for each that the recording did not get to.
  std::vector<std::string> missed() const;

 private:
  // On its way: waiting for its moment, running, or over.
  struct Event {
    int64_t startUs;
    int64_t endUs;
    uint16_t trigger;
    uint32_t eventID = 0;
    bool over = false;
  };
  bool begin(Event* event, PictureTime start);

  RecordingSession* session_;
  std::vector<Event> events_;
  uint32_t begun_ = 0;
};

}  // namespace tarn
