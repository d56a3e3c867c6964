#include "recorder/session/FlushPlace.h"

#include <algorithm>

namespace tarn {
namespace {

constexpr uint32_t kBoundary = 64 * 1024;

}  // namespace

// An early flush costs two (data, entries) for less than an interval, a late one three for a whole
// one: below two thirds nothing would be gained. Pictures differ in size, so the last but half a
// boundary counts as the last.
bool FlushPlace::isDue(int64_t unsafeUs, uint32_t unsafeBytes) const {
  if (intervalUs_ == 0 || unsafeUs <= 0 || unsafeBytes == 0) return false;
  const int64_t apart = unsafeUs * int64_t{kBoundary} / int64_t{unsafeBytes};
  return unsafeUs >= std::max(intervalUs_ * 2 / 3, intervalUs_ - apart * 3 / 2);
}

uint32_t FlushPlace::distance(uint32_t chunk, uint32_t chunkSize, uint32_t address) const {
  const uint64_t byte = streamByte_ + uint64_t{chunk} * chunkSize + address;
  return static_cast<uint32_t>((kBoundary - byte % kBoundary) % kBoundary);
}

}  // namespace tarn
