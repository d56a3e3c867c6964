#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "base/Export.h"

class CApiTarnSyslogRead;

namespace tarn {

// The lines of one chunk of the system log, from where the last call ended: the one who takes lines
// out of it, for whoever reads the log once or goes on reading it. Lines never straddle what a call
// sees: the free offset is moved by whole lines. Throws what `take` throws, and std::bad_alloc. One
// thread of a process at a time.
class TARN_API LogChunkLines {
 public:
  // Gets a line without its line feed; false: no more are wanted.
  using Take = std::function<bool(const std::string& line)>;

  void start(int chunk) {
    chunk_ = chunk;
    position_ = 0;
  }
  int chunk() const { return chunk_; }

  // False when the chunk cannot be read; lines may have been given until then. The reader asks the
  // management server, which must be there, as it complains on standard output otherwise.
  bool readNew(CApiTarnSyslogRead* reader, const Take& take);

 private:
  bool readOn(CApiTarnSyslogRead* reader, const Take& take);

  int chunk_ = 0;
  uint32_t position_ = 0;  // bytes that were given
};

}  // namespace tarn
