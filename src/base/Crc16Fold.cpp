#include "base/Crc16Fold.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace tarn {

#if defined(__x86_64__)
namespace {

// A piece of the data is a polynomial, its first bit the highest power. What stands `distance` bits
// in front of another piece may be replaced by its product with the remainder of x^distance, added
// to that piece: the whole keeps its remainder, which is the CRC. Several pieces are under way at a
// time, because a product takes longer than it takes to begin the next one.
constexpr size_t kPieces = 8;
constexpr size_t kNarrowStep = kPieces * sizeof(__m128i);
constexpr size_t kWideStep = kPieces * sizeof(__m256i);
static_assert(kCrc16FoldLeast >= 2 * kWideStep, "both ways read a whole step first");

constexpr long long powerRest(size_t power) {
  uint16_t rest = 1;
  for (size_t i = 0; i < power; ++i) {
    const bool carry = (rest & 0x8000u) != 0;
    rest = static_cast<uint16_t>(unsigned{rest} << 1);
    if (carry) rest = static_cast<uint16_t>(rest ^ kCrc16Polynomial);
  }
  return rest;
}

// A piece's upper half stands 64 bits further in front than its lower one.
template <size_t kBytes>
__attribute__((target("pclmul,ssse3"))) inline __m128i factors() {
  // By name, or a compiler may compute them in each call: clang does.
  constexpr long long kFirst = powerRest(kBytes * 8 + 64);
  constexpr long long kSecond = powerRest(kBytes * 8);
  return _mm_set_epi64x(kFirst, kSecond);
}

__attribute__((target("pclmul,ssse3"))) inline __m128i firstByteHighest() {
  return _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
}

// The checksum so far goes over the first two bytes, the highest ones of the first piece.
int64_t overFirst(uint16_t crc) { return static_cast<int64_t>(uint64_t{crc} << 48); }

__attribute__((target("pclmul,ssse3"))) inline __m128i load(const uint8_t* bytes) {
  return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes)),
                          firstByteHighest());
}

__attribute__((target("pclmul,ssse3"))) inline __m128i fold(__m128i piece, __m128i by,
                                                            __m128i into) {
  const __m128i upper = _mm_clmulepi64_si128(piece, by, 0x11);
  return _mm_xor_si128(into, _mm_xor_si128(upper, _mm_clmulepi64_si128(piece, by, 0x00)));
}

__attribute__((target("pclmul,ssse3"))) inline void store(__m128i piece, uint8_t* rest) {
  _mm_storeu_si128(reinterpret_cast<__m128i*>(rest), _mm_shuffle_epi8(piece, firstByteHighest()));
}

__attribute__((target("pclmul,ssse3"))) size_t foldNarrow(const uint8_t* bytes, size_t length,
                                                          uint16_t crc, uint8_t* rest) {
  __m128i pieces[kPieces];
  for (size_t i = 0; i < kPieces; ++i) pieces[i] = load(bytes + i * sizeof(__m128i));
  pieces[0] = _mm_xor_si128(pieces[0], _mm_set_epi64x(overFirst(crc), 0));
  size_t done = kNarrowStep;
  const __m128i by = factors<kNarrowStep>();
  for (; length - done >= kNarrowStep; done += kNarrowStep) {
    for (size_t i = 0; i < kPieces; ++i) {
      pieces[i] = fold(pieces[i], by, load(bytes + done + i * sizeof(__m128i)));
    }
  }
  __m128i all = pieces[0];
  for (size_t i = 1; i < kPieces; ++i) all = fold(all, factors<sizeof(__m128i)>(), pieces[i]);
  store(all, rest);
  return done;
}

__attribute__((target("vpclmulqdq,avx2,pclmul"))) inline __m256i loadTwo(const uint8_t* bytes) {
  return _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(bytes)),
                             _mm256_broadcastsi128_si256(firstByteHighest()));
}

// The same, two pieces in a register.
__attribute__((target("vpclmulqdq,avx2,pclmul"))) size_t foldWide(const uint8_t* bytes,
                                                                  size_t length, uint16_t crc,
                                                                  uint8_t* rest) {
  __m256i pieces[kPieces];
  for (size_t i = 0; i < kPieces; ++i) pieces[i] = loadTwo(bytes + i * sizeof(__m256i));
  pieces[0] = _mm256_xor_si256(pieces[0], _mm256_set_epi64x(0, 0, overFirst(crc), 0));
  size_t done = kWideStep;
  const __m256i by = _mm256_broadcastsi128_si256(factors<kWideStep>());
  for (; length - done >= kWideStep; done += kWideStep) {
    for (size_t i = 0; i < kPieces; ++i) {
      const __m256i upper = _mm256_clmulepi64_epi128(pieces[i], by, 0x11);
      const __m256i lower = _mm256_clmulepi64_epi128(pieces[i], by, 0x00);
      pieces[i] = _mm256_xor_si256(loadTwo(bytes + done + i * sizeof(__m256i)),
                                   _mm256_xor_si256(upper, lower));
    }
  }
  __m128i all = _mm_setzero_si128();
  for (const __m256i& two : pieces) {
    all = fold(all, factors<sizeof(__m128i)>(), _mm256_castsi256_si128(two));
    all = fold(all, factors<sizeof(__m128i)>(), _mm256_extracti128_si256(two, 1));
  }
  store(all, rest);
  return done;
}

}  // namespace

Crc16Fold crc16Fold(int way) {
  __builtin_cpu_init();
  const bool narrow = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
  const bool wide = __builtin_cpu_supports("vpclmulqdq") && __builtin_cpu_supports("avx2");
  if (way == 0) return narrow && wide ? foldWide : nullptr;
  return way == 1 && narrow ? foldNarrow : nullptr;
}

#else

Crc16Fold crc16Fold(int) { return nullptr; }

#endif

Crc16Fold bestCrc16Fold() {
  Crc16Fold best = nullptr;
  for (int way = 0; way < kCrc16FoldWays && best == nullptr; ++way) best = crc16Fold(way);
  return best;
}

}  // namespace tarn
