#pragma once

#include <cstdint>

// What writer, readers and repair of the system log must agree on.
namespace tarn {

// The log moves through so many syslog chunks, from number 0 on, whatever more a card has. Chunk
// 0's management record tells which one is being written.
inline constexpr int kLogChunks = 5;

// A chunk is looked through in blocks of this size, in bytes, after a power loss; no line straddles
// two.
inline constexpr uint32_t kLogBlockBytes = 4096;
// A chunk must hold a few of them; smaller ones are not written to, and not laid out.
inline constexpr uint32_t kLogLeastChunkBytes = 2 * kLogBlockBytes;

}  // namespace tarn
