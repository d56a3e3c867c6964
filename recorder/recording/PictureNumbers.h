#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"

namespace tarn {

// Chooses the number of a recording's first picture. The repair of an interrupted recording takes
// entries as its own as long as their numbers are consecutive, and behind the last entry written
// the ring still holds entries of days ago; so no slot of the chunk, stale or not, may hold a
// number that the new recording could reach. Every first number is a multiple of 100 and not 0: the
// repair checks the time of each hundredth number, so it checks the first picture.
class TARN_API PictureNumbers {
 public:
  static constexpr uint32_t kStep = 100;
  // Numbers stay below this: 0 has a meaning of its own for the repair, so none may wrap to it.
  static constexpr uint32_t kLimit = 0xFFFFFF00;

  // Takes over the numbers (bytes 4-7) of all slots of a picture chunk, in any order.
  void setSlots(std::vector<uint32_t> numbers);
  // Reads them from the card. 0, or -1 when the chunk cannot be read.
  int scan(int chunk, uint32_t pictureChunkSize);
  // First number of the next recording. False when the numbers must be scanned afresh (or, right
  // after a scan, when the slots leave no gap at all).
  bool first(uint32_t* number) const;
  // Tells of a number that was written to the chunk. The number behind it stays unused: the header
  // of the next recording holds its first number where the next entry of this one would be.
  void used(uint32_t number) {
    if (number + 1 >= next_) next_ = number + 2;
  }

 private:
  void choose(uint64_t begin, uint64_t end);

  uint32_t slots_ = 0;
  uint32_t next_ = 0;  // no slot holds a number of next_ … end_ - 1
  uint32_t end_ = 0;
};

}  // namespace tarn
