#include "chunk/CTARNMirroredChunk.h"

#include <syslog.h>

#include <cerrno>
#include <cstdio>
#include <new>

#include "base/Crc16.h"
#include "base/Omission.h"
#include "base/Wrap.h"
#include "chunk/ChunkMessages.h"
#include "chunk/MirrorTrailer.h"

using tarn::low32;

namespace {

long size32(long size) { return tarn::asSigned32(low32(static_cast<unsigned long>(size))); }

bool roomForTrailer(long size, long crcLength) {
  return crcLength >= 0 && crcLength <= size - long{tarn::kMirrorTrailerSize};
}

}  // namespace

CTARNMirroredChunk::CTARNMirroredChunk(signed char newFileType)
    : original(new (std::nothrow) CTARNEndlessChunk(newFileType)),
      mirror(new (std::nothrow) CTARNEndlessChunk(newFileType)),
      fileType(newFileType) {}

CTARNMirroredChunk::~CTARNMirroredChunk() {
  delete original;
  original = nullptr;
  delete mirror;
  mirror = nullptr;
}

bool CTARNMirroredChunk::canBeOpened() const {
  if (isWhole()) return true;
  errno = ENOMEM;
  return false;
}

int CTARNMirroredChunk::openChunkFile(const CHUNK_EVENT* originalEvent,
                                      const CHUNK_EVENT* mirrorEvent) {
  if (!canBeOpened()) return -1;
  if (original->openChunkFile(originalEvent) != 0) return -1;
  if (mirror->openChunkFile(mirrorEvent) != 0) {
    original->closeChunkFile();
    return -1;
  }
  originalID = originalEvent->chunkID;
  mirrorID = mirrorEvent->chunkID;
  return 0;
}

int CTARNMirroredChunk::openChunkFile(CTARNManagerBase* newManager, unsigned short newOriginalID,
                                      unsigned short newMirrorID) {
  if (!canBeOpened()) return -1;
  if (original->openChunkFile(newManager, newOriginalID) != 0) return -1;
  if (mirror->openChunkFile(newManager, newMirrorID) != 0) {
    original->closeChunkFile();
    return -1;
  }
  manager = newManager;
  return 0;
}

int CTARNMirroredChunk::both(int (CTARNChunkBase::*operation)()) {
  if (!isWhole()) return -1;
  const int originalResult = (original->*operation)();
  const int mirrorResult = (mirror->*operation)();
  return originalResult != 0 ? originalResult : mirrorResult;
}

int CTARNMirroredChunk::closeChunkFile() { return both(&CTARNChunkBase::closeChunkFile); }

int CTARNMirroredChunk::fSync() { return both(&CTARNChunkBase::fSync); }

int CTARNMirroredChunk::flush() { return both(&CTARNChunkBase::flush); }

int CTARNMirroredChunk::settle() { return both(&CTARNChunkBase::settle); }

int CTARNMirroredChunk::tellFreeAddr() { return both(&CTARNChunkBase::tellFreeAddr); }

bool CTARNMirroredChunk::flushOriginal() {
  if (tarn::omitted("original-flush")) return true;
  return original->flush() == 0;
}

// The record reaches the original's medium before the mirror is touched: power lost in the middle
// of a write may tear that copy, never both.
long CTARNMirroredChunk::write(void* buf, long size, long crcLength) {
  const long length = size32(size);
  const bool plain = crcLength == 0;
  if (!isWhole() || buf == nullptr || (!plain && !roomForTrailer(length, crcLength))) return -1;
  if (!plain) tarn::writeMirrorTrailer(buf, static_cast<size_t>(crcLength));
  const unsigned long address = original->getFreeAddr();
  long result = original->write(buf, length);
  if (result == length && !flushOriginal()) {
    original->setFreeAddr(address);
    result = -1;
  }
  if (result != length) {
    syslog(LOG_ERR, tarn::kMsgMirrorOriginalWrite, result, length);
    return -1;
  }
  // Both copies lie at the same place, whatever the mirror's address had come to be.
  mirror->setFreeAddr(address);
  const long mirrorResult = mirror->write(buf, length);
  return mirrorResult == length ? result : mirrorFailed(mirrorResult, length);
}

long CTARNMirroredChunk::mirrorFailed(long result, long size) {
  syslog(LOG_ERR, tarn::kMsgMirrorWrite, result, size);
  original->writeRollback(size);
  return -1;
}

