#include "chunk/CTARNChunkBase.h"

#include <fcntl.h>
#include <syslog.h>

#include <cstdio>
#include <cstring>

#include "base/Wrap.h"
#include "chunk/ChunkMessages.h"
#include "chunk/ManagerCalls.h"

using tarn::low32;
namespace manager_calls = tarn::manager_calls;

namespace {

int openFlags(long mode) {
  if (mode == 1) return O_RDONLY;
  return mode == 2 ? O_RDWR | O_CREAT : O_RDWR;
}

}  // namespace

CTARNChunkBase::CTARNChunkBase() { strcpy(displayName, "dummy"); }

CTARNChunkBase::~CTARNChunkBase() { closeChunkFile(); }

int CTARNChunkBase::openChunkFile(CTARNManagerBase* newManager, unsigned short newChunkID) {
  if (refuseOpenChunk()) return -1;
  chunkID = static_cast<int16_t>(newChunkID);
  return newManager != nullptr ? openForWrite(newManager) : openWithoutManager();
}

int CTARNChunkBase::openChunkFile(const CHUNK_EVENT* event) {
  if (refuseOpenChunk()) return -1;
  partition = event->partition;
  openMode = kOpenForEvent;
  eventStart = event->startOffset;
  eventSize = event->size;
  if (eventSize == 0) return -1;
  return openChunkFile(nullptr, event->chunkID);
}

bool CTARNChunkBase::refuseOpenChunk() {
  if (!isOpen()) return false;
  openChunkLow(openMode);  // gives the warning
  return true;
}

int CTARNChunkBase::openForWrite(CTARNManagerBase* newManager) {
  manager = newManager;
  partition = manager_calls::partitionNumber(manager);
  openMode = kOpenForWrite;
  if (openChunkLow(openMode) == -1) return -1;
  eventStart = 0;
  eventSize = 0;
  // What an earlier chunk of this object left behind must not be taken for this one's addresses.
  useAddr = 0;
  freeAddr = 0;
  freeSize = 0;
  useSize = 0;
  usageKnown = false;
  useKnown = false;
  getUsageFromManager();
  return 0;
}

int CTARNChunkBase::openWithoutManager() {
  if (openChunkLow(openMode) == -1) return -1;
  manager = nullptr;
  // Whatever addresses an earlier chunk of this object had.
  usageKnown = false;
  useKnown = false;
  const bool inside = eventStart <= chunkSize;
  if (!inside) {
    syslog(LOG_WARNING, tarn::kMsgEventBeyondChunk, static_cast<unsigned long>(eventStart),
           static_cast<unsigned long>(chunkSize));
  }
  // A chunk that does not stand at its event would be read at the wrong place.
  if (inside && seekEvent(0, SEEK_SET) != -1) return 0;
  fat.close(handle);
  handle = -1;
  return -1;
}

int CTARNChunkBase::openChunkLow(long mode) {
  if (isOpen()) {
    syslog(LOG_WARNING, tarn::kMsgChunkAlreadyOpened, fatFileName);
    return handle;
  }
  makeFatFileName();
  handle = fat.open(fatFileName, openFlags(mode));
  if (handle == -1 || refuseForeignNumber(mode)) {
    syslog(LOG_ERR, tarn::kMsgChunkCantOpen, fatFileName, "openChunkLow");
    return -1;
  }
  chunkSize = low32(fat.getChunkSize(handle));
  unflushed = true;
  return handle;
}

// Behind the family's last chunk lies another family's data, which a write would destroy.
bool CTARNChunkBase::refuseForeignNumber(long mode) {
  const bool foreign = chunkID < 0 || chunkID >= fat.chunks(handle);
  if (mode == kOpenForEvent || !foreign) return false;
  fat.close(handle);
  handle = -1;
  return true;
}

int CTARNChunkBase::closeChunkFile() {
  if (!isOpen()) return -1;
  if (openMode == kOpenForWrite) fSync();
  if (fat.close(handle) == -1) return -1;
  handle = -1;
  return 0;
}

int CTARNChunkBase::flushDevice() {
  const int result = fat.fsync(handle);
  flushFailed = result != 0;
  if (result == 0) unflushed = false;
  return result;
}

