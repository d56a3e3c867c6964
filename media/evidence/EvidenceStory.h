#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "media/export/ExportReport.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

// Why there are no pictures of a time.
enum class GapReason : uint8_t {
  kNoRecording,  // nothing was recorded then
  kOverwritten,  // the card has given up what was recorded then
  kInterrupted,  // the recording in front of it did not end in order
  kDamaged,      // what is on the card is not what was recorded
  kUnreadable,   // the device did not give it, which proves nothing
  kUnknown,      // the card does not tell
};

struct EvidenceGap {
  int64_t fromUs = 0;  // since 1970, UTC
  int64_t toUs = 0;
  GapReason reason = GapReason::kNoRecording;
  std::string text;  // the reason in words
};

// One recording as far as it lies in the period.
struct EvidenceRecording {
  DB_STREAM row = {};
  bool readable = false;    // it could be opened
  uint32_t pictures = 0;    // of sound: blocks
  uint32_t damaged = 0;     // entries that are not what was written
  uint32_t unreadable = 0;  // entries that the device did not give
  PictureTime first;        // the earliest and the latest of `pictures`
  PictureTime last;
  uint64_t entriesAt = 0;  // of its header and entries in original/entries.bin
  uint64_t entriesBytes = 0;
  uint64_t entriesMissing = 0;  // of these: what the device did not give, zeros there
};

// A key picture, for the report.
struct EvidencePicture {
  DB_STREAM row = {};
  uint32_t index = 0;
  PictureTime time;
};

struct EvidenceChannel {
  int channel = 0;  // ChunkChannels::kUnknown where the card does not tell
  std::vector<EvidenceRecording> recordings;
  std::vector<EvidenceGap> gaps;
  std::vector<EvidencePicture> minutes;  // the first key picture of each minute
  std::vector<ExportedChannel> videos;   // what its files hold; error: why there is none

  bool hasUnreadable() const;
};

// What the card tells of recordings that it has given up.
struct GivenUpRecording {
  uint32_t streamID = 0;
  uint32_t chunk = 0;
  int64_t fromUs = 0;
  int64_t toUs = 0;
};

struct EvidenceJournal {
  std::vector<GivenUpRecording> givenUp;
  int64_t oldestUs = INT64_MAX;  // begin of the oldest recording that it tells of
  uint32_t oldestKey = UINT32_MAX;
  uint32_t streamRecords = 0;  // in original/journal-recordings.bin
  uint32_t eventRecords = 0;
  uint32_t unreadable = 0;  // places of which the device gave too little
  std::string error;        // why it could not be read at all
};

// A line of the system log, and of those a step of the clock.
struct EvidenceLogLine {
  int64_t seconds = -1;  // -1: the line has no time
  std::string text;
};

// All that is told of a case, by the manifest and by the report.
struct EvidenceStory {
  int64_t fromUs = 0;
  int64_t toUs = 0;
  std::vector<EvidenceChannel> channels;
  std::vector<DB_EVENT> events;
  EvidenceJournal journal;
  std::vector<EvidenceLogLine> log;
  std::vector<EvidenceLogLine> clockSteps;
  std::string logError;  // why there is no log; "" when there is
};

TARN_API const char* gapReasonName(GapReason reason);  // for programs: "overwritten"

}  // namespace tarn
