#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"

namespace tarn {

// Which channel each stream chunk belongs to, as the recorder's card tells: a row's channel is its
// chunk's. Needs no server; a chunk is saved as its channel's before the first row in it begins.
// Any number of threads once read.
class TARN_API ChunkChannels {
 public:
  static constexpr int kUnknown = -1;

  // 0, or -1 with the reason in *error; then every channel is unknown. A card whose management data
  // is bad in both copies tells of no chunk, and is no failure.
  int read(std::string* error);
  // 0 to 127, or kUnknown for a chunk that the card does not have or that belongs to none. Of a
  // guarded chunk the channel that it is kept for.
  int of(uint32_t chunk) const;

 private:
  std::vector<int8_t> channels_;
};

}  // namespace tarn
