#include "manager/CTARNManagerBase.h"

#include <syslog.h>

#include <cstdio>
#include <new>

#include "base/Wrap.h"
#include "fat/CardWear.h"
#include "fat/ChunkFiles.h"
#include "manager/DeleteRange.h"
#include "manager/ManageFormat.h"
#include "manager/ManagerMessages.h"
#include "manager/RequestFormat.h"
#include "mesg/CMesgClient.h"

using tarn::RequestRecord;

namespace {

constexpr unsigned short kUsedUnknown = 65535;

signed char lowByte(uint32_t word) { return static_cast<signed char>(word & 0xFFu); }

}  // namespace

CTARNManagerBase::CTARNManagerBase()
    : m_numChunk(0),
      m_partition(tarn::kRecorderPartition),
      m_kind(tarn::kFileStream),
      m_name{},
      m_client(nullptr),
      m_pictureSize(0),
      m_chunkSize(0),
      m_lastResult(tarn::kResultUnanswered) {
  snprintf(m_name, sizeof m_name, "dummy");
}

// Kept on purpose: the client is not freed here; owners close before they destroy.
CTARNManagerBase::~CTARNManagerBase() = default;

// ---- the exchange of one request ----

RequestRecord CTARNManagerBase::newRequest(uint32_t command) const {
  RequestRecord record;
  record.setCommand(command);
  record.setKind(RequestRecord::fromSigned(m_kind));
  record.setResult(tarn::kResultUnanswered);
  record.setPartition(RequestRecord::fromSigned(m_partition));
  return record;
}

RequestRecord CTARNManagerBase::newRequest(uint32_t command, short chunk) const {
  RequestRecord record = newRequest(command);
  record.setArg0(RequestRecord::fromSigned(chunk));
  return record;
}

// A connection whose answer did not arrive is dropped, or a late answer would be taken for the next
// request's. One that the server has closed is dropped as well, so that the next request
// reconnects. A server that hangs is not waited for longer than RequestPatience allows.
CTARNManagerBase::Outcome CTARNManagerBase::exchange(RequestRecord& record) {
  constexpr long size = tarn::kRequestSize;
  m_lastResult = tarn::kResultUnanswered;
  if (m_client == nullptr) return Outcome::WriteFailed;
  if (const long sent = m_client->writeMesg(record.bytes(), size); sent != size) {
    if (sent >= 0) m_client->disconnect();  // the server answers a part of a request, too
    return Outcome::WriteFailed;
  }
  const bool answered = m_client->awaitMesg() > 0;
  const long got = answered ? m_client->readMesg(record.bytes(), size) : -1;
  if (got <= 0) m_client->disconnect();
  if (got < 0) return Outcome::ReadFailed;
  m_lastResult = record.result();
  return record.result() == tarn::kResultDone ? Outcome::Done : Outcome::Refused;
}

int CTARNManagerBase::request(RequestRecord& record, const char* word) {
  switch (exchange(record)) {
    case Outcome::Done:
      return 0;
    case Outcome::WriteFailed:
      syslog(LOG_ERR, tarn::kMsgRequestWriteError, word);
      break;
    case Outcome::ReadFailed:
      syslog(LOG_ERR, tarn::kMsgRequestReadError, word);
      break;
    case Outcome::Refused:
      syslog(LOG_ERR, tarn::kMsgRequestRefused, word);
      break;
  }
  return -1;
}

// ---- opening ----

// Kept on purpose: a client from an earlier open is neither checked nor freed; owners close first.
// Its connection goes: a program that forgets to close must not use up the server's.
int CTARNManagerBase::openManageData() {
  if (m_client != nullptr) m_client->disconnect();
  m_client = new (std::nothrow) CMesgClient(tarn::kServerSocketPath);
  RequestRecord record = newRequest(tarn::kRequestNumChunk);
  if (request(record, tarn::kWordOpenManageData) != 0) return -1;
  m_numChunk = static_cast<uint16_t>(record.arg1());
  return requestAreaSize(tarn::kAreaStream, &m_chunkSize);
}

int CTARNManagerBase::requestAreaSize(uint8_t area, uint32_t* size) {
  RequestRecord record = newRequest(tarn::kRequestChunkSize);
  record.setArg1(area);
  if (request(record, tarn::kWordOpenManageData) != 0) return -1;
  *size = record.arg1();
  return 0;
}

int CTARNManagerBase::closeManageData() {
  delete m_client;
  m_client = nullptr;
  return 0;
}

// ---- requests ----

