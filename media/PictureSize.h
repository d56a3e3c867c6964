#pragma once

#include <cstdint>

namespace tarn {

// In pixels, as pictures are shown; 0x0 where it is not known.
struct PictureSize {
  uint32_t width = 0;
  uint32_t height = 0;
};

}  // namespace tarn
