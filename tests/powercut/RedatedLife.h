#pragma once

#include "db/DbRecords.h"
#include "powercut/Workload.h"

namespace powercut {

// Seconds by which a clock is behind until it is known.
inline constexpr uint32_t kClockBehind = 1000;

// The clock becomes known in the midst of a recording: what was recorded before, an event that has
// ended with the copies that are kept of it, and one that runs on are re-dated.
void clockBecomesKnown(Recorded* out);

// The same, and then that is taken back.
void clockWasWrong(Recorded* out);

// Seconds that a row's pictures are later than their entries.
uint32_t redatedBy(const DB_STREAM& row);

// Wherever power went, a re-dating that has begun was ended by the recovery, and so was one that is
// taken back: rows of before are all re-dated or none, and no row is in the midst of either.
std::string checkRedated(const Recorded& life, const std::vector<DB_STREAM>& rows,
                         const std::vector<DB_EVENT>& events);

}  // namespace powercut
