#include "manager/CTARNStreamManagerNative.h"

#include <fcntl.h>
#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "base/Crc16.h"
#include "base/Omission.h"
#include "base/Wrap.h"
#include "chunk/ChunkArea.h"
#include "fat/ChunkFiles.h"
#include "manager/ManageFormat.h"
#include "manager/ManagerMessages.h"

namespace {

uint32_t wrapped(unsigned long offset, uint32_t areaSize) {
  const uint32_t value = tarn::low32(offset);
  return value < areaSize ? value : 0;
}

}  // namespace

CTARNStreamManagerNative::CTARNStreamManagerNative()
    : m_records(nullptr),
      m_mainHandle(-1),
      m_backupHandle(-1),
      m_numChunk(0),
      m_pictureSize(0),
      m_streamSize(0),
      m_partition(0),
      m_suffix{},
      m_allocated(0),
      m_mainBad(false) {
  strcpy(m_suffix, tarn::kindSuffix(tarn::kFileStream));
}

CTARNStreamManagerNative::~CTARNStreamManagerNative() {
  closeManageData();
  free(m_records);
}

// ---- files ----

int CTARNStreamManagerNative::getChunkInfo(const char* chunkFileName) {
  const int handle = m_fat.open(chunkFileName, O_RDWR);
  if (handle < 0) {
    syslog(LOG_ERR, tarn::kMsgStoreStreamInfoError);
    return -1;
  }
  m_numChunk = m_fat.chunks(handle);
  m_streamSize = tarn::low32(m_fat.streamChunkSize(handle));
  m_pictureSize = tarn::low32(m_fat.pictureChunkSize(handle));
  syslog(LOG_INFO, tarn::kMsgStoreStreamChunks, m_numChunk);
  m_fat.close(handle);
  return 0;
}

int CTARNStreamManagerNative::openManageData(unsigned short partition) {
  if (isOpen()) closeManageData();
  m_numChunk = 0;
  m_mainBad = false;
  m_partition = partition;
  char tag[8];
  char name[tarn::kChunkFileNameRoom];
  snprintf(tag, sizeof tag, "CK%s", m_suffix);
  // A card without these chunks shows when its management file is opened.
  getChunkInfo(tarn::chunkFileName(tarn::kRecorderPartition, tag, 0, name));
  if (openFiles() != 0) return -1;
  const int result = loadRecords();
  if (result != 0) closeFiles();
  return result;
}

int CTARNStreamManagerNative::openFiles() {
  m_mainHandle = openFile(tarn::kManageMainCopy);
  if (m_mainHandle < 0) return -1;
  m_backupHandle = openFile(tarn::kManageBackupCopy);
  if (m_backupHandle >= 0) return 0;
  closeFiles();
  return -1;
}

int CTARNStreamManagerNative::openFile(int copy) {
  char name[tarn::kChunkFileNameRoom];
  const int handle = m_fat.open(tarn::manageFileName(m_suffix, copy, name), O_RDWR);
  if (handle < 0) syslog(LOG_ERR, tarn::kMsgStoreOpenError, name);
  return handle;
}

void CTARNStreamManagerNative::closeFiles() {
  if (m_backupHandle >= 0) m_fat.close(m_backupHandle);
  if (m_mainHandle >= 0) m_fat.close(m_mainHandle);
  m_backupHandle = -1;
  m_mainHandle = -1;
}

bool CTARNStreamManagerNative::isOpen() const { return m_mainHandle >= 0 || m_backupHandle >= 0; }

// Records kept from an earlier open are used again, unless the card now has another count.
bool CTARNStreamManagerNative::allocateRecords() {
  if (m_records != nullptr && m_allocated == m_numChunk) return true;
  free(m_records);
  m_records = static_cast<uint8_t*>(calloc(tarn::manageDataSize(m_numChunk), 1));
  m_allocated = m_numChunk;
  return m_records != nullptr;
}

int CTARNStreamManagerNative::loadRecords() {
  if (!allocateRecords()) {
    syslog(LOG_ERR, tarn::kMsgStoreNoMemory);
    return -1;
  }
  if (m_fat.lseek(m_mainHandle, 0, SEEK_SET) < 0) {
    syslog(LOG_ERR, tarn::kMsgStoreSeekError);
    return -1;
  }
  const uint32_t length = tarn::manageDataSize(m_numChunk);
  if (m_fat.read(m_mainHandle, m_records, length) != static_cast<long>(length)) {
    syslog(LOG_ERR, tarn::kMsgStoreReadError);
    return -1;
  }
  if (tarn::manageDataIsValid(m_records, m_numChunk)) return 0;
  syslog(LOG_ERR, tarn::kMsgStoreCrcError, m_suffix);
  return -2;
}

