#include "base/Crc16.h"

#include <array>

#include "base/Crc16Fold.h"
#include "base/Endian.h"

namespace tarn {
namespace {

constexpr size_t kSlices = 16;
static_assert(kSlices == kCrc16FoldRest);

using SliceTable = std::array<uint16_t, 256>;

constexpr uint16_t shiftByte(uint16_t crc) {
  for (int bit = 0; bit < 8; ++bit) {
    const bool carry = (crc & 0x8000u) != 0;
    crc = static_cast<uint16_t>(static_cast<unsigned>(crc) << 1);
    if (carry) crc = static_cast<uint16_t>(crc ^ kCrc16Polynomial);
  }
  return crc;
}

// Table k gives the CRC of one byte followed by k zero bytes, so many bytes can be folded in one
// step, whose table look-ups do not wait for each other as those of single bytes do. Start-up feels
// it on a full journal.
constexpr std::array<SliceTable, kSlices> makeTables() {
  std::array<SliceTable, kSlices> tables{};
  for (unsigned value = 0; value < 256; ++value) {
    uint16_t crc = shiftByte(static_cast<uint16_t>(value << 8));
    tables[0][value] = crc;
    for (size_t k = 1; k < kSlices; ++k) {
      crc = shiftByte(crc);
      tables[k][value] = crc;
    }
  }
  return tables;
}

constexpr std::array<SliceTable, kSlices> kTables = makeTables();

// Four bytes of data, the first one lowest, with `behind` bytes of the step following them.
unsigned foldWord(uint32_t word, size_t behind) {
  return unsigned{kTables[behind + 3][word & 0xFF]} ^ kTables[behind + 2][(word >> 8) & 0xFF] ^
         kTables[behind + 1][(word >> 16) & 0xFF] ^ kTables[behind][word >> 24];
}

// The checksum so far goes over the first two bytes of a step.
uint32_t firstWord(const uint8_t* bytes, uint16_t crc) {
  return getLe32(bytes) ^ (uint32_t{crc} >> 8) ^ ((uint32_t{crc} & 0xFF) << 8);
}

uint16_t foldEight(const uint8_t* bytes, uint16_t crc) {
  return static_cast<uint16_t>(foldWord(firstWord(bytes, crc), 4) ^
                               foldWord(getLe32(bytes + 4), 0));
}

uint16_t foldSixteen(const uint8_t* bytes, uint16_t crc) {
  return static_cast<uint16_t>(foldWord(firstWord(bytes, crc), 12) ^
                               foldWord(getLe32(bytes + 4), 8) ^ foldWord(getLe32(bytes + 8), 4) ^
                               foldWord(getLe32(bytes + 12), 0));
}

// Returns how many bytes *crc has gone over.
size_t foldFront(const uint8_t* bytes, size_t length, uint16_t* crc) {
  static const Crc16Fold kFold = bestCrc16Fold();
  if (kFold == nullptr) return 0;
  uint8_t rest[kCrc16FoldRest];
  const size_t folded = kFold(bytes, length, *crc, rest);
  *crc = foldSixteen(rest, 0);
  return folded;
}

}  // namespace

uint16_t crc16(const void* data, size_t length, uint16_t crc) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  if (length >= kCrc16FoldLeast) {
    const size_t folded = foldFront(bytes, length, &crc);
    bytes += folded;
    length -= folded;
  }
  for (; length >= kSlices; length -= kSlices, bytes += kSlices) crc = foldSixteen(bytes, crc);
  if (length >= 8) {
    crc = foldEight(bytes, crc);
    length -= 8;
    bytes += 8;
  }
  if (length >= 4) {
    crc = static_cast<uint16_t>(foldWord(firstWord(bytes, crc), 0));
    length -= 4;
    bytes += 4;
  }
  for (; length > 0; --length, ++bytes) {
    crc = static_cast<uint16_t>(kTables[0][((crc >> 8) ^ *bytes) & 0xFFu] ^
                                (static_cast<unsigned>(crc) << 8));
  }
  return crc;
}

}  // namespace tarn
