#include "manager/CTARNEndlessManagerNative.h"

#include <fcntl.h>
#include <syslog.h>

#include <cstdio>

#include "base/Wrap.h"
#include "fat/ChunkFiles.h"
#include "manager/ManagerMessages.h"

namespace {

// Which offset pair the base's operations change: an endless chunk has the stream pair only.
constexpr unsigned char kOnlyArea = 1;

}  // namespace

CTARNEndlessManagerNative::CTARNEndlessManagerNative(signed char kind) : m_kind(kind) {
  snprintf(m_suffix, sizeof m_suffix, "%s", tarn::kindSuffix(kind));
}

CTARNEndlessManagerNative::~CTARNEndlessManagerNative() = default;

int CTARNEndlessManagerNative::getChunkInfo(const char* chunkFileName) {
  const int handle = m_fat.open(chunkFileName, O_RDWR);
  if (handle < 0) {
    syslog(LOG_ERR, tarn::kMsgStoreEndlessInfoError);
    return -1;
  }
  m_numChunk = m_fat.chunks(handle);
  m_streamSize = tarn::low32(m_fat.getChunkSize(handle));
  printf(tarn::kMsgStoreEndlessChunks, m_suffix, m_numChunk);
  m_fat.close(handle);
  return 0;
}

int CTARNEndlessManagerNative::getUsage(short chunk, CHUNK_USAGE* usage) {
  if (!hasRecord(chunk)) return -1;
  const CHUNK_MANAGE found = record(chunk);
  usage->useAddr = found.streamUseOffset;
  usage->freeAddr = found.streamFreeOffset;
  return 0;
}

int CTARNEndlessManagerNative::setUsage(short chunk, unsigned long offset, unsigned char) {
  return CTARNStreamManagerNative::setUsage(chunk, offset, kOnlyArea);
}

int CTARNEndlessManagerNative::setFree(short chunk, unsigned long offset, unsigned char) {
  return CTARNStreamManagerNative::setFree(chunk, offset, kOnlyArea);
}
