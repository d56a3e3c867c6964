#pragma once

#include <functional>
#include <string>

#include "base/Export.h"

namespace tarn {

// Gives every line of the system log on the recorder's card, without its line feed, from the oldest
// chunk to the one that is being written; asks the management server where they end. False when
// there is no server, or a chunk cannot be read: lines may have been given until then. `take` may
// throw what memory that ran out throws, and so does this then. One thread of a process at a time.
TARN_API bool readLogLines(const std::function<void(const std::string& line)>& take);

}  // namespace tarn
