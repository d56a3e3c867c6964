#pragma once

#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"

namespace tarn {

// Of the sound that a channel has in the time of a recording of pictures what is the recording's
// own, in the order given. Recordings of one channel lie over each other in time where one was
// recorded faster than it is played, or behind a clock that stepped back: then the sound that began
// closest to the pictures is theirs, and what lies over that belongs to another recording; so does
// what only reaches into them from before and has another codec. May throw for lack of memory.
TARN_API std::vector<DB_STREAM> soundOfRecording(const DB_STREAM& pictures,
                                                 const std::vector<DB_STREAM>& beside);

}  // namespace tarn
