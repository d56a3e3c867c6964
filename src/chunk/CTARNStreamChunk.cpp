#include "chunk/CTARNStreamChunk.h"

#include <syslog.h>

#include <cstdio>
#include <cstring>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "chunk/ChunkArea.h"
#include "chunk/ChunkMessages.h"
#include "chunk/ManagerCalls.h"
#include "chunk/StreamHeaderFormat.h"

namespace manager_calls = tarn::manager_calls;

namespace {

constexpr unsigned long kFailed = static_cast<unsigned long>(-1);
constexpr long kRecordSize = tarn::kPictureRecordSize;

}  // namespace

CTARNStreamChunk::CTARNStreamChunk(unsigned char newKind) {
  kind = newKind;
  strcpy(displayName, "stream");
}

// Here and not in the base: closing tells the manager, and which of the two address pairs is meant
// is known only to this class.
CTARNStreamChunk::~CTARNStreamChunk() { closeChunkFile(); }

char* CTARNStreamChunk::makeFatFileName() {
  return makeTaggedName(
      tarn::fileTag(kind == tarn::kAreaPicture ? tarn::kFilePicture : tarn::kFileStream));
}

signed char CTARNStreamChunk::setUsageToManager() {
  if (manager == nullptr) return -1;
  const int result = manager_calls::setStreamUseOffset(manager, chunkID, useAddr, kind);
  return static_cast<signed char>(result);
}

signed char CTARNStreamChunk::setFreeToManager() {
  if (manager == nullptr) return -1;
  const int result = manager_calls::setStreamFreeOffset(manager, chunkID, freeAddr, kind);
  return static_cast<signed char>(result);
}

signed char CTARNStreamChunk::getUsageFromManager() {
  if (manager == nullptr) return -1;
  CHUNK_USAGE usage = {};
  const int result = manager_calls::getStreamUsage(manager, chunkID, &usage, kind);
  return takeUsage(result, usage);
}

long CTARNStreamChunk::seekRead(unsigned long offset, void* buf, long size) {
  if (seek(static_cast<long>(offset), SEEK_SET) == -1) {
    syslog(LOG_ERR, tarn::kMsgSeekReadSeek);
    return -1;
  }
  return read(buf, size);
}

unsigned long CTARNStreamChunk::streamSize(unsigned long offset) {
  if (kind != tarn::kAreaPicture) {
    syslog(LOG_ERR, tarn::kMsgNotPictureChunk);
    return kFailed;
  }
  if (!isOpen()) {
    syslog(LOG_ERR, tarn::kMsgPictureNotOpened, chunkID);
    return kFailed;
  }
  const long position = currentOffset();
  uint8_t record[kRecordSize];
  // A record that the device did not deliver would arrive as zeros.
  if (seekRead(offset, record, kRecordSize) != kRecordSize || lastReadFailed()) {
    syslog(LOG_ERR, tarn::kMsgPictureCantRead, chunkID);
    return kFailed;
  }
  seek(position, SEEK_SET);
  return tarn::getLe32(record + tarn::kHeaderDataSizeOff);
}
