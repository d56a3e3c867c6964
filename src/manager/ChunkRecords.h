#pragma once

#include <cstddef>
#include <cstdint>

#include "chunk/ChunkEvent.h"  // CHUNK_EVENT, CHUNK_USAGE

// Management record of one chunk, on the medium exactly as in memory: little-endian, 24 bytes, no
// padding. The stream pair comes first here and the picture pair first in CHUNK_USAGE; both orders
// are kept on purpose, readers of either rely on them.
struct CHUNK_MANAGE {
  uint8_t reserved[6];  // carried unchanged and covered by the CRC; zero in new records
  int8_t chType;        // stream chunk: owning channel, -1 = not in use; syslog chunk: active flag
  int8_t recType;       // record type of the data in the chunk
  uint32_t streamUseOffset;  // bytes from the start of the stream area; endless chunks use this pair
  uint32_t streamFreeOffset;
  uint32_t pictureUseOffset;  // bytes from the start of the picture area
  uint32_t pictureFreeOffset;
};
static_assert(sizeof(CHUNK_MANAGE) == 24);
static_assert(offsetof(CHUNK_MANAGE, chType) == 6);
static_assert(offsetof(CHUNK_MANAGE, streamUseOffset) == 8);
static_assert(offsetof(CHUNK_MANAGE, pictureFreeOffset) == 20);
