#pragma once

#include <cstddef>
#include <cstdint>

namespace tarn {

// Without its highest power, which is 16.
inline constexpr uint16_t kCrc16Polynomial = 0x1021;
inline constexpr size_t kCrc16FoldRest = 16;
// Shorter data is done sooner with tables.
inline constexpr size_t kCrc16FoldLeast = 512;

// Where the processor multiplies polynomials (x86-64 ones of a desk do, the recorder's do not):
// reduces the front of `bytes` to kCrc16FoldRest bytes in `rest`, whose CRC-16 begun with 0 is that
// of the front begun with `crc`. Returns the length of the front. `length` is at least
// kCrc16FoldLeast.
using Crc16Fold = size_t (*)(const uint8_t* bytes, size_t length, uint16_t crc, uint8_t* rest);

// The ways to do that, the fastest one first. Null where the processor has not got it.
inline constexpr int kCrc16FoldWays = 2;
Crc16Fold crc16Fold(int way);
// The fastest one that the processor has, or null.
Crc16Fold bestCrc16Fold();

}  // namespace tarn
