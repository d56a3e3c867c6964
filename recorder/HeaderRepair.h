#pragma once

#include "recorder/RecoveryReport.h"

namespace tarn {

// Tests the stream headers that the management data is rebuilt from: those of the oldest and the
// newest row of each chunk, against their entries. One that does not fit is rewritten from the
// entries; a row of which no entry is left is deleted. What the device does not give stays as it
// is, with a problem in the report. False when the database or the journal does not go along. Not
// part of the interface.
bool repairHeaders(RecoveryReport* report);

}  // namespace tarn
