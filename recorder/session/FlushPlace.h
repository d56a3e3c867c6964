#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// Where in its data a recording is best made safe. The write buffer of a stream chunk goes on from
// a 64 KiB boundary of the device: behind a flush that ends anywhere else it sends what leads to
// the next boundary by itself, with a flush of its own. A flush that ends on a boundary spares that
// one, each second. So of the boundaries inside the flush interval the last one is taken, where the
// data are expected to reach one late enough; an interval that passes without one ends as ever.
//
// Used by one thread; holds no lock.
class TARN_API FlushPlace {
 public:
  // `intervalUs`: picture time, 0 for no early flush. `streamByte`: first byte of the first stream
  // chunk on the device.
  void set(int64_t intervalUs, uint64_t streamByte) {
    intervalUs_ = intervalUs;
    streamByte_ = streamByte;
  }
  // Whether the next boundary is one to flush at, `unsafeUs` and `unsafeBytes` behind the last
  // flush.
  bool isDue(int64_t unsafeUs, uint32_t unsafeBytes) const;
  // Bytes from an address in a stream chunk to the boundary, 0 on one. Chunks are counted from 0.
  uint32_t distance(uint32_t chunk, uint32_t chunkSize, uint32_t address) const;

 private:
  int64_t intervalUs_ = 0;
  uint64_t streamByte_ = 0;
};

}  // namespace tarn
