#include "manager/CTARNStreamManager.h"

#include <syslog.h>

#include <cstdio>

#include "base/Endian.h"
#include "base/Wrap.h"
#include "chunk/CTARNStreamChunk.h"
#include "chunk/StreamHeaderFormat.h"
#include "fat/ChunkFiles.h"
#include "manager/DeleteRange.h"
#include "manager/ManagerMessages.h"
#include "manager/RequestFormat.h"

using tarn::RequestRecord;

namespace {

// Results of deleteData and getUsage beyond -1.
constexpr int kBadArea = -2;
constexpr int kUnreadable = -3;

// Reads one record at the current position; what the device did not deliver arrives as zeros and
// would move the stream's use offset to 0.
bool readHeader(CTARNStreamChunk& chunk, uint8_t* header) {
  return chunk.read(header, tarn::kPictureRecordSize) == long{tarn::kPictureRecordSize} &&
         !chunk.lastReadFailed();
}

}  // namespace

CTARNStreamManager::CTARNStreamManager(signed char partition) {
  m_partition = partition;
  m_kind = tarn::kFileStream;
  snprintf(m_name, sizeof m_name, "stream");
}

CTARNStreamManager::~CTARNStreamManager() = default;

int CTARNStreamManager::openManageData() {
  if (CTARNManagerBase::openManageData() != 0) return -1;
  return requestAreaSize(tarn::kAreaPicture, &m_pictureSize);
}

int CTARNStreamManager::getUsage(short chunk, CHUNK_USAGE* usage, unsigned char type) {
  RequestRecord record = newRequest(tarn::kRequestGetUsage, chunk);
  if (request(record, tarn::kWordGetUsage) != 0) return -1;
  const CHUNK_USAGE answer = record.usage();
  switch (type) {
    case tarn::kAreaPicture:
      usage->useAddr = answer.useAddr;
      usage->freeAddr = answer.freeAddr;
      return 0;
    case tarn::kAreaStream:
      usage->useAddr = answer.streamUseAddr;
      usage->freeAddr = answer.streamFreeAddr;
      return 0;
    default:
      return kBadArea;
  }
}

int CTARNStreamManager::setUseOffset(short chunk, unsigned long offset, unsigned char type) {
  RequestRecord record = newRequest(tarn::kRequestSetUseOffset, chunk);
  record.setArg1(tarn::low32(offset));
  record.setArg2(type);
  return request(record, tarn::kWordSetUseOffset);
}

int CTARNStreamManager::setFreeOffset(short chunk, unsigned long offset, unsigned char type) {
  RequestRecord record = newRequest(tarn::kRequestSetFreeOffset, chunk);
  record.setArg1(tarn::low32(offset));
  record.setArg2(type);
  return request(record, tarn::kWordSetFreeOffset);
}

signed char CTARNStreamManager::getChType(short chunk, signed char* ch, signed char* recType) {
  return static_cast<signed char>(getChunkAttr(chunk, ch, recType));
}

signed char CTARNStreamManager::setChType(short chunk, signed char ch, signed char recType) {
  return static_cast<signed char>(setChunkAttr(chunk, ch, recType));
}

short CTARNStreamManager::firstAvailableChunk(unsigned long needSize, signed char ch,
                                              signed char type) {
  RequestRecord record = newRequest(tarn::kRequestFirstAvailable);
  record.setArg0(tarn::low32(needSize));
  record.setArg1(RequestRecord::fromSigned(ch));
  record.setArg2(RequestRecord::fromSigned(type));
  if (request(record, tarn::kWordFirstAvailableChunk) != 0) return -1;
  return static_cast<short>(record.arg0());
}

unsigned long CTARNStreamManager::freeSize(short chunk) {
  CHUNK_USAGE usage{};
  if (getUsage(chunk, &usage, tarn::kAreaStream) != 0) return 0;
  return tarn::ringFree(usage.useAddr, usage.freeAddr, m_chunkSize);
}

unsigned long CTARNStreamManager::streamChunkSize() { return m_chunkSize; }

