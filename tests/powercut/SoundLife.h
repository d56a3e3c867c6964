#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "powercut/Workload.h"

// Lives with sound beside the pictures of a channel.
namespace powercut {

// Rows of a second, on a card with room.
void soundBesidePictures(Recorded* out);
// Rings of both kinds come round.
void soundRings(Recorded* out);

// Frames of sound that a row must hold, in their order, by number. Empty, or what does not hold;
// *count is how many there are.
std::string checkFrames(const DB_STREAM& row, const std::vector<uint32_t>& expected,
                        uint32_t* count);

}  // namespace powercut
