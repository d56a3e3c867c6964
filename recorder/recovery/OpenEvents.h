#pragma once

#include "recorder/recovery/RecoveryReport.h"

namespace tarn {

// Ends every event that a power loss left open, with the recording that ran when it began and what
// was recorded on from there: not with whatever ends last by the clock, which may have been set. An
// event ends with the last picture that is there, but no sooner than a second after its beginning.
// One of which, the seconds before it included, no picture is left is deleted; one whose recording
// the device did not give stays open as it does. False when the database or the journal does not go
// along. Not part of the interface.
bool endOpenEvents(RecoveryReport* report);

}  // namespace tarn
