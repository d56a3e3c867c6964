#pragma once

#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "media/MediaInput.h"
#include "media/archive/ArchiveLine.h"
#include "media/archive/CardStory.h"

namespace tarn {

// What of a card belongs into an archive: clips of events, recordings, and the gaps between them.
// Used by one thread. Not part of the interface.
class ArchivePlan {
 public:
  explicit ArchivePlan(const std::string& recorder) : recorder_(recorder), story_(recorder) {}

  // False with error() set where it cannot be told what the card holds.
  bool read(const StopAsked& stopAsked);

  // Events first, then recordings, the newest of both first: what is closed, and of an event what
  // all its recordings are. Object, channel and time of each are set.
  const std::vector<ArchiveLine>& clips() const { return clips_; }
  // Gaps, and events during which nothing was recorded: lines without an object.
  const std::vector<ArchiveLine>& others() const { return others_; }
  // The row of a recording; null where there is none.
  const DB_STREAM* rowOf(uint32_t key) const;
  const std::vector<DB_EVENT>& events() const { return events_; }
  const CardStory& story() const { return story_; }
  // Recordings and events that wait for their end.
  uint64_t waiting() const { return waiting_; }
  const std::string& error() const { return error_; }

 private:
  bool readRows();
  int channelOf(const DB_STREAM& row) const { return story_.channelOf(row); }
  void addEvent(const DB_EVENT& event);
  void addRecording(const DB_STREAM& row);
  void addClip(ArchiveLine line, const std::vector<DB_STREAM>& rows);
  std::vector<DB_STREAM> soundBeside(const DB_STREAM& row) const;

  const std::string recorder_;
  std::vector<DB_STREAM> rows_;
  std::vector<DB_EVENT> events_;
  CardStory story_;
  std::vector<ArchiveLine> clips_;
  std::vector<ArchiveLine> others_;
  uint64_t waiting_ = 0;
  std::string error_;
};

}  // namespace tarn
