#pragma once

#include <cstdint>
#include <memory>

#include "base/Export.h"
#include "chunk/ChunkEvent.h"

class CTARNEndlessManagerNative;
class CTARNSyslogChunk;
class CTARNSyslogManager;

// Reads the system log that the recorder keeps in the syslog chunks: finds the chunk being written
// (the active chunk), opens a chunk counted backwards from it or by its number, and reads it like a
// file, from the chunk's start to where the next line will be written. Only log type 0 exists; its
// chunks are 0 to 4.
//
// Results: 0, or -1 after a message on standard output. One thread at a time; takes no lock.
class TARN_API CApiTarnSyslogRead {
 public:
  // Asks the management server. Without one the object stays usable, but every call that needs the
  // management data fails.
  CApiTarnSyslogRead();
  // Reads the management files itself: inside the server, or while none runs.
  explicit CApiTarnSyslogRead(signed char partition);
  // Closes the chunk and frees everything, the connection to the server included.
  ~CApiTarnSyslogRead();
  CApiTarnSyslogRead(const CApiTarnSyslogRead&) = delete;
  CApiTarnSyslogRead& operator=(const CApiTarnSyslogRead&) = delete;

  // First chunk and number of chunks of a log type; 0 and 0 for an unknown one.
  int getChunkStartCount(unsigned char type, short* start, short* count);
  // First attribute byte of a chunk; of a type's first chunk it is the active chunk's number.
  int getActiveFlag(short chunk, signed char* flag);
  // Use and free address of a chunk.
  int getUsage(short chunk, CHUNK_USAGE* usage);
  // Number of the chunk being written.
  signed char getActiveChunk(unsigned char type);

  // Opens the chunk `index` places before the active one, in ring order; 0 is the active chunk.
  // An open reader is closed first.
  int open(unsigned char type, unsigned char index);
  // Opens a chunk by number. An open reader is closed first.
  int openChunk(unsigned char type, unsigned char chunkID);
  // Up to size bytes into buf: how many, 0 at the end, -1 on failure.
  long read(void* buf, long size);
  // Moves inside the readable range, as of a file of that size: position in the chunk, or -1.
  int seek(long offset, int whence);
  int close();

 private:
  int openRange(short chunk, const char* noManager, const char* noChunk);

  std::unique_ptr<CTARNSyslogManager> m_manager;
  std::unique_ptr<CTARNSyslogChunk> m_chunk;
  std::unique_ptr<CTARNEndlessManagerNative> m_native;
  int8_t m_partition;
};
