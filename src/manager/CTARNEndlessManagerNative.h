#pragma once

#include <cstdint>

#include "base/Export.h"
#include "manager/CTARNStreamManagerNative.h"

// Owner of the management data of one kind of endless (ring) chunk: the syslog chunks or the
// database-journal chunks. An endless chunk has one area; its offsets stand in the stream pair of
// each record and the picture pair stays as it is. The chType byte of a syslog chunk is its active
// flag. Files, saving and threads as in the base class.
class TARN_API CTARNEndlessManagerNative : public CTARNStreamManagerNative {
 public:
  // `kind` is an index of the table of chunk families (fat/ChunkFiles.h); 1 and 2 share the files
  // of the journal, 3 and 4 those of the system log. An index outside the table gives a store that
  // cannot be opened.
  explicit CTARNEndlessManagerNative(signed char kind);
  ~CTARNEndlessManagerNative() override;

  // Number of chunks and their size; prints the count to standard output.
  int getChunkInfo(const char* chunkFileName) override;
  // Fills useAddr and freeAddr only; the stream pair of *usage is left as it is.
  int getUsage(short chunk, CHUNK_USAGE* usage) override;
  // Set the use or free offset; one at or beyond the chunk's end is stored as 0. flag is ignored.
  int setUsage(short chunk, unsigned long offset, unsigned char flag) override;
  int setFree(short chunk, unsigned long offset, unsigned char flag) override;

 protected:
  int8_t m_kind;
};
