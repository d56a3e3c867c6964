#include "chunk/CTARNDBChunk.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "base/Endian.h"
#include "base/UniqueFd.h"
#include "base/Wrap.h"
#include "chunk/ChunkMessages.h"

namespace {

constexpr uint32_t kSizeBytes = 4;  // of the size in front of the image
constexpr size_t kBlock = 4096;
constexpr mode_t kImageMode = 0644;
// Cards go on writing for a while after they report a flush as done.
constexpr useconds_t kSettleUs = 500000;

}  // namespace

CTARNDBChunk::CTARNDBChunk() = default;

char* CTARNDBChunk::makeFatFileName() {
  return tarn::chunkFileName(partition, tarn::fileTag(tarn::kFileDbImage), 0, fatFileName);
}

bool CTARNDBChunk::open(int flags) {
  makeFatFileName();
  handle = fat.open(fatFileName, flags);
  return handle != -1;
}

void CTARNDBChunk::close() {
  fat.close(handle);
  handle = -1;
}

// Bytes of the largest image.
uint32_t CTARNDBChunk::capacity() {
  const uint32_t chunkSize = tarn::low32(fat.getChunkSize(handle));
  return chunkSize <= kSizeBytes ? 0 : std::min<uint32_t>(chunkSize - kSizeBytes, INT32_MAX);
}

int CTARNDBChunk::copyIn(const char* path) {
  if (!open(O_RDWR)) {
    syslog(LOG_ERR, tarn::kMsgDbSaveCantOpen, fatFileName, "copyIn", errno);
    return -1;
  }
  const int32_t size = save(path);
  close();
  if (size < 0) return -1;
  ::sync();
  syslog(LOG_INFO, tarn::kMsgDbSaved, static_cast<long>(size));
  return 0;
}

// Bytes saved, or -1.
int32_t CTARNDBChunk::save(const char* path) {
  const tarn::UniqueFd source(open64(path, O_RDONLY));
  if (!source.valid()) {
    syslog(LOG_ERR, tarn::kMsgChunkCantOpen, path, "copyIn");
    return -1;
  }
  struct stat64 status = {};
  if (fstat64(source.get(), &status) != 0) {
    syslog(LOG_ERR, tarn::kMsgDbCantStat, path);
    return -1;
  }
  if (status.st_size == 0) {
    syslog(LOG_ERR, tarn::kMsgDbNoData);
    return -1;
  }
  if (status.st_size > int64_t{capacity()}) {
    errno = ENOSPC;
    return failedImageWrite();
  }
  if (fat.lseek(handle, kSizeBytes, SEEK_SET) == -1) {
    syslog(LOG_ERR, tarn::kMsgDbSaveSeek, errno);
    return -1;
  }
  // Only an image that is on the medium is announced, so the size comes last.
  if (!copyData(source.get()) || fat.fsync(handle) != 0) return failedImageWrite();
  usleep(kSettleUs);
  if (fat.lseek(handle, 0, SEEK_SET) == -1) {
    syslog(LOG_ERR, tarn::kMsgDbSaveSeek, errno);
    return -1;
  }
  const auto size = static_cast<int32_t>(status.st_size);
  return writeSize(size) ? size : failedSizeWrite();
}

// A read error ends the copy as the file's end does. Kept on purpose: the size stays that of the
// file, and the restored database then shows what is missing.
bool CTARNDBChunk::copyData(int source) {
  uint8_t block[kBlock];
  uint32_t left = capacity();
  for (;;) {
    const ssize_t got = ::read(source, block, sizeof block);
    if (got < 1) return true;
    const auto length = static_cast<uint32_t>(got);
    errno = ENOSPC;  // for a file that grew meanwhile
    if (length > left) return false;
    errno = 0;  // a short write need not set it
    if (fat.write(handle, block, length) != static_cast<long>(got)) return false;
    left -= length;
  }
}

bool CTARNDBChunk::writeSize(int32_t size) {
  uint8_t bytes[kSizeBytes];
  tarn::putLe32(bytes, static_cast<uint32_t>(size));
  errno = 0;
  return fat.write(handle, bytes, kSizeBytes) == long{kSizeBytes} && fat.fsync(handle) == 0;
}

// Kept on purpose: only the size's text has a full stop; log filters in the field know both.
int CTARNDBChunk::failedImageWrite() {
  syslog(LOG_ERR, tarn::kMsgDbCantWriteImage, fatFileName, errno);
  return -1;
}

int CTARNDBChunk::failedSizeWrite() {
  syslog(LOG_ERR, tarn::kMsgDbCantWrite, fatFileName, errno);
  return -1;
}

int CTARNDBChunk::copyOut(const char* path) {
  if (!open(O_RDONLY)) {
    syslog(LOG_ERR, tarn::kMsgDbCantOpen, fatFileName, "copyOut", errno);
    return -1;
  }
  int result = -1;
  const tarn::UniqueFd destination(open64(path, O_RDWR | O_CREAT, kImageMode));
  if (destination.valid()) {
    result = restoreTo(destination.get(), path);
  } else {
    syslog(LOG_ERR, tarn::kMsgDbCantOpen, path, "copyOut", errno);
  }
  close();
  return result;
}

int CTARNDBChunk::restoreTo(int destination, const char* path) {
  int32_t left = 0;
  if (!readSize(&left)) return -1;
  syslog(LOG_INFO, tarn::kMsgDbRestored, static_cast<long>(left));
  if (left == -1) return 0;
  if (left < -1 || left > static_cast<int32_t>(capacity())) {
    syslog(LOG_ERR, tarn::kMsgDbCantRead, fatFileName, EINVAL);
    return -1;
  }
  uint8_t block[kBlock];
  while (left != 0) {
    const long wanted = std::min<long>(left, sizeof block);
    errno = 0;
    const long got = fat.read(handle, block, static_cast<unsigned long>(wanted));
    if (got <= 0) {
      syslog(LOG_ERR, tarn::kMsgDbCantRead, fatFileName, errno);
      return -1;
    }
    errno = 0;
    if (::write(destination, block, static_cast<size_t>(got)) != got) {
      syslog(LOG_ERR, tarn::kMsgDbCantWrite, path, errno);
      return -1;
    }
    left -= static_cast<int32_t>(got);
  }
  return 0;
}

bool CTARNDBChunk::readSize(int32_t* size) {
  uint8_t bytes[kSizeBytes];
  errno = 0;
  if (fat.read(handle, bytes, kSizeBytes) != long{kSizeBytes}) {
    syslog(LOG_ERR, tarn::kMsgDbCantRead, fatFileName, errno);
    return false;
  }
  *size = tarn::asSigned32(tarn::getLe32(bytes));
  return true;
}

long CTARNDBChunk::getDBSize(const char* /*path*/) {
  if (!open(O_RDONLY)) {
    syslog(LOG_ERR, tarn::kMsgDbCantOpen, fatFileName, "getDBSize", errno);
    return -2;
  }
  int32_t size = 0;
  const bool there = readSize(&size);
  close();
  return there ? size : -2;
}

int CTARNDBChunk::clearDBChunk(long size) {
  if (size != 0 && size != -1) {
    syslog(LOG_ERR, tarn::kMsgDbClearSize, size);
    return -1;
  }
  if (!open(O_RDWR)) {
    syslog(LOG_ERR, tarn::kMsgDbCantOpen, fatFileName, "clearDBChunk", errno);
    return -1;
  }
  const int result = writeSize(static_cast<int32_t>(size)) ? 0 : failedSizeWrite();
  close();
  return result;
}