// Kept on purpose: crcLength 0 adds a trailer here and none in write(), and a negative one is how a
// record that carries its own trailer is rewritten; callers use both.
long CTARNMirroredChunk::writeNoSeek(void* buf, long size, long crcLength) {
  const long length = size32(size);
  const bool plain = crcLength < 0;
  if (!isWhole() || buf == nullptr || (!plain && !roomForTrailer(length, crcLength))) return -1;
  if (!plain) tarn::writeMirrorTrailer(buf, static_cast<size_t>(crcLength));
  const long result = original->writeNoSeek(buf, length);
  if (result != length) return -1;
  if (!flushOriginal()) return -1;
  const long mirrorResult = mirror->writeNoSeek(buf, length);
  return mirrorResult == length ? result : mirrorFailed(mirrorResult, length);
}

int CTARNMirroredChunk::readAndCheck(CTARNEndlessChunk* chunk, void* buf, long size,
                                     long crcLength) {
  const long length = size32(size);
  const bool plain = crcLength < 0;
  if (chunk == nullptr || (!plain && !roomForTrailer(length, crcLength))) return -1;
  const long result = chunk->read(buf, length);
  if (result < 0) {
    syslog(LOG_INFO, tarn::kMsgMirrorReadError, "readAndCheck", result);
    return -1;
  }
  if (result != length) return 0;
  return plain || tarn::mirrorTrailerFits(buf, static_cast<size_t>(crcLength))
             ? static_cast<int>(length)
             : -1;
}

bool CTARNMirroredChunk::readOriginal(void* buf, long size) {
  return readAndCheck(original, buf, size, -1) == size32(size);
}

bool CTARNMirroredChunk::readMirror(void* buf, long size) {
  return readAndCheck(mirror, buf, size, -1) == size32(size);
}

long CTARNMirroredChunk::read(void* buf, long size, long crcLength) {
  if (!isWhole()) return -1;
  const long length = size32(size);
  const int result = readAndCheck(original, buf, length, crcLength);
  if (result == length) {
    mirror->seek(length, SEEK_CUR);  // both stay in step
    return result;
  }
  // A short read is the event's end, which is the same for both.
  if (result >= 0) return result;
  const int mirrorResult = readAndCheck(mirror, buf, length, crcLength);
  if (mirrorResult == length) {
    const uint32_t offset = low32(static_cast<unsigned long>(mirror->currentOffset()));
    syslog(LOG_WARNING, tarn::kMsgMirrorUsed, "read", static_cast<unsigned long>(offset));
  }
  return mirrorResult;
}

long CTARNMirroredChunk::seek(long offset, int whence) {
  if (!isWhole()) return -1;
  if (mirror->seek(offset, whence) == -1) return -1;
  return original->seek(offset, whence);
}

// Kept on purpose: success is 0, not the position; callers only ask whether it worked.
long CTARNMirroredChunk::seekEvent(long offset, int whence) {
  if (!isWhole()) return -1;
  const long before = original->currentOffset();
  const long result = original->seekEvent(offset, whence);
  if (result < 0) return result;
  const long mirrorResult = mirror->seekEvent(offset, whence);
  if (mirrorResult >= 0) return 0;
  if (original->seek(before, SEEK_SET) != -1) return mirrorResult;
  syslog(LOG_ERR, tarn::kMsgMirrorSeekRollback);
  return -1;
}

unsigned short CTARNMirroredChunk::calcCrc(const void* data, unsigned long length) {
  return tarn::crc16(data, length);
}

int CTARNMirroredChunk::ConvertPartitionNumberToDeviceName(signed char partition, char* out) {
  return CTARNChunkBase::ConvertPartitionNumberToDeviceName(partition, out);
}

void CTARNMirroredChunk::setFreeAddr(unsigned long address) {
  if (!isWhole()) return;
  original->setFreeAddr(address);
  mirror->setFreeAddr(address);
}

void CTARNMirroredChunk::initFreeAddr() { setFreeAddr(0); }

void CTARNMirroredChunk::dispParameter() {
  if (!isWhole()) return;
  constexpr char kRule[] = "=============== ==================== =========================";
  printf("%16s%s%13s%s\n", "", "Original", "", "Mirrored");
  puts(kRule);
  printf(" ChunkId        %20d %20d\n", originalID, mirrorID);
  printf(" ChunkSize      %20ld %20ld\n", static_cast<long>(original->getChunkSize()),
         static_cast<long>(mirror->getChunkSize()));
  printf(" FreeAddr       %20ld %20ld\n", static_cast<long>(original->getFreeAddr()),
         static_cast<long>(mirror->getFreeAddr()));
  printf(" FreeSize       %20ld %20ld\n", static_cast<long>(original->getFreeSize()),
         static_cast<long>(mirror->getFreeSize()));
  printf(" curOffset      %20ld %20ld\n", original->currentOffset(), mirror->currentOffset());
  printf("%s\n\n", kRule);
  original->disp_kanri_data();
  mirror->disp_kanri_data();
}
