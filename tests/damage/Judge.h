#pragma once

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "damage/Cases.h"
#include "damage/SmallCard.h"
#include "damage/Starts.h"

namespace damage {

enum class Outcome {
  kWhole,    // everything came back
  kLost,     // what only the damaged place holds is lost
  kRefused,  // the start refuses, with a reason; nothing is lost
  kFailed,
};

// Damages the card that lies there, starts on it twice, reads all pictures, and takes the damage
// back. The card is left as that leaves it.
class Judge {
 public:
  Judge(const SmallCard& card, const std::vector<Region>& regions)
      : card_(card), regions_(regions), starts_(card) {}

  const Whole& wholeOf(const Case& one) const;
  // *reason: why it failed or was refused.
  Outcome judge(const Case& one, std::string* reason);

 private:
  void applyDamage();
  void undoDamage();
  Outcome tryCase(std::string* reason);
  Outcome tryRefused(const std::string& error, std::string* reason);
  std::string tryMending();
  Seen start(Starts::Again again);
  std::string checkSpace(const Seen& seen) const;
  std::string checkSame(const Seen& seen);
  std::string checkSeen(const Seen& seen);
  std::string checkStreams(const Seen& seen);
  std::string checkStream(const DB_STREAM& row, const DB_STREAM* now);
  std::string checkPictures(const DB_STREAM& row, const DB_STREAM& now);
  std::string checkEvents(const Seen& seen);
  std::string checkLog(const Seen& seen) const;
  std::string checkLogChunk(size_t chunk, uint32_t end) const;
  std::string checkUndone();
  void findTouched();
  bool touches(uint32_t key, int64_t index) const { return touched_.count({key, index}) != 0; }
  bool touchesRow(uint32_t key) const;
  bool touchesOpenRow() const;
  bool isGateRegion() const;

  const SmallCard& card_;
  const std::vector<Region>& regions_;
  Starts starts_;
  const Whole* whole_ = nullptr;
  Case case_ = {};
  uint64_t from_ = 0;  // bytes of the device that are damaged
  uint64_t to_ = 0;
  std::set<std::pair<uint32_t, int64_t>> touched_;  // recordings and indexes that lie there
  powercut::ReadFault fault_;
  bool present_ = false;  // the damage is there
  bool lost_ = false;     // something that the damaged place holds
  std::string unseen_;    // damage that nobody told a reader of
};

}  // namespace damage
