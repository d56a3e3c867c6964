#pragma once

#include <cstdint>

// Little-endian numbers in byte buffers: the only way that bytes of the card or of a message
// become numbers and back. Buffers need no alignment.
namespace tarn {

inline void putLe16(void* out, uint16_t value) {
  auto* bytes = static_cast<uint8_t*>(out);
  bytes[0] = static_cast<uint8_t>(value);
  bytes[1] = static_cast<uint8_t>(value >> 8);
}

inline void putLe32(void* out, uint32_t value) {
  auto* bytes = static_cast<uint8_t*>(out);
  bytes[0] = static_cast<uint8_t>(value);
  bytes[1] = static_cast<uint8_t>(value >> 8);
  bytes[2] = static_cast<uint8_t>(value >> 16);
  bytes[3] = static_cast<uint8_t>(value >> 24);
}

inline void putLe64(void* out, uint64_t value) {
  putLe32(out, static_cast<uint32_t>(value));
  putLe32(static_cast<uint8_t*>(out) + 4, static_cast<uint32_t>(value >> 32));
}

inline uint16_t getLe16(const void* in) {
  const auto* bytes = static_cast<const uint8_t*>(in);
  return static_cast<uint16_t>(bytes[0] | (uint32_t{bytes[1]} << 8));
}

inline uint32_t getLe32(const void* in) {
  const auto* bytes = static_cast<const uint8_t*>(in);
  return uint32_t{bytes[0]} | (uint32_t{bytes[1]} << 8) | (uint32_t{bytes[2]} << 16) |
         (uint32_t{bytes[3]} << 24);
}

inline uint64_t getLe64(const void* in) {
  return uint64_t{getLe32(in)} | (uint64_t{getLe32(static_cast<const uint8_t*>(in) + 4)} << 32);
}

}  // namespace tarn
