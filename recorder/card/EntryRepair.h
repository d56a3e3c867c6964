#pragma once

#include <cstdint>
#include <string>

#include "recorder/card/CardMap.h"
#include "recorder/card/RepairSteps.h"
#include "recorder/card/RootDirectory.h"

namespace tarn {

// Mends entries of the root directory from what the info file says. Used by one thread.
class EntryRepair {
 public:
  // All outlive this; the map is what the info file says.
  EntryRepair(const RootDirectory& root, const CardMap& map, RepairSteps* steps)
      : root_(root), map_(map), steps_(steps) {}

  // Each chunk file that the info file has gets its entry: the one with its name, else the one that
  // has its place and size under a name that is none of ours. False when one has none.
  bool planEntries();
  // Whole sectors of which nothing is left; what belongs there follows from the info file. False
  // when there are none.
  bool planLostSectors();

 private:
  bool mendEntry(const std::string& name, uint32_t cluster, uint32_t size);
  bool renameEntry(const std::string& name, uint32_t cluster, uint32_t size);
  bool changeEntry(uint32_t index, const std::string& name, uint32_t cluster, uint32_t size,
                   bool rename);

  const RootDirectory& root_;
  const CardMap& map_;
  RepairSteps* steps_;
};

}  // namespace tarn