int CTARNStreamManagerNative::closeManageData() {
  int result = -1;
  if (m_mainHandle >= 0) {
    result = m_fat.close(m_mainHandle);
    m_mainHandle = -1;
  }
  m_numChunk = 0;
  if (m_backupHandle >= 0) {
    result = m_fat.close(m_backupHandle);
    m_backupHandle = -1;
    return result;  // the records stay for the next open
  }
  free(m_records);
  m_records = nullptr;
  m_allocated = 0;
  return result;
}

int CTARNStreamManagerNative::saveManageData() {
  if (isOpen()) tarn::sealManageData(m_records, m_numChunk);
  syslog(LOG_INFO, tarn::kMsgStoreSave, m_suffix);
  const bool backupSaved = saveBackupOnce();
  const bool mainSaved = saveMainOnce();
  return backupSaved && mainSaved ? 0 : -1;
}

// ---- with one copy ----

bool CTARNStreamManagerNative::loadCopy(int handle) {
  const uint32_t length = tarn::manageDataSize(m_numChunk);
  return m_fat.lseek(handle, 0, SEEK_SET) >= 0 &&
         m_fat.read(handle, m_records, length) == static_cast<long>(length) &&
         tarn::manageDataIsValid(m_records, m_numChunk);
}

int CTARNStreamManagerNative::openManageDataFromEither(unsigned short partition) {
  const int result = openManageData(partition);
  if (result == 0 || m_records == nullptr || m_numChunk == 0 || openFiles() != 0) return result;
  if (!loadCopy(m_backupHandle)) {
    closeFiles();
    return result;
  }
  m_mainBad = true;
  syslog(LOG_WARNING, tarn::kMsgStoreFromBackup, m_suffix);
  return kOneCopy;
}

// Read into memory of its own: the records are what is to be saved.
bool CTARNStreamManagerNative::mainIsGood() {
  const uint32_t length = tarn::manageDataSize(m_numChunk);
  const std::unique_ptr<uint8_t[]> bytes(new (std::nothrow) uint8_t[length]);
  return bytes == nullptr ||
         (m_fat.lseek(m_mainHandle, 0, SEEK_SET) >= 0 &&
          m_fat.read(m_mainHandle, bytes.get(), length) == static_cast<long>(length) &&
          tarn::manageDataIsValid(bytes.get(), m_numChunk));
}

// Whatever a failed write or flush left is written once more.
bool CTARNStreamManagerNative::saveMain() {
  if (!saveMainOnce() && !saveMainOnce()) return false;
  m_mainBad = false;
  return true;
}

bool CTARNStreamManagerNative::saveBackup() { return saveBackupOnce() || saveBackupOnce(); }

// Where one copy is not good, the other is written last. A save that the backup alone took counts
// only where no open can find an older main copy good: that one would go before it.
int CTARNStreamManagerNative::saveManageDataToEither() {
  if (!isOpen()) return -1;
  tarn::sealManageData(m_records, m_numChunk);
  syslog(LOG_INFO, tarn::kMsgStoreSave, m_suffix);
  const bool mainFirst = m_mainBad && saveMain();
  const bool backupSaved = saveBackup();
  const bool mainSaved = mainFirst || saveMain();
  if (mainSaved && backupSaved) return 0;
  if (!mainSaved && (!backupSaved || mainIsGood())) return -1;
  syslog(LOG_WARNING, tarn::kMsgStoreOneCopy, m_suffix, mainSaved ? "main" : "backup");
  return kOneCopy;
}

bool CTARNStreamManagerNative::saveMainOnce() {
  const bool written =
      writeCopy(m_mainHandle, tarn::kMsgStoreMainSeekError, tarn::kMsgStoreMainWriteError);
  return flushMain() && written;
}

bool CTARNStreamManagerNative::saveBackupOnce() {
  if (tarn::omitted("manage-backup")) return true;
  const bool written =
      writeCopy(m_backupHandle, tarn::kMsgStoreBackupSeekError, tarn::kMsgStoreBackupWriteError);
  return flushBackup() && written;
}

bool CTARNStreamManagerNative::flushMain() {
  if (tarn::omitted("manage-flush")) return true;
  return m_fat.fsync(m_mainHandle) == 0;
}

bool CTARNStreamManagerNative::flushBackup() {
  if (tarn::omitted("manage-copy-flush")) return true;
  return m_fat.fsync(m_backupHandle) == 0;
}

// Each step is tried whatever became of the one before. On a closed store each fails at its handle.
bool CTARNStreamManagerNative::writeCopy(int handle, const char* seekError,
                                         const char* writeError) {
  bool saved = true;
  if (m_fat.lseek(handle, 0, SEEK_SET) < 0) {
    syslog(LOG_ERR, "%s", seekError);
    saved = false;
  }
  const uint32_t length = tarn::manageDataSize(m_numChunk);
  if (m_fat.write(handle, m_records, length) != static_cast<long>(length)) {
    syslog(LOG_ERR, "%s", writeError);
    saved = false;
  }
  return saved;
}

