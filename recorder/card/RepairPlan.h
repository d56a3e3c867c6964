#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "recorder/card/CardMap.h"
#include "recorder/card/RepairSteps.h"
#include "recorder/card/RootDirectory.h"
#include "recorder/card/VolumeFormat.h"

namespace tarn {

class EntryRepair;
class InfoRepair;

// Tries what the card has twice against what it has once, until all of it agrees. Writes nothing.
// Used by one thread; may throw for lack of memory.
class RepairPlan {
 public:
  // The card, and its path for the texts, outlive this.
  RepairPlan(CardBytes* card, const std::string& path) : path_(path), steps_(card) {}

  // 0, or -1 with *error: the card cannot be read, or not be mended this way.
  int run(std::string* error);
  std::vector<CardRepair::Step> takeSteps() { return steps_.take(); }

 private:
  // Takes the info file from somewhere and mends the directory by it, or does not.
  using Way = std::function<bool(InfoRepair* info, EntryRepair* entries)>;

  const CardBytes& card() const { return steps_.card(); }
  bool readBoots(std::string* error);
  bool startFrom(bool fromBackup);
  bool tryAll();
  bool attempt(const Way& way);
  bool agrees() const;
  void mendBootTwin();

  const std::string& path_;
  RepairSteps steps_;
  uint8_t boot_[kSectorBytes] = {};
  uint8_t backup_[kSectorBytes] = {};
  bool hasBackup_ = false;
  CardMap map_;
  RootDirectory root_;
};

}  // namespace tarn
