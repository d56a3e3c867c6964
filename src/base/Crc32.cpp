#include "base/Crc32.h"

#include <array>

namespace tarn {
namespace {

constexpr uint32_t kPolynomial = 0xEDB88320;  // 0x04C11DB7, bits in turned order

constexpr std::array<uint32_t, 256> makeTable() {
  std::array<uint32_t, 256> table{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? kPolynomial : 0);
    table[i] = value;
  }
  return table;
}

constexpr std::array<uint32_t, 256> kTable = makeTable();

}  // namespace

uint32_t crc32(const void* data, size_t length, uint32_t crc) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  crc = ~crc;
  for (size_t i = 0; i < length; ++i) crc = kTable[(crc ^ bytes[i]) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

}  // namespace tarn
