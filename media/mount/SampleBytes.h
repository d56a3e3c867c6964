#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/Export.h"

namespace tarn {

// Makes of a picture's byte stream (Annex B) the sample of a movie: each unit behind its length
// instead of a start code, and behind them a unit of filler, which decoders pass over, so that it
// has `size` bytes whatever the start codes were. False when it does not fit: *out is left with
// anything then.
TARN_API bool makeSample(const std::vector<uint8_t>& annexB, size_t size,
                         std::vector<uint8_t>* out);

}  // namespace tarn
