#include "chunk/CTARNSyslogChunk.h"

#include <cstring>

CTARNSyslogChunk::CTARNSyslogChunk() { strcpy(displayName, "syslog"); }

CTARNSyslogChunk::~CTARNSyslogChunk() { closeChunkFile(); }

char* CTARNSyslogChunk::makeFatFileName() {
  return makeTaggedName(tarn::fileTag(tarn::kFileSyslog));
}
