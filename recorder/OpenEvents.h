#pragma once

#include "recorder/RecoveryReport.h"

namespace tarn {

// Ends every event that a power loss left open: at the end of the newest recording, as the library
// does with the newest event; one that began later, or that no recording is left to show, is
// deleted. Several can be open at once, and one that stayed open would never leave the lists. False
// when the database or the journal does not go along. Not part of the interface.
bool endOpenEvents(RecoveryReport* report);

}  // namespace tarn
