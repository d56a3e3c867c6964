#pragma once

#include <cstdint>

// 32-bit arithmetic that wraps as on the target, by intent. Clang's unsigned-overflow check is
// switched off here and only here, so it reports nothing but accidents elsewhere.
#if defined(__clang__)
#define TARN_WRAPS __attribute__((no_sanitize("unsigned-integer-overflow")))
#else
#define TARN_WRAPS
#endif

namespace tarn {

TARN_WRAPS inline uint32_t wrapAdd32(uint32_t a, uint32_t b) { return a + b; }
TARN_WRAPS inline uint32_t wrapSub32(uint32_t a, uint32_t b) { return a - b; }
TARN_WRAPS inline uint32_t wrapMul32(uint32_t a, uint32_t b) { return a * b; }

// The value that a 32-bit machine keeps of a wider argument.
inline uint32_t low32(unsigned long value) { return static_cast<uint32_t>(value); }

// The same 32 bits read as a signed number (well defined on every compiler we build with).
inline int32_t asSigned32(uint32_t value) { return static_cast<int32_t>(value); }

// Address `bytes` behind `address` in a ring of `ringSize` bytes; an address that reaches the
// ring's end is stored as 0. Needs address < ringSize and bytes <= ringSize.
inline uint32_t ringAdvance(uint32_t address, uint32_t bytes, uint32_t ringSize) {
  return ringSize - address <= bytes ? bytes - (ringSize - address) : address + bytes;
}

// Free bytes of a ring: use is the oldest byte kept, free the next byte to write. Equal addresses
// mean empty, so a ring is never reported completely full.
inline uint32_t ringFree(uint32_t use, uint32_t free, uint32_t ringSize) {
  if (use == free) return ringSize;
  return use < free ? wrapAdd32(wrapSub32(ringSize, free), use) : use - free;
}

}  // namespace tarn
