// Reading and writing of CTARNChunkBase.
#include <syslog.h>

#include <cerrno>
#include <cstdio>

#include "base/Wrap.h"
#include "chunk/CTARNChunkBase.h"
#include "chunk/ChunkMessages.h"

using tarn::asSigned32;
using tarn::low32;

namespace {

uint32_t size32(long size) { return low32(static_cast<unsigned long>(size)); }

bool isNegative(uint32_t size) { return asSigned32(size) < 0; }

}  // namespace

long CTARNChunkBase::write(void* buf, long size) {
  const uint32_t length = size32(size);
  // What is free lies between two addresses. With one of them a guess it would be written over.
  if (!usageKnown || !useKnown) {
    syslog(LOG_ERR, tarn::kMsgWriteUsageUnknown);
    return -1;
  }
  // A negative size is a huge one here and fails.
  if (freeSize <= length) {
    syslog(LOG_ERR, tarn::kMsgWriteNoSpace, static_cast<unsigned long>(freeSize),
           static_cast<unsigned long>(length));
    return -1;
  }
  if (seekTo(freeAddr) == -1) {
    syslog(LOG_ERR, tarn::kMsgWriteSeek);
    return -1;
  }
  const long result = asSigned32(length);
  if (writeAt(freeAddr, buf, length) != result) {
    syslog(LOG_ERR, tarn::kMsgWriteWriteNoSeek);
    return -1;
  }
  setFreeAddr(freeAddrAfter(length));
  return result;
}

uint32_t CTARNChunkBase::freeAddrAfter(uint32_t size) const {
  return tarn::ringAdvance(freeAddr, size, chunkSize);
}

long CTARNChunkBase::writeNoSeek(void* buf, long size) {
  const long position = seek(0, SEEK_CUR);
  if (position == -1) {
    syslog(LOG_ERR, tarn::kMsgWriteNoSeekPosition, errno);
    return -1;
  }
  return writeAt(size32(position), buf, size32(size));
}

long CTARNChunkBase::writeAt(uint32_t position, const void* buf, uint32_t size) {
  // Anything else would leave the ring, or overwrite its own beginning.
  if (isNegative(size) || size > chunkSize || position > chunkSize) {
    syslog(LOG_ERR, tarn::kMsgWriteNoSeekWrite, EINVAL);
    return -1;
  }
  const long result = asSigned32(size);
  const uint32_t toEnd = chunkSize - position;
  if (toEnd >= size) return writePiece(buf, size) ? result : -1;
  if (!writePiece(buf, toEnd)) return -1;
  if (seekTo(0) == -1) {
    syslog(LOG_ERR, tarn::kMsgWriteNoSeekSeek, errno);
    return -1;
  }
  return writePiece(static_cast<const uint8_t*>(buf) + toEnd, size - toEnd) ? result : -1;
}

bool CTARNChunkBase::writePiece(const void* buf, uint32_t size) {
  if (size == 0) return true;
  unflushed = true;
  errno = 0;  // a short write need not set it
  if (fat.write(handle, buf, size) == static_cast<long>(size)) return true;
  syslog(LOG_ERR, tarn::kMsgWriteNoSeekWrite, errno);
  return false;
}

long CTARNChunkBase::read(void* buf, long size) {
  const uint32_t asked = size32(size);
  firstPartFailed = false;
  if (isNegative(asked)) return -1;
  long position = currentOffset();
  uint32_t length = asked;
  if (position != -1 && openMode == kOpenForEvent && !cutToEvent(size32(position), &length)) {
    return 0;
  }
  if (position != -1 && size32(position) > chunkSize) {  // another chunk's data
    errno = EINVAL;
    position = -1;
  }
  if (position == -1) {
    syslog(LOG_ERR, tarn::kMsgReadPosition, errno);
    return -1;
  }
  const long result = asSigned32(length);
  const uint32_t toEnd = chunkSize - size32(position);
  if (toEnd >= length) return readPiece(buf, length, true) ? result : -1;
  if (!readPiece(buf, toEnd, false)) return -1;
  firstPartFailed = toEnd > 0 && fat.lastReadFailed(handle);
  if (seekTo(0) == -1) {
    syslog(LOG_ERR, tarn::kMsgReadSeek, errno);
    return -1;
  }
  return readPiece(static_cast<uint8_t*>(buf) + toEnd, length - toEnd, false) ? result : -1;
}

long CTARNChunkBase::readAhead(void* buf, long size, long unit) {
  const uint32_t asked = size32(size);
  if (isNegative(asked) || openMode != kOpenForEvent || !fat.hasReadBuffer(handle)) return 0;
  const long current = currentOffset();
  const uint32_t position = size32(current);
  if (current == -1 || position > chunkSize) return 0;
  uint32_t length = asked < chunkSize - position ? asked : chunkSize - position;
  const uint32_t done = eventBytesBefore(position);
  if (done >= eventSize) return 0;
  if (length > eventSize - done) length = eventSize - done;
  return fat.readAhead(handle, buf, length, static_cast<unsigned long>(unit));
}

uint32_t CTARNChunkBase::eventBytesBefore(uint32_t position) const {
  return position < eventStart ? tarn::wrapAdd32(tarn::wrapSub32(chunkSize, eventStart), position)
                               : position - eventStart;
}

// Cuts a read to the event's end; false when nothing of it is left.
bool CTARNChunkBase::cutToEvent(uint32_t position, uint32_t* size) const {
  const uint32_t done = eventBytesBefore(position);
  const bool past = done >= eventSize;
  if (!past && *size <= eventSize - done) return true;
  const uint32_t excess = tarn::wrapSub32(tarn::wrapAdd32(done, *size), eventSize);
  if (excess > chunkSize) syslog(LOG_ERR, tarn::kMsgReadExceedsChunk);
  if (!past) *size = eventSize - done;
  return !past;
}

bool CTARNChunkBase::readPiece(void* buf, uint32_t size, bool reportSize) {
  if (size == 0) return true;
  errno = 0;  // a short read does not set it
  const long got = fat.read(handle, buf, size);
  if (got == static_cast<long>(size)) return true;
  syslog(LOG_ERR, tarn::kMsgReadRead, errno);
  if (reportSize) {
    syslog(LOG_ERR, tarn::kMsgReadSize, static_cast<int>(got), static_cast<long>(size));
  }
  return false;
}

bool CTARNChunkBase::lastReadFailed() { return firstPartFailed || fat.lastReadFailed(handle); }
