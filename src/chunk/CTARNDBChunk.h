#pragma once

#include <cstdint>

#include "base/Export.h"
#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"

// The database image chunk: a copy of the whole database file, which itself lives in memory and is
// lost at power-off. The chunk (DBST0000) begins with the image's size, a signed 32-bit
// little-endian number of bytes (0 or -1: no image); the file follows, byte for byte.
//
// Every operation opens the chunk, works and closes it; nothing else is kept in between. Failures
// log one line at LOG_ERR. One thread at a time may use an object.
class TARN_API CTARNDBChunk {
 public:
  CTARNDBChunk();
  CTARNDBChunk(const CTARNDBChunk&) = delete;
  CTARNDBChunk& operator=(const CTARNDBChunk&) = delete;

  // Fills in and returns the chunk's name, "device:DBST0000".
  char* makeFatFileName();
  // Saves the file `path` into the chunk: 0 or -1. A file that is empty, or too large for the
  // chunk, leaves the old image as it was. The size is written last, half a second after the data
  // was flushed. Mark the image empty before (clearDBChunk), or power lost in between leaves the
  // old size with new bytes behind it.
  int copyIn(const char* path);
  // Restores the image into the file `path`: 0 or -1. A chunk without image writes nothing. A file
  // that is there keeps its bytes beyond the image's size, so give a fresh path.
  int copyOut(const char* path);
  // Size of the image in bytes as stored (0 or -1: none), or -2. The argument is not used.
  long getDBSize(const char* path);
  // Marks the image empty with size, which is 0 or -1: 0 or -1, flushed like the size of a save:
  // power lost behind it must not bring the old image back. The data stays.
  int clearDBChunk(long size);

 protected:
  int handle = -1;
  char fatFileName[tarn::kChunkFileNameRoom] = {};
  CFATAccess fat;
  signed char partition = tarn::kRecorderPartition;

 private:
  // Opens the chunk: false when that fails, with nothing logged.
  bool open(int flags);
  void close();
  int32_t save(const char* path);
  bool copyData(int source);
  bool writeSize(int32_t size);
  int restoreTo(int destination, const char* path);
  bool readSize(int32_t* size);
  int failedImageWrite();
  int failedSizeWrite();
  uint32_t capacity();
};
