#pragma once

#include <cstddef>
#include <cstdint>

// A range of one chunk to be read. A size of 0 means that there is no event; opening it is refused.
struct CHUNK_EVENT {
  uint16_t chunkID;      // chunk number
  int8_t partition;      // partition number, see fat/ChunkFiles.h
  uint32_t startOffset;  // bytes from the chunk's first byte
  uint32_t size;         // bytes; the range wraps at the chunk's end
};

// Where the oldest data of a chunk's areas begins and where their free space begins, as callers
// and manager answers carry it (16 bytes on the wire, little-endian). Endless chunks have one area
// only and use the first pair. Use equal to free means empty.
struct CHUNK_USAGE {
  uint32_t useAddr;  // picture area, or the one area of an endless chunk
  uint32_t freeAddr;
  uint32_t streamUseAddr;  // stream area
  uint32_t streamFreeAddr;
};
static_assert(sizeof(CHUNK_USAGE) == 16);
static_assert(offsetof(CHUNK_USAGE, streamFreeAddr) == 12);
