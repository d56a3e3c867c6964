#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "dblog/JournalFormat.h"

namespace tarn {

// What the two copies of one journal hold, from the first record to the erased end.
struct JournalSurvey {
  uint32_t records = 0;      // places up to the end
  uint32_t live = 0;         // places with a live record in the copy that counts
  uint32_t liveKeys = 0;     // different keys of those: as many rows as a rebuild must give
  uint32_t unreadable = 0;   // places without a valid record in either copy
  uint32_t greatestKey = 0;  // of all live and deleted records of both copies; 0 without any
  uint32_t newestKey = 0;    // of the live records; 0 without any
  uint32_t newestPlace = 0;  // its byte position
  uint32_t digest = 0;       // changes with every live record that comes, goes or changes
  uint32_t phantoms = 0;     // live records of rows that never were
  uint32_t unread = 0;       // places of which one copy was refused; the other one is good
  std::string unreadText;    // the first of them, "stream journal chunk 3 at byte 4096"
  // Of scrubJournal() only:
  uint32_t copied = 0;      // records that were bad in one copy and were taken from the other
  uint32_t unlike = 0;      // valid in both copies but different: the original's were taken
  uint32_t bridged = 0;     // unreadable places in front of valid records, made deleted records
  uint32_t unfinished = 0;  // torn places behind the last record, erased in the other copy: erased
  uint32_t refused = 0;     // records that the card did not let us write
  std::string error;        // why there is no survey, one line; empty when there is
};

// Reads both copies on the card itself, without a server and without changing anything. Which copy
// counts: judgeJournalCopies(). -1, with the reason in `error`, when a chunk cannot be opened or
// the device does not give a place that the other copy cannot stand in for.
TARN_API int surveyJournal(JournalKind kind, JournalSurvey* survey);

// The same, and makes the two copies one again, before anything edits records in them: an edit
// patches a copy without testing it and would give a torn one a good checksum. Places that neither
// copy can tell become deleted records when valid ones follow, or the rebuild could take them for
// the journal's end; behind the last record, what is erased in one copy is erased in the other.
// Records of rows that never were (recorder/recovery/PhantomRecords.h) become deleted ones. Flushed
// when it returns. Running it again changes nothing.
//
// A journal is looked through to its end before the first write: where it cannot be read, nothing
// of it is changed. A copy that was refused is never written over.
TARN_API int scrubJournal(JournalKind kind, JournalSurvey* survey);

// scrubJournal() of both, and nothing of either is written unless both can be read.
TARN_API int scrubJournals(JournalSurvey* events, JournalSurvey* streams);

}  // namespace tarn
