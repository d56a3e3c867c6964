#pragma once

#include "powercut/Workload.h"

// Lives in which programs die, refuse or do what they should not, so that what guards against that
// has something to do; and short ones for orders that hold within a few writes.
namespace powercut {

// A menu changes rows several times in a row.
void changedRows(Recorded* out);
// The journal refuses to delete a recording that has to make room. Its session ends, another one
// goes on.
void refusedDelete(Recorded* out);
// A replay loses a row and says nothing.
void lostRow(Recorded* out);
// Rows that nobody closes: one that newer ones of its chunk have overtaken, and one of audio.
void leftOvers(Recorded* out);
// The database is saved, but what was stopped goes on without a start.
void savedTwice(Recorded* out);
// A save that never ends, on a card whose journals came round since the one before.
void staleImage(Recorded* out);

}  // namespace powercut
