#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
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
  // A sum of what the card holds: equal ones of the same scene mean equal bytes.
  uint64_t cardSum() const;
  const std::string& promises() const { return promises_; }

 private:
  // Of the card behind `fd`, each page that is not the scene's: its place and what it holds.
  void eachDifference(int fd, const std::function<void(off_t, std::string_view)>& tell) const;

  uint64_t size_ = 0;
  uint64_t sum_ = 0;                                     // of what the card held
  std::vector<std::pair<uint64_t, std::string>> pages_;  // of the card, those that are not zero
  std::map<std::string, std::string> files_;             // of the RAM disk
  std::string promises_;
};

// As when the power goes: nothing is left but the card.
void loseMemory();

// A sum of what would be lost: equal ones mean equal bytes.
uint64_t memorySum();

}  // namespace faults
