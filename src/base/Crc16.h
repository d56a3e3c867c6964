#pragma once

#include <cstddef>
#include <cstdint>

namespace tarn {

// CRC-16 of management files and journal records: polynomial 0x1021, most significant bit first,
// initial value 0, no reflection, no final XOR. The text "123456789" gives 0x31C3.
// `crc` continues an earlier result, so that data may come in pieces.
uint16_t crc16(const void* data, size_t length, uint16_t crc = 0);

}  // namespace tarn
