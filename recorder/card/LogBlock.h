#pragma once

#include <cstdint>

namespace tarn {

// Chunks of the system log are looked through in blocks of this size, in bytes, after a power loss;
// no line straddles two.
inline constexpr uint32_t kLogBlockBytes = 4096;
// A chunk must hold a few of them; smaller ones are not written to, and not laid out.
inline constexpr uint32_t kLogLeastChunkBytes = 2 * kLogBlockBytes;

}  // namespace tarn
