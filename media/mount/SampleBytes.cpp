#include "media/mount/SampleBytes.h"

#include <cstring>

#include "recorder/recording/AnnexB.h"

namespace tarn {
namespace {

constexpr size_t kLength = 4;
constexpr uint8_t kFillerUnit = 12;
constexpr uint8_t kFiller = 0xFF;
constexpr uint8_t kStopBits = 0x80;

void putLength(size_t length, uint8_t* out) {
  for (size_t i = 0; i < kLength; ++i)
    out[i] = static_cast<uint8_t>(length >> 8 * (kLength - 1 - i));
}

}  // namespace

bool makeSample(const std::vector<uint8_t>& annexB, size_t size, std::vector<uint8_t>* out) {
  out->resize(size);
  size_t at = 0;
  NalScanner scanner(annexB.data(), annexB.size());
  for (NalUnit unit; scanner.next(&unit);) {
    if (unit.size == 0) continue;
    if (size - at < kLength || size - at - kLength < unit.size) return false;
    putLength(unit.size, out->data() + at);
    memcpy(out->data() + at + kLength, unit.data, unit.size);
    at += kLength + unit.size;
  }
  const size_t left = size - at;
  if (left == 0) return true;
  if (left < kLength + 2) return false;
  putLength(left - kLength, out->data() + at);
  (*out)[at + kLength] = kFillerUnit;
  memset(out->data() + at + kLength + 1, kFiller, left - kLength - 2);
  out->back() = kStopBits;
  return true;
}

}  // namespace tarn
