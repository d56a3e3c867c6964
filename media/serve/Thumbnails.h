#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "base/Export.h"

namespace tarn {

// Key pictures as small JPEGs, made by the decoder of libavcodec. The latest are kept in memory,
// and nowhere else. Any number of threads.
class TARN_API Thumbnails {
 public:
  // One that was made before; null when it is not there any more.
  std::shared_ptr<const std::string> find(uint32_t streamID, uint32_t index, uint32_t width);
  // Of a key picture with its parameter sets, no wider than `width`. Null when it cannot be
  // decoded.
  std::shared_ptr<const std::string> make(uint32_t streamID, uint32_t index, uint32_t width,
                                          const std::vector<uint8_t>& annexB);

 private:
  struct Kept {
    uint32_t streamID;
    uint32_t index;
    uint32_t width;
    std::shared_ptr<const std::string> jpeg;
  };
  static constexpr size_t kMostBytes = size_t{8} * 1024 * 1024;

  std::mutex mutex_;
  std::list<Kept> kept_;  // guarded by mutex_, as below; the latest first
  size_t bytes_ = 0;
  std::mutex decoding_;  // one at a time: a page asks for many, and recording goes first
};

}  // namespace tarn
