#pragma once

#include "Console.h"

namespace tarn {

// While it lives, a terminal shows which step a recovery of this process is at. One at a time.
class RecoveryLine {
 public:
  RecoveryLine();
  ~RecoveryLine();
  RecoveryLine(const RecoveryLine&) = delete;
  RecoveryLine& operator=(const RecoveryLine&) = delete;

 private:
  ProgressLine line_;
};

}  // namespace tarn
