#pragma once

#include <cstdint>

#include "base/Export.h"
#include "manager/CTARNManagerBase.h"

namespace tarn {
struct DeleteRange;
}

// Client-side manager of the stream chunks. Each has two ring areas, selected by `type` below: 0
// the picture area, 1 the stream area. The operations without a selector are the base class's.
// Threads, results and closing as in the base class.
class TARN_API CTARNStreamManager : public CTARNManagerBase {
 public:
  explicit CTARNStreamManager(signed char partition);
  ~CTARNStreamManager() override;

  using CTARNManagerBase::firstAvailableChunk;
  using CTARNManagerBase::getUsage;
  using CTARNManagerBase::setFreeOffset;
  using CTARNManagerBase::setUseOffset;

  // The base's, then the size of the picture area.
  int openManageData();
  // Use and free offset of one area, in the first two fields of *usage. -2 for any other type,
  // after the request.
  int getUsage(short chunk, CHUNK_USAGE* usage, unsigned char type);
  int setUseOffset(short chunk, unsigned long offset, unsigned char type);
  int setFreeOffset(short chunk, unsigned long offset, unsigned char type);
  // Channel and record type of a chunk; channel -1 marks one that is not in use.
  signed char getChType(short chunk, signed char* ch, signed char* recType);
  signed char setChType(short chunk, signed char ch, signed char recType);
  // Chunk for channel `ch` with room for needSize bytes of stream data, or -1.
  short firstAvailableChunk(unsigned long needSize, signed char ch, signed char type);
  // Free bytes of the stream area; 0 on failure.
  unsigned long freeSize(short chunk);
  // Area sizes as of openManageData.
  unsigned long streamChunkSize();
  unsigned long pictureChunkSize();
  // Frees the oldest recording of a chunk: `size` bytes of its picture area from `start` on, and
  // the stream data that they cover, found by the headers there. An area that becomes empty starts
  // at 0 again. Delete the recording's rows before, and have the data saved (saveManageData) before
  // the space is written again: a power loss in between must never leave a row that points at
  // overwritten data. Returns the bytes of stream data freed; -1 for a failed request (an area
  // already done stays done), -3 when the headers cannot be read (nothing is changed).
  long deleteData(short chunk, unsigned long start, unsigned long size);

 private:
  // Opens the entry at `start` and takes from its headers the stream range that it covers.
  int readEntry(short chunk, uint32_t start, uint32_t size, uint32_t* streamStart,
                uint32_t* streamLength);
  // Moves one area's use offset to the end of the range.
  int releaseRange(short chunk, unsigned char area, const tarn::DeleteRange& range);
};