unsigned long CTARNStreamManager::pictureChunkSize() { return m_pictureSize; }

// ---- deletion ----

long CTARNStreamManager::deleteData(short chunk, unsigned long start, unsigned long size) {
  signed char ch = 0;
  signed char recType = 0;
  if (getChType(chunk, &ch, &recType) != 0) return -1;
  CHUNK_USAGE stream{};
  CHUNK_USAGE picture{};
  if (getUsage(chunk, &stream, tarn::kAreaStream) != 0) return -1;
  if (getUsage(chunk, &picture, tarn::kAreaPicture) != 0) return -1;

  const uint32_t first = tarn::low32(start);
  uint32_t length = tarn::low32(size);
  uint32_t streamStart = 0;
  uint32_t streamLength = 0;
  const int read = readEntry(chunk, first, length, &streamStart, &streamLength);
  if (read != 0) return read;

  if (m_pictureSize < length) {
    syslog(LOG_ERR, tarn::kMsgDeletePictureSize);
    length = m_pictureSize;
  }
  if (m_chunkSize < streamLength) {
    syslog(LOG_ERR, tarn::kMsgDeleteStreamSize);
    streamLength = m_chunkSize;
  }
  const tarn::DeleteRange pictureRange = {first, tarn::deleteRangeEnd(first, length, m_pictureSize),
                                          picture.useAddr, picture.freeAddr};
  const tarn::DeleteRange streamRange = {
      streamStart, tarn::deleteRangeEnd(streamStart, streamLength, m_chunkSize), stream.useAddr,
      stream.freeAddr};
  if (releaseRange(chunk, tarn::kAreaPicture, pictureRange) != 0) return -1;
  if (releaseRange(chunk, tarn::kAreaStream, streamRange) != 0) return -1;
  return static_cast<long>(streamLength);
}

int CTARNStreamManager::readEntry(short chunk, uint32_t start, uint32_t size, uint32_t* streamStart,
                                  uint32_t* streamLength) {
  CTARNStreamChunk entry(tarn::kAreaPicture);
  CHUNK_EVENT event{static_cast<uint16_t>(chunk), m_partition, start, size};
  if (entry.openChunkFile(&event) != 0) {
    syslog(LOG_ERR, tarn::kMsgDeleteOpenError);
    return kUnreadable;
  }
  if (entry.seekEvent(0, SEEK_SET) == -1) {
    syslog(LOG_ERR, tarn::kMsgDeleteSeekError);
    return kUnreadable;
  }
  uint8_t streamHeader[tarn::kPictureRecordSize] = {};
  if (!readHeader(entry, streamHeader)) {
    syslog(LOG_ERR, tarn::kMsgDeleteStreamHeaderError);
    return kUnreadable;
  }
  uint8_t pictureHeader[tarn::kPictureRecordSize] = {};
  if (!readHeader(entry, pictureHeader)) {
    syslog(LOG_ERR, tarn::kMsgDeletePictureHeaderError);
    return kUnreadable;
  }
  *streamLength = tarn::getLe32(streamHeader + tarn::kHeaderDataSizeOff);
  *streamStart = tarn::getLe32(pictureHeader + tarn::kEntryDataOffsetOff);
  entry.closeChunkFile();
  return 0;
}

int CTARNStreamManager::releaseRange(short chunk, unsigned char area,
                                     const tarn::DeleteRange& range) {
  tarn::checkDeleteRange(range);
  uint32_t newUse = range.end;
  uint32_t newFree = range.free;
  // An area that became empty starts at 0 again.
  if (newUse == range.free && setFreeOffset(chunk, 0, area) == 0) {
    newUse = 0;
    newFree = 0;
  }
  syslog(LOG_INFO, tarn::kMsgDeleteTrace, chunk, area, static_cast<unsigned long>(range.start),
         static_cast<unsigned long>(range.end), static_cast<unsigned long>(range.use),
         static_cast<unsigned long>(newUse), static_cast<unsigned long>(range.free),
         static_cast<unsigned long>(newFree));
  return setUseOffset(chunk, newUse, area);
}