// ---- records ----

bool CTARNStreamManagerNative::hasRecord(int chunk) const {
  return m_records != nullptr && chunk >= 0 && chunk < std::min(m_numChunk, m_allocated);
}

CHUNK_MANAGE CTARNStreamManagerNative::record(int chunk) const {
  return tarn::decodeManageRecord(m_records + static_cast<size_t>(chunk) * tarn::kManageRecordSize);
}

void CTARNStreamManagerNative::setRecord(int chunk, const CHUNK_MANAGE& record) {
  tarn::encodeManageRecord(record,
                           m_records + static_cast<size_t>(chunk) * tarn::kManageRecordSize);
}

int CTARNStreamManagerNative::getUsage(short chunk, CHUNK_USAGE* usage) {
  if (!hasRecord(chunk)) return -1;
  const CHUNK_MANAGE found = record(chunk);
  usage->useAddr = found.pictureUseOffset;
  usage->freeAddr = found.pictureFreeOffset;
  usage->streamUseAddr = found.streamUseOffset;
  usage->streamFreeAddr = found.streamFreeOffset;
  return 0;
}

int CTARNStreamManagerNative::getManageData(short chunk, CHUNK_MANAGE* out) {
  if (!hasRecord(chunk)) return -1;
  *out = record(chunk);
  return 0;
}

int CTARNStreamManagerNative::setUsage(short chunk, unsigned long offset, unsigned char isStream) {
  if (!hasRecord(chunk)) return -1;
  CHUNK_MANAGE changed = record(chunk);
  if (isStream != 0) {
    changed.streamUseOffset = wrapped(offset, m_streamSize);
  } else {
    changed.pictureUseOffset = wrapped(offset, m_pictureSize);
  }
  setRecord(chunk, changed);
  return 0;
}

int CTARNStreamManagerNative::setFree(short chunk, unsigned long offset, unsigned char isStream) {
  if (!hasRecord(chunk)) return -1;
  CHUNK_MANAGE changed = record(chunk);
  if (isStream != 0) {
    changed.streamFreeOffset = wrapped(offset, m_streamSize);
  } else {
    changed.pictureFreeOffset = wrapped(offset, m_pictureSize);
  }
  setRecord(chunk, changed);
  return 0;
}

int CTARNStreamManagerNative::setChType(short chunk, signed char chType, signed char recType) {
  if (!hasRecord(chunk)) return 0;
  CHUNK_MANAGE changed = record(chunk);
  changed.chType = chType;
  changed.recType = recType;
  setRecord(chunk, changed);
  return 0;
}

int CTARNStreamManagerNative::setRecTypeAll(signed char recType) {
  for (int chunk = 0; hasRecord(chunk); ++chunk) {
    CHUNK_MANAGE changed = record(chunk);
    changed.recType = recType;
    setRecord(chunk, changed);
  }
  return 0;
}

unsigned long CTARNStreamManagerNative::freeSize(short chunk) {
  if (!hasRecord(chunk)) return 0;
  const CHUNK_MANAGE found = record(chunk);
  return tarn::ringFree(found.streamUseOffset, found.streamFreeOffset, m_streamSize);
}

unsigned long CTARNStreamManagerNative::freeSizePicture(short chunk) {
  if (!hasRecord(chunk)) return 0;
  const CHUNK_MANAGE found = record(chunk);
  return tarn::ringFree(found.pictureUseOffset, found.pictureFreeOffset, m_pictureSize);
}

long long CTARNStreamManagerNative::freeSizeTotal() {
  long long total = 0;
  for (int chunk = 0; hasRecord(chunk); ++chunk) {
    const CHUNK_MANAGE found = record(chunk);
    total += tarn::ringFree(found.streamUseOffset, found.streamFreeOffset, m_streamSize);
  }
  return total;
}

unsigned short CTARNStreamManagerNative::numChunk() { return m_numChunk; }

unsigned short CTARNStreamManagerNative::numUsedChunk() {
  uint16_t used = 0;
  for (int chunk = 0; hasRecord(chunk); ++chunk) {
    if (record(chunk).chType != tarn::kChannelUnused) ++used;
  }
  return used;
}

unsigned long CTARNStreamManagerNative::getChunkSize(short kind) {
  return kind == tarn::kAreaPicture ? m_pictureSize : m_streamSize;
}

unsigned short CTARNStreamManagerNative::getCRC(const unsigned char* data, long length) {
  const uint16_t crc = length > 0 ? tarn::crc16(data, static_cast<size_t>(length)) : uint16_t{0};
  printf(tarn::kMsgStoreCrc, static_cast<unsigned>(crc));
  return crc;
}
