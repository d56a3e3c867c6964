#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "base/UniqueFd.h"
#include "media/MediaInput.h"

namespace tarn {

// Bytes of a descriptor, which may be a pipe that nothing comes from for long: the caller is asked
// meanwhile whether to stop. Bytes can be looked at before they are read. Not part of the
// interface. Used by one thread.
class InputBytes {
 public:
  static constexpr int kForever = -1;

  InputBytes(UniqueFd fd, StopAsked stopAsked)
      : fd_(std::move(fd)), stopAsked_(std::move(stopAsked)) {}

  // Up to `size` bytes; 0 at the end; -1 with errno: EINTR when asked to stop, ETIMEDOUT when there
  // is a patience and nothing came for so long.
  ssize_t read(uint8_t* out, size_t size, int patienceMs = kForever);
  // Waits until `count` bytes can be read or the end is reached, and gives those that are there
  // without taking them.
  const std::vector<uint8_t>& ahead(size_t count);
  // False of a regular file: its bytes do not come when pictures are taken.
  bool isLive() const;

 private:
  ssize_t readNew(uint8_t* out, size_t size, int patienceMs);

  UniqueFd fd_;
  StopAsked stopAsked_;
  std::vector<uint8_t> ahead_;
};

}  // namespace tarn
