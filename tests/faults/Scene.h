#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace faults {

// The machine at a moment when no program runs: what the card and the RAM disk hold, and what has
// been promised until then.
class Scene {
 public:
  // Everything as it is now.
  void take(const std::string& promises);
  // Makes everything so again; the database's semaphore goes.
  void restore() const;
  // "" when the card still holds the same bytes, else where the first others are.
  std::string cardDiffers() const;
  const std::string& promises() const { return promises_; }

 private:
  uint64_t size_ = 0;
  std::vector<std::pair<uint64_t, std::string>> pages_;  // of the card, those that are not zero
  std::map<std::string, std::string> files_;             // of the RAM disk
  std::string promises_;
};

// As when the power goes: nothing is left but the card.
void loseMemory();

// Sums of what the card holds, and of what would be lost: equal ones mean equal bytes.
uint64_t cardSum();
uint64_t memorySum();

}  // namespace faults
