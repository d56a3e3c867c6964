#pragma once

#include <cstddef>
#include <cstdint>

namespace tarn {

// CRC-32 of what the recorder itself adds to a card: polynomial 0x04C11DB7, least significant bit
// first, initial value and final XOR all ones. The text "123456789" gives 0xCBF43926. `crc`
// continues an earlier result, so that data may come in pieces.
uint32_t crc32(const void* data, size_t length, uint32_t crc = 0);

}  // namespace tarn
