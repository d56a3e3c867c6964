#pragma once

#include <string>
#include <vector>

#include "media/MediaInput.h"
#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveStore.h"

namespace tarn {

// What of a recorder's archive belongs onto a card. Used by one thread. Not part of the interface.
class ArchivedClips {
 public:
  explicit ArchivedClips(ArchiveStore* store) : store_(store) {}

  // `recorder` "": the only one that there is. False with error() set.
  bool read(const std::string& recorder, const StopAsked& stopAsked);

  // Recordings, in the order of time; and events' clips of which the archive has no recording. Of a
  // kept copy the recording, where that is there. Each once.
  const std::vector<ArchiveLine>& recordings() const { return recordings_; }
  // Each event once, in the order of time.
  const std::vector<ArchiveLine>& events() const { return events_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool readDay(const std::string& day, const std::vector<ArchiveStore::Object>& objects);
  void sort();
  bool isShown(const ArchiveLine& event) const;

  ArchiveStore* store_;
  std::vector<ArchiveLine> recordings_;
  std::vector<ArchiveLine> clipsOfEvents_;
  std::vector<ArchiveLine> events_;
  std::string error_;
};

}  // namespace tarn
