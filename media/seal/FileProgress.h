#pragma once

#include <cstdint>
#include <functional>

namespace tarn {

// Told now and then how far the work on a file is, in bytes of all that are to be read.
using FileProgress = std::function<void(uint64_t done, uint64_t all)>;

}  // namespace tarn
