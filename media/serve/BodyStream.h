#pragma once

#include <sys/types.h>

#include <cstddef>

namespace tarn {

// The body of an answer that is made while it is sent. Used by one thread.
class BodyStream {
 public:
  virtual ~BodyStream() = default;
  // Up to `room` bytes into `out`; may wait, but not longer than a second. -1 at the end, -2 when
  // it cannot go on (the connection is broken off, so that nobody takes a part for the whole). 0:
  // nothing yet, ask again.
  virtual ssize_t read(char* out, size_t room) = 0;
};

}  // namespace tarn
