#pragma once

#include <cstdint>

#include "base/Export.h"
#include "dblog/JournalFormat.h"

namespace tarn {

// What the two copies of one journal hold, from the first record to the erased end.
struct JournalSurvey {
  uint32_t records = 0;      // places up to the end
  uint32_t live = 0;         // places with a live record in a copy that the rebuild would take
  uint32_t unreadable = 0;   // places without a valid record in either copy
  uint32_t greatestKey = 0;  // of all live and deleted records of both copies; 0 without any
};

// Reads both copies on the card itself, without a server and without changing anything. A record
// counts when its checksum fits and it lies where it says it does. -1 when a chunk cannot be
// opened.
TARN_API int surveyJournal(JournalKind kind, JournalSurvey* survey);

}  // namespace tarn
