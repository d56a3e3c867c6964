#include "chunk/CTARNEndlessChunk.h"

#include <syslog.h>

#include <cerrno>
#include <cstdio>

#include "base/Wrap.h"
#include "chunk/ChunkMessages.h"

using tarn::asSigned32;
using tarn::low32;

CTARNEndlessChunk::CTARNEndlessChunk(signed char newFileType) : fileType(newFileType) {
  snprintf(displayName, sizeof displayName, "endless(%s)", tarn::kindSuffix(fileType));
}

CTARNEndlessChunk::~CTARNEndlessChunk() { closeChunkFile(); }

char* CTARNEndlessChunk::makeFatFileName() { return makeTaggedName(tarn::fileTag(fileType)); }

long CTARNEndlessChunk::write(void* buf, long size) {
  if (!usageKnown) {
    syslog(LOG_ERR, tarn::kMsgWriteUsageUnknown);
    return -1;
  }
  if (seekTo(freeAddr) == -1) {
    syslog(LOG_ERR, tarn::kMsgWriteSeekErrno, errno);
    return -1;
  }
  const uint32_t length = low32(static_cast<unsigned long>(size));
  const long result = asSigned32(length);
  if (result < 0 || writeAt(freeAddr, buf, length) != result) {
    syslog(LOG_ERR, tarn::kMsgWriteWriteNoSeek);
    return -1;
  }
  setFreeAddr(freeAddrAfter(length));
  return result;
}

int CTARNEndlessChunk::writeRollback(long size) {
  const uint32_t length = low32(static_cast<unsigned long>(size));
  if (asSigned32(length) < 0 || length > chunkSize) {
    syslog(LOG_ERR, tarn::kMsgRollbackTooLarge, size);
    return -1;
  }
  // Back from a place that nobody knows there is nowhere to go.
  if (!usageKnown) {
    syslog(LOG_ERR, tarn::kMsgWriteSeekErrno, EINVAL);
    return -1;
  }
  // A write that ended at the chunk's end, or behind it, left an address below its own size.
  const uint32_t back = length <= freeAddr ? freeAddr : tarn::wrapAdd32(freeAddr, chunkSize);
  setFreeAddr(tarn::wrapSub32(back, length));
  if (seekTo(freeAddr) != -1) return 0;
  syslog(LOG_ERR, tarn::kMsgWriteSeekErrno, errno);
  return -1;
}

void CTARNEndlessChunk::setFreeAddr(unsigned long address) {
  if (ringAddress(address, "setFreeAddr", &freeAddr)) usageKnown = true;
}
