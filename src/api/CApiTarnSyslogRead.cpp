#include "api/CApiTarnSyslogRead.h"

#include <cstdio>
#include <new>

#include "api/SyslogReadMessages.h"
#include "chunk/CTARNSyslogChunk.h"
#include "chunk/LogChunks.h"
#include "fat/ChunkFiles.h"
#include "manager/CTARNEndlessManagerNative.h"
#include "manager/CTARNSyslogManager.h"

namespace {

constexpr short kFirstChunk = 0;

int failWith(const char* text) {
  fputs(text, stdout);
  return -1;
}

}  // namespace

CApiTarnSyslogRead::CApiTarnSyslogRead()
    : m_manager(new (std::nothrow) CTARNSyslogManager(tarn::kRecorderPartition)),
      m_chunk(new (std::nothrow) CTARNSyslogChunk),
      m_partition(tarn::kRecorderPartition) {
  if (m_manager != nullptr && m_manager->openManageData() != 0) {
    m_manager->closeManageData();  // the manager's destructor would not free its connection
    m_manager.reset();
  }
}

CApiTarnSyslogRead::CApiTarnSyslogRead(signed char partition)
    : m_chunk(new (std::nothrow) CTARNSyslogChunk),
      m_native(new (std::nothrow) CTARNEndlessManagerNative(tarn::kFileSyslog)),
      m_partition(partition) {
  if (m_native != nullptr && m_native->openManageData(static_cast<unsigned short>(partition)) < 0) {
    m_native.reset();
  }
}

CApiTarnSyslogRead::~CApiTarnSyslogRead() {
  m_chunk.reset();
  if (m_manager != nullptr) m_manager->closeManageData();
}

int CApiTarnSyslogRead::getChunkStartCount(unsigned char type, short* start, short* count) {
  if (type != 0) {
    printf(tarn::kMsgInvalidType, static_cast<unsigned>(type));
    *start = 0;
    *count = 0;
    return -1;
  }
  *start = kFirstChunk;
  *count = tarn::kLogChunks;
  return 0;
}

int CApiTarnSyslogRead::getActiveFlag(short chunk, signed char* flag) {
  if (m_manager != nullptr) {
    return m_manager->getActiveFlag(chunk, flag) >= 0 ? 0 : failWith(tarn::kMsgFlagNoManager);
  }
  CHUNK_MANAGE record;
  if (m_native == nullptr || m_native->getManageData(chunk, &record) < 0)
    return failWith(tarn::kMsgFlagNoManager);
  *flag = record.chType;
  return 0;
}

int CApiTarnSyslogRead::getUsage(short chunk, CHUNK_USAGE* usage) {
  int result = -1;
  if (m_manager != nullptr) {
    result = m_manager->getUsage(chunk, usage);
  } else if (m_native != nullptr) {
    result = m_native->getUsage(chunk, usage);
  }
  // Kept on purpose: any answer whose low byte is 0xFF is a failure, as for one-byte results.
  return (result & 0xFF) != 0xFF ? 0 : failWith(tarn::kMsgUsageNoManager);
}

signed char CApiTarnSyslogRead::getActiveChunk(unsigned char type) {
  short start = 0;
  short count = 0;
  if (getChunkStartCount(type, &start, &count) != 0) return -1;
  signed char active = 0;
  if (getActiveFlag(start, &active) != 0)
    return static_cast<signed char>(failWith(tarn::kMsgActiveNoManager));
  return active;
}

int CApiTarnSyslogRead::openRange(short chunk, const char* noManager, const char* noChunk) {
  // A number below 0 (a card whose active flag is -7, say) is no chunk, whatever the manager
  // answers; narrowed it would be a high one.
  CHUNK_USAGE usage{};
  if (getUsage(chunk, &usage) != 0 || chunk < 0) return failWith(noManager);
  if (m_chunk == nullptr) return failWith(noChunk);
  if (m_chunk->isOpen()) m_chunk->closeChunkFile();
  const CHUNK_EVENT event = {static_cast<uint16_t>(chunk), m_partition, 0, usage.freeAddr};
  return m_chunk->openChunkFile(&event) < 0 ? -1 : 0;
}

int CApiTarnSyslogRead::open(unsigned char type, unsigned char index) {
  short start = 0;
  short count = 0;
  if (getChunkStartCount(type, &start, &count) != 0) return -1;
  // Kept on purpose: the test is not strict, so the count itself passes and names the active chunk
  // once more, all the way round.
  if (count < index) {
    printf(tarn::kMsgOpenIndex, static_cast<unsigned>(index));
    return -1;
  }
  signed char active = 0;
  if (getActiveFlag(start, &active) != 0) return failWith(tarn::kMsgOpenNoManager);
  const int back = active - index;
  const auto chunk = static_cast<int8_t>(active - start < index ? back + count : back);
  return openRange(chunk, tarn::kMsgOpenNoManager, tarn::kMsgOpenNoChunk);
}

int CApiTarnSyslogRead::openChunk(unsigned char type, unsigned char chunkID) {
  short start = 0;
  short count = 0;
  if (getChunkStartCount(type, &start, &count) != 0) return -1;
  if (chunkID < start || chunkID >= start + count) {
    printf(tarn::kMsgOpenChunkID, static_cast<unsigned>(chunkID));
    return -1;
  }
  return openRange(chunkID, tarn::kMsgOpenChunkNoManager, tarn::kMsgOpenChunkNoChunk);
}

long CApiTarnSyslogRead::read(void* buf, long size) {
  return m_chunk != nullptr ? m_chunk->read(buf, size) : -1;
}

int CApiTarnSyslogRead::seek(long offset, int whence) {
  return m_chunk != nullptr ? static_cast<int>(m_chunk->seekEvent(offset, whence)) : -1;
}

int CApiTarnSyslogRead::close() { return m_chunk != nullptr ? m_chunk->closeChunkFile() : -1; }
