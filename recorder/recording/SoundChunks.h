#pragma once

#include <cstdint>
#include <set>
#include <string>

#include "base/Export.h"

namespace tarn {

// Stream chunks of a card, by number, that hold sound: what the oldest data in use begins with
// tells, so no database is needed. Chunks whose data the card does not give are not among them; nor
// is any of a card that cannot be opened. Not part of the interface.
TARN_API std::set<uint32_t> soundChunks(const std::string& path);

}  // namespace tarn
