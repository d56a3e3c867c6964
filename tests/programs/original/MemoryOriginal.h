#pragma once

#include <cstring>
#include <utility>
#include <vector>

#include "programs/tarn/original/CardOriginal.h"

namespace tarn_test {

// Bytes in memory, some of which may be refused.
class MemoryOriginal : public tarn::CardOriginal {
 public:
  explicit MemoryOriginal(std::vector<uint8_t> content) : bytes(std::move(content)) {}

  uint64_t size() const override { return bytes.size(); }
  bool read(uint64_t offset, void* out, size_t length) override {
    ++reads;
    if (offset > bytes.size() || length > bytes.size() - offset) return false;
    if (offset < refusedTo && offset + length > refusedFrom) return false;
    memcpy(out, bytes.data() + offset, length);
    return true;
  }

  std::vector<uint8_t> bytes;
  uint64_t refusedFrom = 0;
  uint64_t refusedTo = 0;
  int reads = 0;
};

}  // namespace tarn_test
