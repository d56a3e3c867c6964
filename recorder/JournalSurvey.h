#pragma once

#include <cstdint>

#include "base/Export.h"
#include "dblog/JournalFormat.h"

namespace tarn {

// What the two copies of one journal hold, from the first record to the erased end.
struct JournalSurvey {
  uint32_t records = 0;      // places up to the end
  uint32_t live = 0;         // places with a live record in a copy that the rebuild would take
  uint32_t liveKeys = 0;     // different keys of those: as many rows as a rebuild must give
  uint32_t unreadable = 0;   // places without a valid record in either copy
  uint32_t greatestKey = 0;  // of all live and deleted records of both copies; 0 without any
  // Of scrubJournal() only:
  uint32_t copied = 0;      // records that were bad in one copy and were taken from the other
  uint32_t unlike = 0;      // valid in both copies but different: the original's were taken
  uint32_t bridged = 0;     // unreadable places in front of valid records, made deleted records
  uint32_t unfinished = 0;  // torn places behind the last record, erased in the other copy: erased
  uint32_t refused = 0;     // records that the card did not let us write
};

// Reads both copies on the card itself, without a server and without changing anything. A record
// counts when its checksum fits and it lies where it says it does. -1 when a chunk cannot be
// opened.
TARN_API int surveyJournal(JournalKind kind, JournalSurvey* survey);

// The same, and makes the two copies one again, before anything edits records in them: an edit
// patches a copy without testing it and would give a torn one a good checksum. Of two valid records
// the original's is the newer one, because it is written first; one that lies elsewhere than it
// says is not taken beside one that does not. Places that neither copy can tell
// become deleted records when valid ones follow, or the rebuild could take them for the journal's
// end; behind the last record, what is erased in one copy is erased in the other. Flushed when it
// returns. Running it again changes nothing.
TARN_API int scrubJournal(JournalKind kind, JournalSurvey* survey);

}  // namespace tarn
