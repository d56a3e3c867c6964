#include "base/Crc32.h"

#include <array>

#include "base/Endian.h"

namespace tarn {
namespace {

constexpr uint32_t kPolynomial = 0xEDB88320;  // 0x04C11DB7, bits in turned order
constexpr size_t kSlices = 16;

using SliceTable = std::array<uint32_t, 256>;

// Table k gives the CRC of one byte followed by k zero bytes: sixteen bytes are folded in one step,
// whose look-ups do not wait for each other. Start-up feels it, on full journals and on the
// database's image.
constexpr std::array<SliceTable, kSlices> makeTables() {
  std::array<SliceTable, kSlices> tables{};
  for (uint32_t i = 0; i < 256; ++i) {
    uint32_t value = i;
    for (int bit = 0; bit < 8; ++bit) value = (value >> 1) ^ ((value & 1) != 0 ? kPolynomial : 0);
    tables[0][i] = value;
  }
  for (size_t k = 1; k < kSlices; ++k) {
    for (uint32_t i = 0; i < 256; ++i) {
      const uint32_t before = tables[k - 1][i];
      tables[k][i] = (before >> 8) ^ tables[0][before & 0xFF];
    }
  }
  return tables;
}

constexpr std::array<SliceTable, kSlices> kTables = makeTables();

// Four bytes of data, the first one lowest, with `behind` bytes of the step following them.
uint32_t foldWord(uint32_t word, size_t behind) {
  return kTables[behind + 3][word & 0xFF] ^ kTables[behind + 2][(word >> 8) & 0xFF] ^
         kTables[behind + 1][(word >> 16) & 0xFF] ^ kTables[behind][word >> 24];
}

uint32_t foldSixteen(const uint8_t* bytes, uint32_t crc) {
  return foldWord(getLe32(bytes) ^ crc, 12) ^ foldWord(getLe32(bytes + 4), 8) ^
         foldWord(getLe32(bytes + 8), 4) ^ foldWord(getLe32(bytes + 12), 0);
}

}  // namespace

uint32_t crc32(const void* data, size_t length, uint32_t crc) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  crc = ~crc;
  for (; length >= kSlices; length -= kSlices, bytes += kSlices) crc = foldSixteen(bytes, crc);
  for (; length >= 4; length -= 4, bytes += 4) crc = foldWord(getLe32(bytes) ^ crc, 0);
  for (; length > 0; --length, ++bytes) crc = kTables[0][(crc ^ *bytes) & 0xFF] ^ (crc >> 8);
  return ~crc;
}

}  // namespace tarn
