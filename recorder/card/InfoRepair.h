#pragma once

#include <cstdint>
#include <vector>

#include "recorder/card/CardMap.h"
#include "recorder/card/RepairSteps.h"
#include "recorder/card/RootDirectory.h"

namespace tarn {

// Where a repair has the info file from, and what is written of it. Used by one thread.
class InfoRepair {
 public:
  enum class From { kItself, kCopy, kDirectory };

  // All outlive this. The map, which has the boot sector, gets what the info file says.
  InfoRepair(const RootDirectory* root, CardMap* map, RepairSteps* steps)
      : root_(root), map_(map), steps_(steps) {}

  // Takes the info file from there. False when nothing of use is there.
  bool take(From from);
  // Takes it where our formatter puts it; for an entry that leads elsewhere on a card without a
  // copy.
  bool takeBehindRoot();

  // Plans the info file where it belongs, unless it was taken from there. False when it has no
  // place.
  bool plan();
  // Plans its second copy: only for a sealed info file, and only over a copy or nothing.
  void planCopy();

 private:
  bool takeFileAt(uint64_t byte);
  bool takeCopy();
  bool makeFromDirectory();
  bool familyFromFiles(int type, const std::vector<const DirectoryFile*>& files);

  const RootDirectory* root_;
  CardMap* map_;
  RepairSteps* steps_;
  From from_ = From::kItself;
  std::vector<uint8_t> file_;  // the info file that was taken
};

}  // namespace tarn
