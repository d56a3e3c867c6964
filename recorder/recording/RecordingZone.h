#pragma once

#include <cstdint>
#include <optional>

#include "base/Export.h"
#include "db/DbRecords.h"

namespace tarn {

// Seconds that local time was ahead of UTC where a recording begins, as its own pictures say: each
// has the recorder's local time in it. Nothing where none of the first ones tells it, and of sound,
// which has no such time. Reads up to some hundred bytes of the card a picture. Throws
// std::bad_alloc. Any thread.
TARN_API std::optional<int32_t> zoneOfRecording(const DB_STREAM& row);

}  // namespace tarn
