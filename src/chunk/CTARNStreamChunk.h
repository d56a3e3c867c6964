#pragma once

#include "base/Export.h"
#include "chunk/CTARNChunkBase.h"

// Stream chunk (coded video and audio) or picture chunk (the records that index it): the two areas
// of one chunk number, with one pair of addresses each. The manager, where there is one, must be a
// CTARNStreamManager.
class TARN_API CTARNStreamChunk : public CTARNChunkBase {
 public:
  // kind: 0 picture chunk, 1 stream chunk.
  explicit CTARNStreamChunk(unsigned char kind);

  // As the base's, for this kind's pair of addresses.
  signed char setUsageToManager() override;
  signed char setFreeToManager() override;
  signed char getUsageFromManager() override;
  char* makeFatFileName() override;
  ~CTARNStreamChunk() override;

  // Kept on purpose: always 0, whatever was written; callers that ask count on their own.
  unsigned long writtenSize() { return 0; }
  // Reads size bytes at an absolute position: what read() returns, or -1.
  long seekRead(unsigned long offset, void* buf, long size);
  // Picture chunks only: bytes of stream data that the picture record at offset covers. The
  // position is kept. All ones on failure.
  unsigned long streamSize(unsigned long offset);
};
