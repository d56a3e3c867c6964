#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"

namespace tarn {

// A recording of the list, and whose it is.
struct ServedRecording {
  DB_STREAM row = {};
  int channel = 0;  // ChunkChannels::kUnknown where the card does not tell

  int64_t startUs() const { return (int64_t{row.startDate} * 1000 + row.startMSec) * 1000; }
  // Of a closed one.
  int64_t endUs() const { return (int64_t{row.endDate} * 1000 + row.endMSec) * 1000; }
  bool isRunning() const { return row.recSize == 0; }
};

inline int64_t startUs(const DB_EVENT& event) {
  return (int64_t{event.startDate} * 1000 + event.startMSec) * 1000;
}
inline int64_t endUs(const DB_EVENT& event) {
  return (int64_t{event.endDate} * 1000 + event.endMSec) * 1000;
}

// What the database listed at one moment, held in memory for questions: a database that a recorder
// writes to is not asked again for each viewer. Never changes once it is made.
struct ServedRows {
  std::vector<ServedRecording> recordings;  // by key; each picture once
  // Places in `recordings` of each channel's recordings of pictures, in the order of time.
  std::map<int, std::vector<uint32_t>> videoOf;
  std::map<int, std::vector<uint32_t>> soundOf;         // the same of sound
  std::shared_ptr<const std::vector<DB_EVENT>> events;  // by key

  // Null when it is not listed.
  TARN_API const ServedRecording* find(uint32_t streamID) const;
};

// How far a running recording is safe on the card.
struct SafePictures {
  uint32_t streamID = 0;
  uint32_t pictures = 0;
  int64_t lastUs = 0;  // the latest picture; 0 without one
};

}  // namespace tarn
