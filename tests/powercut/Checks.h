#pragma once

#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "powercut/Workload.h"
#include "recorder/Recovery.h"

namespace powercut {

// As after power-on: nothing but the card is left, and recovery runs.
tarn::RecoveryReport bootCard();
std::vector<DB_STREAM> listStreams();
std::vector<DB_EVENT> listEvents();
// Rows, management data and journals in words, to compare two recovered cards by.
std::string describeCard();

// A moment at which power goes: operations before `at` had been issued, and the last flush among
// them is operation `flush` - 1 (0: none).
struct Cut {
  size_t flush;
  size_t at;
};

struct CheckOptions {
  bool newRecording = true;
  bool checkCard = true;
};

// Recovers the card as it lies and looks for everything that must hold afterwards. Empty, or what
// does not hold. The card is left as the checks leave it.
std::string checkState(const Recorded& life, Cut cut, const CheckOptions& options);

}  // namespace powercut
