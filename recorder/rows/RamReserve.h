#pragma once

#include "base/Export.h"

namespace tarn {

// Room on the RAM disk that a recording process keeps for the time when something else has filled
// it: a file of 256 KiB in /tmp, enough for a thousand rows. The first statement that finds the
// disk full gets it, with a line at LOG_ERR, so that somebody can make room before recording ends.
//
// Belongs to the process; any thread.
class TARN_API RamReserve {
 public:
  // Takes the room unless it is taken. False, with a warning in the log, when the disk has not even
  // that: recording goes on, with nothing in reserve.
  static bool keep();
  // Gives the room back to the disk when it is (nearly) full, or when a statement was told so. True
  // when there was a reserve that helps now.
  static bool giveUpWhenFull(bool ranFull);
  // Gives it back, in peace.
  static void drop();
};

}  // namespace tarn
