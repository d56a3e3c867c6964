#pragma once

#include <cstdint>

namespace tarn {

// What a session has done since it was opened.
struct RecordingStatistics {
  uint64_t pictures = 0;   // accepted
  uint64_t confirmed = 0;  // on the card with their entries
  uint64_t bytes = 0;      // of the pictures as given
  uint32_t segments = 0;   // rows begun
  uint32_t chunks = 0;     // chunks taken
  uint32_t recordingsDeleted = 0;
  uint32_t eventsDeleted = 0;
  uint32_t streamWraps = 0;   // passes over the end of a stream ring
  uint32_t pictureWraps = 0;  // the same of a picture ring
};

}  // namespace tarn
