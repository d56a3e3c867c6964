#pragma once

#include <cstddef>
#include <cstdint>

namespace tarn {

// How far apart the orders of decoding and presentation of an H.264 stream can be, as its sequence
// parameter set says. Encoders that do not reorder say 0 or choose an order type that means it.
struct ReorderDepth {
  static constexpr uint32_t kMost = 16;  // no decoder has to hold more pictures

  // Pictures that at most come before one in the stream and behind it on the screen.
  uint32_t most = kMost;
  bool told = false;  // by the stream; otherwise it is any stream's
  // Pictures a second, 0 where the stream does not tell. It counts fields, two a picture.
  double pictureRate = 0;
};

// Of the unit's bytes behind the start code. What cannot be read tells nothing.
ReorderDepth reorderDepthOf(const uint8_t* sps, size_t size);

}  // namespace tarn
