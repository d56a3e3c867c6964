#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"

namespace tarn {

// What the system log says of a re-dating, enough to take it back (RedatingUndo): whose recordings,
// which keys they and the events can have, and by how much they were moved.
struct TARN_API RedatingRecord {
  int channel = 0;
  bool sound = false;  // of the channel's recordings of sound
  uint32_t moved = 0;  // recordings, copies among them
  uint32_t firstStream = 0;
  uint32_t lastStream = 0;
  uint32_t movedEvents = 0;
  uint32_t firstEvent = 0;
  uint32_t lastEvent = 0;  // in front of the first one: none
  int64_t seconds = 0;     // later than the entries say

  // Into the system log.
  void log() const;
  // Out of one of its lines, whatever the log has put in front. False when it holds none.
  bool parse(const std::string& line);
};

}  // namespace tarn
