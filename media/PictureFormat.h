#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "media/PictureSize.h"

namespace tarn {

// What a key picture says in front of its slices about how it is decoded. Each unit once, behind a
// start code. Not part of the interface.
struct ParameterSets {
  std::vector<uint8_t> sequence;  // empty where it has none
  std::vector<uint8_t> picture;
};
TARN_API ParameterSets parameterSetsOf(const std::vector<uint8_t>& annexB);

// Of a key picture with its parameter sets.
TARN_API PictureSize pictureSizeOf(const std::vector<uint8_t>& annexB);

}  // namespace tarn
