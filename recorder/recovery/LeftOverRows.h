#pragma once

#include "recorder/recovery/RecoveryReport.h"

namespace tarn {

// Rows that a power loss left open (recSize 0). Their entries decide: a row ends at the last
// picture that they confirm. What the device refuses decides nothing: such a row stays open for a
// later start, with a problem in the report, and its chunk takes nothing new. The library's own
// repair gets none of these rows: one refused read makes it delete or cut a recording, and it can
// neither go on behind a damaged entry nor read stamps of another time zone. Each returns false
// when the database or the journal does not go along. Not part of the interface.

// Kept copies of which not all is there (recorder/recording/KeptRow.h) go, whoever closed their
// rows. Nothing is lost by it but the work.
bool dropHalfCopies(RecoveryReport* report);

// Those that have a newer row in their chunk. One of which nothing is there goes alone.
bool settleOvertakenRows(RecoveryReport* report);

// Interrupted video. A row without two pictures goes, with the events that only it could show.
bool settleVideoRows(RecoveryReport* report);

// Audio and the kinds of stream that carry no time stamps. A row that holds nothing goes.
bool settleRemainingRows(RecoveryReport* report);

}  // namespace tarn
