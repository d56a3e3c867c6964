#include "chunk/ManagerCalls.h"

#include "manager/CTARNManagerBase.h"
#include "manager/CTARNStreamManager.h"

namespace tarn::manager_calls {
namespace {

CTARNStreamManager* streamManager(CTARNManagerBase* manager) {
  return static_cast<CTARNStreamManager*>(manager);
}

}  // namespace

signed char partitionNumber(CTARNManagerBase* manager) { return manager->getPartitionNumber(); }

int getUsage(CTARNManagerBase* manager, short chunk, CHUNK_USAGE* usage) {
  return manager->getUsage(chunk, usage);
}

int setUseOffset(CTARNManagerBase* manager, short chunk, unsigned long offset) {
  return manager->setUseOffset(chunk, offset);
}

int setFreeOffset(CTARNManagerBase* manager, short chunk, unsigned long offset) {
  return manager->setFreeOffset(chunk, offset);
}

int getStreamUsage(CTARNManagerBase* manager, short chunk, CHUNK_USAGE* usage, unsigned char area) {
  return streamManager(manager)->getUsage(chunk, usage, area);
}

int setStreamUseOffset(CTARNManagerBase* manager, short chunk, unsigned long offset,
                       unsigned char area) {
  return streamManager(manager)->setUseOffset(chunk, offset, area);
}

int setStreamFreeOffset(CTARNManagerBase* manager, short chunk, unsigned long offset,
                        unsigned char area) {
  return streamManager(manager)->setFreeOffset(chunk, offset, area);
}

}  // namespace tarn::manager_calls
