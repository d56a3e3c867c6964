#pragma once

#include "base/Export.h"
#include "chunk/CTARNChunkBase.h"

// Chunk of the system log: a plain ring that refuses writes when it is full.
class TARN_API CTARNSyslogChunk : public CTARNChunkBase {
 public:
  CTARNSyslogChunk();
  char* makeFatFileName() override;
  ~CTARNSyslogChunk() override;
};
