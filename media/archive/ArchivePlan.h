#pragma once

#include <map>
#include <set>
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

  // Events first, then recordings, the newest of both first: what is closed, and events of whose
  // time the card holds all there will be. Object, channel and time of each are set.
  const std::vector<ArchiveLine>& clips() const { return clips_; }
  // Looks for gaps between recordings, which go to the others.
  void addGaps();
  // Gaps, and events during which nothing was recorded: lines without an object.
  const std::vector<ArchiveLine>& others() const { return others_; }
  // The row of a recording; null where there is none.
  const DB_STREAM* rowOf(uint32_t key) const;
  const std::vector<DB_EVENT>& events() const { return events_; }
  const CardStory& story() const { return story_; }
  // Recordings that wait for their end; events that do, or for that of their time on the card.
  uint64_t waiting() const { return waitingRecordings_ + waitingEvents_.size(); }
  const std::set<uint32_t>& waitingEvents() const { return waitingEvents_; }
  // Recordings that the ring overwrites next and that are not in the archive: of a card that has
  // hardly a free chunk left the oldest, which have a tenth of all its pictures.
  std::vector<const ArchiveLine*> endangered(const std::set<std::string>& archived) const;
  const std::string& error() const { return error_; }

 private:
  bool readRows();
  int channelOf(const DB_STREAM& row) const { return story_.channelOf(row); }
  bool mayGrowBefore(const DB_STREAM& row, PictureTime time);
  bool isNearlyFull() const;
  void addEvent(const DB_EVENT& event);
  void addRecording(const DB_STREAM& row);
  void addClip(ArchiveLine line, const std::vector<DB_STREAM>& rows);
  std::vector<DB_STREAM> soundBeside(const DB_STREAM& row) const;

  const std::string recorder_;
  std::vector<DB_STREAM> rows_;
  std::map<uint32_t, size_t> rowOfKey_;  // in rows_
  std::vector<DB_EVENT> events_;
  CardStory story_;
  std::vector<ArchiveLine> clips_;
  std::vector<ArchiveLine> others_;
  uint64_t waitingRecordings_ = 0;
  std::set<uint32_t> waitingEvents_;
  std::map<uint32_t, int64_t> safeTo_;  // of running recordings: all before this is on the card
  std::string error_;
};

}  // namespace tarn