int CTARNManagerBase::getUsage(short chunk, CHUNK_USAGE* usage) {
  RequestRecord record = newRequest(tarn::kRequestGetUsage, chunk);
  if (request(record, tarn::kWordGetUsage) != 0) return -1;
  const CHUNK_USAGE answer = record.usage();
  usage->useAddr = answer.useAddr;
  usage->freeAddr = answer.freeAddr;
  return 0;
}

int CTARNManagerBase::getChunkAttr(short chunk, signed char* attr1, signed char* attr2) {
  RequestRecord record = newRequest(tarn::kRequestGetChunkAttr, chunk);
  if (request(record, tarn::kWordGetChunkAttr) != 0) return -1;
  *attr1 = lowByte(record.arg1());
  *attr2 = lowByte(record.arg2());
  return 0;
}

int CTARNManagerBase::setChunkAttr(short chunk, signed char attr1, signed char attr2) {
  RequestRecord record = newRequest(tarn::kRequestSetChunkAttr, chunk);
  record.setArg1(RequestRecord::fromSigned(attr1));
  record.setArg2(RequestRecord::fromSigned(attr2));
  return request(record, tarn::kWordSetChunkAttr);
}

int CTARNManagerBase::setUseOffset(short chunk, unsigned long offset) {
  RequestRecord record = newRequest(tarn::kRequestSetUseOffset, chunk);
  record.setArg1(tarn::low32(offset));
  return request(record, tarn::kWordSetUseOffset);
}

int CTARNManagerBase::setFreeOffset(short chunk, unsigned long offset) {
  RequestRecord record = newRequest(tarn::kRequestSetFreeOffset, chunk);
  record.setArg1(tarn::low32(offset));
  return request(record, tarn::kWordSetFreeOffset);
}

int CTARNManagerBase::saveManageData() {
  RequestRecord record = newRequest(tarn::kRequestSaveManageData);
  const int result = request(record, tarn::kWordSaveManageData);
  if (result == 0) tarn::noteCardSave(tarn::manageDataSize(m_numChunk));
  return result;
}

unsigned long CTARNManagerBase::freeSize(short chunk) {
  CHUNK_USAGE usage{};
  if (getUsage(chunk, &usage) != 0) return 0;
  return tarn::ringFree(usage.useAddr, usage.freeAddr, m_chunkSize);
}

long long CTARNManagerBase::getFreeSizeTotal() {
  RequestRecord record = newRequest(tarn::kRequestFreeSizeTotal);
  if (request(record, tarn::kWordFreeSizeTotal) != 0) return -1;
  return record.total();
}

unsigned short CTARNManagerBase::getNumChunk() { return m_numChunk; }

unsigned short CTARNManagerBase::getNumUsedChunk() {
  RequestRecord record = newRequest(tarn::kRequestNumUsedChunk);
  switch (exchange(record)) {
    case Outcome::Done:
      return static_cast<unsigned short>(record.arg1());
    case Outcome::WriteFailed:
      syslog(LOG_ERR, tarn::kMsgUsedWriteError, tarn::kWordGetNumUsedChunk);
      break;
    case Outcome::ReadFailed:
      syslog(LOG_ERR, tarn::kMsgUsedReadError, tarn::kWordGetNumUsedChunk);
      break;
    case Outcome::Refused:
      syslog(LOG_ERR, tarn::kMsgUsedRefused, tarn::kWordGetNumUsedChunk);
      break;
  }
  return kUsedUnknown;
}

unsigned long CTARNManagerBase::getChunkSize() { return m_chunkSize; }

short CTARNManagerBase::firstAvailableChunk(unsigned long needSize) {
  RequestRecord record = newRequest(tarn::kRequestFirstAvailable);
  record.setArg0(tarn::low32(needSize));
  if (request(record, tarn::kWordFirstAvailableChunk) != 0) return -1;
  return static_cast<short>(record.arg0());
}

signed char CTARNManagerBase::getPartitionNumber() { return m_partition; }

uint32_t CTARNManagerBase::lastResult() const { return m_lastResult; }

// ---- deletion ----

int CTARNManagerBase::deleteData(short chunk, unsigned long start, unsigned long size) {
  CHUNK_USAGE usage{};
  if (getUsage(chunk, &usage) != 0) return -1;
  const uint32_t first = tarn::low32(start);
  uint32_t length = tarn::low32(size);
  if (m_chunkSize < length) {
    syslog(LOG_ERR, tarn::kMsgDeleteChunkSize);
    length = m_chunkSize;
  }
  const uint32_t end = tarn::deleteRangeEnd(first, length, m_chunkSize);
  tarn::checkDeleteRange({first, end, usage.useAddr, usage.freeAddr});
  if (setUseOffset(chunk, end) != 0) return -1;
  return static_cast<int>(length);
}
