#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/Endian.h"

namespace tarn_fuzz {

// What an input is taken from, piece by piece; behind its end there are zeros.
struct InputPieces {
  const uint8_t* data;
  size_t size;

  std::vector<uint8_t> bytes(size_t count) {
    const size_t there = std::min(count, size);
    std::vector<uint8_t> out(data, data + there);
    out.resize(count);
    data += there;
    size -= there;
    return out;
  }
  uint8_t byte() { return bytes(1)[0]; }
  uint32_t word() { return tarn::getLe32(bytes(4).data()); }
  int64_t time() { return static_cast<int64_t>(tarn::getLe64(bytes(8).data())); }
};

}  // namespace tarn_fuzz
