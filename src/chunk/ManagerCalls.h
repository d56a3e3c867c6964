#pragma once

#include "chunk/ChunkEvent.h"

class CTARNManagerBase;

// What the chunk classes ask of the manager that they are opened with. Managers stand above
// chunks, so the calls are declared here, where they are needed, and defined in the manager folder;
// no chunk source includes a manager header. Each forwards to the manager's operation of that name
// and returns its result. manager is never null.
namespace tarn::manager_calls {

signed char partitionNumber(CTARNManagerBase* manager);

// One-area (endless, syslog) chunks.
int getUsage(CTARNManagerBase* manager, short chunk, CHUNK_USAGE* usage);
int setUseOffset(CTARNManagerBase* manager, short chunk, unsigned long offset);
int setFreeOffset(CTARNManagerBase* manager, short chunk, unsigned long offset);

// Stream chunks: the manager is a CTARNStreamManager. area: 0 picture, 1 stream.
int getStreamUsage(CTARNManagerBase* manager, short chunk, CHUNK_USAGE* usage, unsigned char area);
int setStreamUseOffset(CTARNManagerBase* manager, short chunk, unsigned long offset,
                       unsigned char area);
int setStreamFreeOffset(CTARNManagerBase* manager, short chunk, unsigned long offset,
                        unsigned char area);

}  // namespace tarn::manager_calls
