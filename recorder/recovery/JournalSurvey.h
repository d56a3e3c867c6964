#pragma once

#include <functional>

#include "base/Export.h"
#include "dblog/JournalBytes.h"
#include "dblog/JournalFormat.h"
#include "recorder/recovery/EarlyRows.h"
#include "recorder/recovery/HeaderPlaces.h"
#include "recorder/recovery/StartUpReport.h"

namespace tarn {

// Reads both copies on the card itself, without a server and without changing anything. Which copy
// counts: judgeJournalCopies(). -1, with the reason in `error`, when a chunk cannot be opened or
// the device does not give a place that the other copy cannot stand in for.
TARN_API int surveyJournal(JournalKind kind, JournalSurvey* survey);

// The same of both journals, and makes the two copies of each one again, before anything edits
// records in them: an edit patches a copy without testing it and would give a torn one a good
// checksum. Places that neither
// copy can tell become deleted records when valid ones follow, or the rebuild could take them for
// the journal's end; behind the last record, what is erased in one copy is erased in the other.
// Records of rows that never were (recorder/recovery/PhantomRecords.h) become deleted ones. Flushed
// when it returns. Running it again changes nothing.
//
// Both are looked through to their ends before the first write: nothing of either is written unless
// both can be read and `mayWrite`, where given, says so when they are; else -1. A copy that was
// refused is never written over.
//
// The card is read once: what is the same in both copies and was not written here stays in
// `readEvents` and `readStreams`, where given, for the replay; and `places`, where given, gets the
// recordings. `early`, where given, is told of both journals as they are read, if `readEvents` and
// `readStreams` are what it reads of.
TARN_API int scrubJournals(JournalSurvey* events, JournalSurvey* streams,
                           const std::function<bool()>& mayWrite = nullptr,
                           JournalBytes* readEvents = nullptr, JournalBytes* readStreams = nullptr,
                           HeaderPlaces* places = nullptr, EarlyRows* early = nullptr);

}  // namespace tarn
