#pragma once

#include <cstdint>

#include "fat/FatFormat.h"

namespace tarn {

// Where the chunks of one family lie, with the two sizes that every owner asks for.
struct ChunkFamily {
  InfoRecord own;
  uint32_t streamChunkSize = 0;   // bytes
  uint32_t pictureChunkSize = 0;  // bytes
};

// What stopped readChunkFamily(), in the order in which it looks.
enum class VolumeFault {
  kNone,
  kBootSector,     // could not be read
  kNotFat32,       // a 16-bit FAT size is given
  kDirectorySeek,  // the device has no place where the root directory should begin
  kInfoSeek,       // nor where the info file should
  kInfoRead,       // the info file is short, or its length word is out of range
  kNoInfoFile,     // no TAIF0000 among the entries searched
};

// Reads the volume on a device from its boot sector to the info file's record of `fileType` (an
// index of the FileType table), with at most four reads; moves the device's position. *family is
// filled on kNone only. The chunk count is not judged.
VolumeFault readChunkFamily(int fd, int fileType, ChunkFamily* family);

}  // namespace tarn
