#pragma once

#include <string>
#include <vector>

#include "damage/Cases.h"
#include "damage/SmallCard.h"

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
      : card_(card), regions_(regions) {}

  const Whole& wholeOf(const Case& one) const;
  // *reason: why it failed or was refused.
  Outcome judge(const Case& one, std::string* reason);

 private:
  struct Seen {
    std::string error;  // of the start
    std::vector<DB_STREAM> streams;
    std::vector<DB_EVENT> events;
    std::string management;
  };

  void applyDamage();
  void undoDamage();
  Outcome tryCase(std::string* reason);
  Outcome tryRefused(const std::string& error, std::string* reason);
  std::string tryMending();
  Seen start();
  std::string checkSpace(const Seen& seen) const;
  std::string checkSame(const Seen& seen);
  std::string checkSeen(const Seen& seen);
  std::string checkStreams(const Seen& seen);
  std::string checkStream(const DB_STREAM& row, const DB_STREAM* now);
  std::string checkPictures(const DB_STREAM& row, const DB_STREAM& now);
  std::string checkEvents(const Seen& seen);
  std::string checkLog(bool whole) const;
  std::string checkUndone();
  bool touches(uint32_t key, int64_t index) const;
  bool touchesRow(uint32_t key) const;
  bool touchesOpenRow() const;
  bool isGateRegion() const;

  const SmallCard& card_;
  const std::vector<Region>& regions_;
  const Whole* whole_ = nullptr;
  Case case_ = {};
  uint64_t from_ = 0;  // bytes of the device that are damaged
  uint64_t to_ = 0;
  powercut::ReadFault fault_;
  bool present_ = false;  // the damage is there
  bool lost_ = false;     // something that the damaged place holds
  std::string unseen_;    // damage that nobody told a reader of
};

}  // namespace damage
