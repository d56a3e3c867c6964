#pragma once

#include <cstddef>
#include <cstdint>

#include "base/Crc16.h"

// The four bytes behind a mirrored record: 0, 0, and the CRC-16 of all before them, high byte
// first. Only the two bytes of the checksum count.
namespace tarn {

inline constexpr uint32_t kMirrorTrailerSize = 4;
inline constexpr uint32_t kMirrorTrailerCrcOff = 2;  // in the trailer

// Writes the trailer of the `length` bytes at `record` behind them.
inline void writeMirrorTrailer(void* record, size_t length) {
  const uint16_t crc = crc16(record, length);
  auto* trailer = static_cast<uint8_t*>(record) + length;
  trailer[0] = 0;
  trailer[1] = 0;
  trailer[kMirrorTrailerCrcOff] = static_cast<uint8_t>(crc >> 8);
  trailer[kMirrorTrailerCrcOff + 1] = static_cast<uint8_t>(crc & 0xFF);
}

// True when the trailer behind the `length` bytes is theirs.
inline bool mirrorTrailerFits(const void* record, size_t length) {
  const auto* crc = static_cast<const uint8_t*>(record) + length + kMirrorTrailerCrcOff;
  return crc16(record, length) == ((uint32_t{crc[0]} << 8) | crc[1]);
}

}  // namespace tarn
