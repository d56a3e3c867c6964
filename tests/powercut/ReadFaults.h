#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

#include "powercut/States.h"

// What a card that refuses reads does to the recovery of a life that was cut.
namespace powercut {

// Every way in which one read of a recovery is refused: each read of the undisturbed recovery fails
// once, comes short once, fails with the next ones, and with all that follow; and the sectors that
// it asks for are bad from the beginning to the end, each of a small read, some of a large one.
// What the card has twice also reads as zeros.
class ReadFaults {
 public:
  explicit ReadFaults(const Recorded& life) : life_(life), copied_(copiedExtents()) {}

  // As States::walk. A state's number is that of its read and, below, of what befalls it.
  void walk(const States::Visit& visit, const States::Run& run);
  static uint64_t count(const Recorded& life);

 private:
  void visitRead(size_t read);
  void visitFault(uint32_t place, const ReadFault& fault);
  void visitSectors(size_t read);

  const Recorded& life_;
  const std::vector<std::pair<uint64_t, uint64_t>> copied_;  // bytes that are kept twice
  uint64_t number_ = 0;                                      // of the read's first state
  uint64_t distinct_ = 0;
  std::unordered_set<uint64_t> badSectors_;
  const States::Visit* visit_ = nullptr;
  const States::Run* run_ = nullptr;
};

// "read 17 (512 bytes at 1,024 of journal chunk 2) fails once"
std::string describe(const Recorded& life, const ReadFault& fault);
// "journal chunk 2, offset 1024": what lies at a byte of the card.
std::string placeOf(uint64_t byte);

// What must hold after a recovery under a fault, while it lasts. Empty, or what does not hold.
std::string checkUnderFault(const Recorded& life, const ReadFault& fault,
                            const tarn::RecoveryReport& report);

// Whether the fault keeps back what the card has nowhere else: the newest record of a row, of which
// the cut left the other copy older. What was under way then need not come to the same end.
bool hasNewestOfARow(const Recorded& life, const ReadFault& fault);

// Where the parts of the listed recordings lie on the card. For the lives of refused reads.
std::vector<PicturePlace> picturePlaces(const std::vector<DB_STREAM>& rows);

}  // namespace powercut
