#pragma once

#include <cstdint>

#include "base/Export.h"
#include "chunk/CTARNChunkBase.h"

// A ring that never refuses a write for want of space: it overwrites its oldest data. It can take
// back its last write. Its free and used sizes do not follow its writes.
class TARN_API CTARNEndlessChunk : public CTARNChunkBase {
 public:
  // fileType: the family, see fat/ChunkFiles.h.
  explicit CTARNEndlessChunk(signed char fileType);

  char* makeFatFileName() override;
  ~CTARNEndlessChunk() override;
  // Writes size bytes (at most the chunk's size) at the free address and moves it. Returns size.
  // Fails while the free address is not known.
  long write(void* buf, long size) override;

  // Moves the free address back by the last `size` bytes written, across the ring's start where
  // needed, and seeks there. 0, or -1; the address has moved also when only the seek failed.
  int writeRollback(long size);
  // As the base's, but leaves free and used sizes as they are.
  void setFreeAddr(unsigned long address);
  void initFreeAddr() { setFreeAddr(0); }

 protected:
  int8_t fileType;
};
