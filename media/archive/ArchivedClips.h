#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "media/MediaInput.h"
#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveStore.h"

namespace tarn {

class DayIndex;

inline constexpr char kErrOtherClip[] = "is not what the archive says of it";

// What of a recorder's archive belongs onto a card. Used by one thread. Not part of the interface.
class ArchivedClips {
 public:
  explicit ArchivedClips(ArchiveStore* store) : store_(store) {}

  // `recorder` "": the only one that there is. False with error() set.
  bool read(const std::string& recorder, const StopAsked& stopAsked);

  // Recordings, in the order of time; and events' clips of which the archive has no recording. Of a
  // kept copy the recording, where that is there. Each once.
  const std::vector<ArchiveLine>& recordings() const { return recordings_; }
  // Of one of these its parts, from itself on; nothing where one of them is not there.
  std::vector<ArchiveLine> partsOf(const ArchiveLine& recording) const;
  // Each event once, in the order of time.
  const std::vector<ArchiveLine>& events() const { return events_; }
  // What of it does not say what it holds, or holds something else, by its name, with the reason.
  const std::vector<std::pair<std::string, std::string>>& damaged() const { return damaged_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool readDay(const std::string& day, const std::vector<ArchiveStore::Object>& objects);
  bool readIndex(const std::string& name, DayIndex* index);
  bool readSidecars(const std::map<std::string, int64_t>& sizes, DayIndex* index);
  void take(const ArchiveLine& line, const std::map<std::string, int64_t>& sizes);
  void sort();
  bool isShown(const ArchiveLine& event) const;

  ArchiveStore* store_;
  std::vector<ArchiveLine> recordings_;
  std::vector<ArchiveLine> clipsOfEvents_;
  std::map<std::string, ArchiveLine> laterParts_;  // by their objects
  std::vector<ArchiveLine> events_;
  std::vector<std::pair<std::string, std::string>> damaged_;
  std::string error_;
};

}  // namespace tarn