int CTARNChunkBase::flush() { return isOpen() && !unflushed ? 0 : flushDevice(); }

int CTARNChunkBase::fSync() {
  flushDevice();
  return tellFreeAddr();
}

int CTARNChunkBase::settle() {
  flush();
  return tellFreeAddr();
}

int CTARNChunkBase::tellFreeAddr() {
  // A chunk whose free address is a guess would make the manager forget the true one.
  if (!isOpen() || (manager != nullptr && !usageKnown)) return -1;
  return setFreeToManager();
}

char* CTARNChunkBase::makeFatFileName() {
  snprintf(fatFileName, sizeof fatFileName, "%s%04d", tarn::fileTag(tarn::kFilePicture), chunkID);
  return fatFileName;
}

char* CTARNChunkBase::makeTaggedName(const char* tag) {
  return tarn::chunkFileName(partition, tag, chunkID, fatFileName);
}

int CTARNChunkBase::ConvertPartitionNumberToDeviceName(signed char partition, char* out) {
  strcpy(out, tarn::deviceName(partition));
  return 1;
}

signed char CTARNChunkBase::setUsageToManager() {
  if (manager == nullptr) return -1;
  return static_cast<signed char>(manager_calls::setUseOffset(manager, chunkID, useAddr));
}

signed char CTARNChunkBase::setFreeToManager() {
  if (manager == nullptr) return -1;
  return static_cast<signed char>(manager_calls::setFreeOffset(manager, chunkID, freeAddr));
}

signed char CTARNChunkBase::getUsageFromManager() {
  if (manager == nullptr) return -1;
  CHUNK_USAGE usage = {};
  const int result = manager_calls::getUsage(manager, chunkID, &usage);
  return takeUsage(result, usage);
}

signed char CTARNChunkBase::takeUsage(int result, const CHUNK_USAGE& usage) {
  if (static_cast<signed char>(result) == -1) return -1;
  if (result != 0) {
    // The manager has an answer, but no addresses for what it was asked: those known stay.
    calcFreeSize();
    return 0;
  }
  uint32_t newUse = 0;
  uint32_t newFree = 0;
  if (!ringAddress(usage.useAddr, "getUsageFromManager", &newUse) ||
      !ringAddress(usage.freeAddr, "getUsageFromManager", &newFree)) {
    return -1;
  }
  useAddr = newUse;
  freeAddr = newFree;
  usageKnown = true;
  useKnown = true;
  calcFreeSize();
  return 0;
}

bool CTARNChunkBase::ringAddress(unsigned long address, const char* function, uint32_t* out) const {
  const uint32_t address32 = low32(address);
  if (isOpen() && address32 > chunkSize) {
    syslog(LOG_WARNING, tarn::kMsgAddressBeyondChunk, function,
           static_cast<unsigned long>(address32), static_cast<unsigned long>(chunkSize));
    return false;
  }
  *out = isOpen() && address32 == chunkSize ? 0 : address32;
  return true;
}

void CTARNChunkBase::setUseAddr(unsigned long address) {
  if (!ringAddress(address, "setUseAddr", &useAddr)) return;
  useKnown = true;
  calcFreeSize();
}

void CTARNChunkBase::setFreeAddr(unsigned long address) {
  if (!ringAddress(address, "setFreeAddr", &freeAddr)) return;
  usageKnown = true;
  calcFreeSize();
}

void CTARNChunkBase::calcFreeSize() {
  freeSize = tarn::ringFree(useAddr, freeAddr, chunkSize);
  useSize = tarn::wrapSub32(chunkSize, freeSize);
}

void CTARNChunkBase::printCurrentOffset() {
  const uint32_t offset = low32(static_cast<unsigned long>(currentOffset()));
  printf("@@currentOffset = %lu", static_cast<unsigned long>(offset));
}

void CTARNChunkBase::disp_kanri_data() {
  constexpr char kRule[] = "----------------------";
  puts(kRule);
  printf("chunkID     = %u\n", static_cast<unsigned>(chunkID));
  printf("freeAddr()  = %lu\n", getFreeAddr());
  printf("useAddr()   = %lu\n", getUseAddr());
  printf("freeSize()  = %lu kbyte\n", getFreeSize() / 1024);
  puts(kRule);
}
