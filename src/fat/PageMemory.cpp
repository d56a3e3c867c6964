#include "fat/PageMemory.h"

#include <cstdlib>

namespace tarn {
namespace {

constexpr uintptr_t kPage = 4096;

}  // namespace

bool PageMemory::allocate(size_t bytes) {
  release();
  memory_ = malloc(bytes + kPage);
  if (memory_ == nullptr) return false;
  const auto address = reinterpret_cast<uintptr_t>(memory_);
  data_ = static_cast<uint8_t*>(memory_) + (kPage - address % kPage) % kPage;
  return true;
}

void PageMemory::release() {
  free(memory_);
  memory_ = nullptr;
  data_ = nullptr;
}

}  // namespace tarn
