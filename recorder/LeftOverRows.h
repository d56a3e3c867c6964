#pragma once

#include <vector>

#include "recorder/RecoveryReport.h"

namespace tarn {

// Rows that a power loss left open (recSize 0), before and after the library's own repair of video.
// Each returns false when the database or the journal does not go along. Not part of the interface.

// Deletes those that have a newer row in their chunk, with their record. They belong to an earlier
// life; the repair would delete every event since then with one that it cannot use.
bool deleteOvertakenRows(RecoveryReport* report);

// The library's repair, and what became of each row.
bool repairVideoRows(RecoveryReport* report);

// What the repair left open, because it cannot walk audio and some kinds of stream: closed where
// entries confirm pictures, or their space would be given away; a row that holds nothing goes.
bool closeRemainingRows(RecoveryReport* report);

}  // namespace tarn
