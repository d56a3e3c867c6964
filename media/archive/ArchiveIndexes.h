#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>

#include "media/MediaInput.h"
#include "media/archive/ArchivePlan.h"
#include "media/archive/ArchiveStore.h"
#include "media/archive/DayIndex.h"

namespace tarn {

// The indexes of one recorder's days in an archive. Used by one thread. Not part of the interface.
class ArchiveIndexes {
 public:
  // `held`: objects of the archive with their bytes. Store and held outlive this.
  ArchiveIndexes(ArchiveStore* store, const std::string& recorder,
                 const std::map<std::string, int64_t>* held)
      : store_(store), recorder_(recorder), held_(held) {}

  // All of these: false with error() set.
  // The index of a day's folder, as the archive has it, or empty. It stays this object's.
  bool of(const std::string& day, DayIndex** index);
  // A clip that was sent just now, whose sidecar is there.
  bool add(const ArchiveLine& line);
  // Brings the days of which the card holds something, and those that lack an index, up to what
  // sidecars and card say.
  bool update(ArchivePlan* plan, const StopAsked& stopAsked);
  // Writes those that are not as the archive has them.
  bool write();

  uint64_t written() const { return written_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool addSidecars(const std::string& day, DayIndex* index);
  bool addStories(const ArchivePlan& plan, const StopAsked& stopAsked);
  bool wasReadWhole(const ArchiveLine& line) const;
  bool addCardStory(const ArchivePlan& plan);

  ArchiveStore* store_;
  const std::string recorder_;
  const std::map<std::string, int64_t>* held_;
  std::map<std::string, DayIndex> indexes_;  // by day's folder, those that were asked for
  std::set<std::string> fresh_;              // recordings that were sent
  uint64_t written_ = 0;
  std::string error_;
};

}  // namespace tarn
