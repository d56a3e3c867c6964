#include "fat/CFATAccess.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>

#include "base/UniqueFd.h"
#include "base/Wrap.h"
#include "fat/ChunkFiles.h"
#include "fat/FatLog.h"
#include "fat/FatMessages.h"
#include "fat/FatVolume.h"

using tarn::asSigned32;
using tarn::logFat;
using tarn::low32;

namespace {

constexpr size_t kNameRoom = 128;
constexpr uint32_t kReadBlock = 4096;
constexpr uint32_t kStreamCapacity = 1024 * 1024;
constexpr uint32_t kSmallCapacity = 32 * 1024;
// Erase blocks of cards and disks are multiples of this.
constexpr int64_t kAlignment = 64 * 1024;

// The number behind a tag: as the 32-bit target's atol reads it, then cut to 16 bits.
int16_t chunkNumber(const char* digits) {
  const long value = std::clamp<long>(strtol(digits, nullptr, 10), INT32_MIN, INT32_MAX);
  return static_cast<int16_t>(value);
}

// As much of a text as fits with its zero.
template <size_t N>
void copyText(const char* text, char (&out)[N]) {
  const size_t length = strnlen(text, N - 1);
  memcpy(out, text, length);
  out[length] = '\0';
}

// Buffers begin on a page: the system copies from and to any other place at half the speed.
constexpr uintptr_t kPage = 4096;

uint8_t* onPage(void* memory) {
  const auto address = reinterpret_cast<uintptr_t>(memory);
  return static_cast<uint8_t*>(memory) + (kPage - address % kPage) % kPage;
}

bool needsWriteBuffer(int fileType, int flags) {
  const bool buffered = fileType == tarn::kFileStream || fileType == tarn::kFilePicture ||
                        fileType == tarn::kFileSyslog;
  return buffered && (flags & (O_WRONLY | O_RDWR)) != 0;
}

bool needsReadBuffer(int fileType, int flags) {
  return fileType == tarn::kFilePicture && flags == O_RDONLY;
}

}  // namespace

CFATAccess::CFATAccess() { std::fill(std::begin(m_fd), std::end(m_fd), -1); }

CFATAccess::~CFATAccess() {
  for (int index = 0; index < kHandles; ++index) {
    if (m_fd[index] != -1) close(index);
  }
  if (m_threadRunning == 0) return;
  {
    // Under the mutex, the worker is either before its test of the flag or already waiting.
    tarn::MutexLock lock(m_mutex);
    m_threadRunning = 0;
  }
  m_cond.signal();
  pthread_join(m_thread, nullptr);
}

int CFATAccess::open(const char* name, int flags) {
  const int index = freeIndex();
  if (index == -1) {
    logFat(__func__, __LINE__, tarn::kMsgNoMoreIndex);
    return -1;
  }
  if (!parseName(name, index)) return -1;
  // Without O_CREAT, which does nothing for a device that is there: a plain file made under the
  // name of one that is away would keep the card from coming back.
  tarn::UniqueFd device(open64(m_deviceName, flags & ~O_CREAT));
  if (!device.valid()) {
    logFat(__func__, __LINE__, tarn::kMsgOpenError, m_deviceName);
    return -1;
  }
  if (!locateFamily(device.get(), index)) return -1;
  m_fd[index] = device.release();
  if (!setUpBuffers(index, flags)) {
    release(index);
    return -1;
  }
  // Always moves the device: reading the tables left it anywhere.
  if (seekDevice(index, chunkStart(index), SEEK_SET) == -1) {
    logFat(__func__, __LINE__, tarn::kMsgLseekError);
    release(index);
    return -1;
  }
  return index;
}

int CFATAccess::freeIndex() const {
  for (int index = 0; index < m_maxIndex; ++index) {
    if (m_fd[index] == -1) return index;
  }
  return -1;
}

bool CFATAccess::parseName(const char* name, int index) {
  constexpr char kOpen[] = "open";
  char copy[kNameRoom];
  copyText(name, copy);
  char* rest = nullptr;
  const char* device = strtok_r(copy, ":", &rest);
  if (device == nullptr) {
    logFat(kOpen, __LINE__, tarn::kMsgNoDeviceName, name);
    return false;
  }
  copyText(device, m_deviceName);
  const char* chunk = strtok_r(nullptr, ":", &rest);
  if (chunk == nullptr) {
    logFat(kOpen, __LINE__, tarn::kMsgNoChunkName, name);
    return false;
  }
  const int fileType = tarn::fileTypeOfName(chunk);
  if (fileType == -1) {
    logFat(kOpen, __LINE__, tarn::kMsgUnknownFileType);
    return false;
  }
  m_fileType[index] = static_cast<int8_t>(fileType);
  m_chunkNo[index] = chunkNumber(chunk + strlen(tarn::fileTag(fileType)));
  return true;
}

bool CFATAccess::locateFamily(int fd, int index) {
  using tarn::VolumeFault;
  constexpr char kOpen[] = "open";
  tarn::ChunkFamily family;
  switch (tarn::readChunkFamily(fd, m_fileType[index], &family)) {
    case VolumeFault::kNone:
      break;
    case VolumeFault::kBootSector:
      logFat(kOpen, __LINE__, tarn::kMsgBootSectorError, m_deviceName);
      return false;
    case VolumeFault::kNotFat32:
      logFat(kOpen, __LINE__, tarn::kMsgNotFat32, m_deviceName);
      return false;
    case VolumeFault::kDirectorySeek:
      logFat(kOpen, __LINE__, tarn::kMsgLseekError);
      return false;
    case VolumeFault::kInfoSeek:
      m_chunkCount[index] = 0;
      logFat(kOpen, __LINE__, tarn::kMsgSeekToFatError);
      return false;
    case VolumeFault::kInfoRead:
      m_chunkCount[index] = 0;
      logFat(kOpen, __LINE__, tarn::kMsgChunkInfoError, m_deviceName);
      return false;
    case VolumeFault::kNoInfoFile:
      m_chunkCount[index] = 0;
      logFat(kOpen, __LINE__, tarn::kMsgNotTarn, m_deviceName);
      return false;
  }
  m_chunkSize[index] = family.own.chunkSize;
  m_chunkCount[index] = static_cast<uint16_t>(family.own.chunkCount);
  m_startSector[index] = family.own.startSector;
  m_streamChunkSize[index] = family.streamChunkSize;
  m_pictureChunkSize[index] = family.pictureChunkSize;
  if (m_chunkCount[index] != 0) return true;
  logFat(kOpen, __LINE__, tarn::kMsgNotTarn, m_deviceName);
  return false;
}

bool CFATAccess::setUpBuffers(int index, int flags) {
  m_readFailed[index] = false;
  m_astray[index] = false;
  m_lostData[index] = 0;
  if (needsWriteBuffer(m_fileType[index], flags)) {
    if (!allocateWriteBuffer(index)) {
      logFat("open", __LINE__, tarn::kMsgWriteBufferAlloc);
      return false;
    }
    startThread();  // without a worker, the caller's thread does its work
  }
  if (needsReadBuffer(m_fileType[index], flags) && !allocateReadBuffer(index)) {
    logFat("open", __LINE__, tarn::kMsgReadBufferAlloc);
    return false;
  }
  return true;
}

bool CFATAccess::allocateWriteBuffer(int index) {
  WriteBuffer& buffer = m_writeBuf[index];
  buffer.alignMode = m_fileType[index] == tarn::kFileStream ? 1 : 0;
  buffer.capacity = buffer.alignMode != 0 ? kStreamCapacity : kSmallCapacity;
  buffer.fill = 0;
  buffer.pendingSize = 0;
  buffer.aligned = 0;
  for (void*& memory : buffer.memory) {
    memory = malloc(buffer.capacity + kPage);
    if (memory == nullptr) return false;
  }
  buffer.front = onPage(buffer.memory[0]);
  buffer.back = onPage(buffer.memory[1]);
  return true;
}

bool CFATAccess::allocateReadBuffer(int index) {
  ReadBuffer& buffer = m_readBuf[index];
  buffer.valid = 0;
  buffer.pos = 0;
  buffer.memory = malloc(kReadBlock + kPage);
  if (buffer.memory == nullptr) return false;
  buffer.data = onPage(buffer.memory);
  return true;
}

void CFATAccess::release(int index) {
  WriteBuffer& writeBuffer = m_writeBuf[index];
  for (void*& memory : writeBuffer.memory) free(std::exchange(memory, nullptr));
  writeBuffer.front = nullptr;
  writeBuffer.back = nullptr;
  writeBuffer.capacity = 0;
  writeBuffer.fill = 0;
  free(std::exchange(m_readBuf[index].memory, nullptr));
  m_readBuf[index].data = nullptr;
  ::close(std::exchange(m_fd[index], -1));
}

unsigned short CFATAccess::chunks(int index) { return isIndex(index) ? m_chunkCount[index] : 0; }

unsigned long CFATAccess::getChunkSize(int index) {
  return isIndex(index) ? m_chunkSize[index] : 0;
}

unsigned long CFATAccess::streamChunkSize(int index) {
  return isIndex(index) ? m_streamChunkSize[index] : 0;
}

unsigned long CFATAccess::pictureChunkSize(int index) {
  return isIndex(index) ? m_pictureChunkSize[index] : 0;
}

long CFATAccess::read(int index, void* buf, unsigned long len) {
  if (!isIndex(index)) {
    logFat(__func__, __LINE__, tarn::kMsgReadIndex);
    return -1;
  }
  const uint32_t length = low32(len);
  m_position[index] += length;
  if (m_readBuf[index].data == nullptr) {
    drain(index);
    // The device leaves the boundary that write() may have brought it to.
    m_writeBuf[index].aligned = 0;
    const ssize_t result = ::read(m_fd[index], buf, length);
    m_readFailed[index] = result != static_cast<ssize_t>(length);
    m_astray[index] = m_astray[index] || m_readFailed[index];
    return result;
  }
  auto* out = static_cast<uint8_t*>(buf);
  bool whole = true;
  for (uint32_t done = 0; done < length;) {
    const uint32_t piece = std::min(length - done, kReadBlock);
    whole = readBlock(index, out + done, piece) && whole;
    done += piece;
  }
  m_readFailed[index] = !whole;
  return static_cast<long>(asSigned32(length));
}

// Hands out at most one block; false when zeros had to stand in for bytes that did not come.
bool CFATAccess::readBlock(int index, uint8_t* out, uint32_t length) {
  ReadBuffer& buffer = m_readBuf[index];
  if (int64_t{buffer.valid} - buffer.pos < length) refill(buffer, m_fd[index]);
  const uint32_t there =
      buffer.pos < buffer.valid ? std::min(length, buffer.valid - buffer.pos) : 0;
  if (there > 0) memcpy(out, buffer.data + buffer.pos, there);
  memset(out + there, 0, length - there);
  // May pass `valid`, so that the next refill starts where the caller believes to be, also after
  // bytes that never came.
  buffer.pos += std::min(length, UINT32_MAX - buffer.pos);
  return there == length;
}

long CFATAccess::readAhead(int index, void* buf, unsigned long len, unsigned long unit) {
  if (!hasReadBuffer(index) || low32(unit) == 0) return 0;
  ReadBuffer& buffer = m_readBuf[index];
  if (buffer.pos >= buffer.valid) return 0;
  uint32_t length = std::min(low32(len), buffer.valid - buffer.pos);
  length -= length % low32(unit);
  memcpy(buf, buffer.data + buffer.pos, length);
  buffer.pos += length;
  m_position[index] += length;
  if (length > 0) m_readFailed[index] = false;
  return static_cast<long>(length);
}

void CFATAccess::refill(ReadBuffer& buffer, int fd) {
  const int64_t left = int64_t{buffer.valid} - buffer.pos;
  // A device that cannot go there has nothing to read there either; what is left stays good.
  if (left != 0 && lseek64(fd, -left, SEEK_CUR) == -1) return;
  buffer.pos = 0;
  buffer.valid = static_cast<uint32_t>(std::max<ssize_t>(0, ::read(fd, buffer.data, kReadBlock)));
}

long CFATAccess::write(int index, const void* buf, unsigned long len) {
  if (!isIndex(index)) {
    logFat(__func__, __LINE__, tarn::kMsgWriteIndex);
    return -1;
  }
  const uint32_t length = low32(len);
  m_position[index] += length;
  const WriteBuffer& buffer = m_writeBuf[index];
  if (!isWriteBuffered(index)) return ::write(m_fd[index], buf, length);
  if (length > buffer.capacity) {
    m_astray[index] = true;
    logFat(__func__, __LINE__, tarn::kMsgWriteTooLarge);
    return -1;
  }
  return writeBuffered(index, static_cast<const uint8_t*>(buf), length);
}

long CFATAccess::writeBuffered(int index, const uint8_t* data, uint32_t length) {
  WriteBuffer& buffer = m_writeBuf[index];
  uint32_t taken = 0;
  if (buffer.alignMode != 0 && buffer.aligned == 0) {
    const long result = writeUpToBoundary(index, data, length);
    if (result == -1) {
      m_astray[index] = true;
      return -1;
    }
    taken = static_cast<uint32_t>(result);
  }
  const uint32_t room = buffer.capacity - buffer.fill;
  if (length - taken >= room) {
    append(buffer, data + taken, room);
    taken += room;
    handOver(index);
  }
  append(buffer, data + taken, length - taken);
  return static_cast<long>(length);
}

// Sends the buffer on its way early, so that the next one begins on a 64 KiB boundary of the
// device. Returns how much of the data is taken, or -1.
long CFATAccess::writeUpToBoundary(int index, const uint8_t* data, uint32_t length) {
  WriteBuffer& buffer = m_writeBuf[index];
  waitUntilWritten(index);  // the position counts only while nothing is being written
  const int64_t position = lseek64(m_fd[index], 0, SEEK_CUR);
  if (position == -1) {
    logFat("write", __LINE__, tarn::kMsgWriteLseek);
    return -1;
  }
  const auto past = static_cast<uint32_t>((position + buffer.fill) % kAlignment);
  if (past == 0) {
    buffer.aligned = 1;
    return 0;
  }
  const uint32_t gap = static_cast<uint32_t>(kAlignment) - past;
  const uint32_t taken = std::min(gap, length);
  // A buffer that would be full first goes out as any full one; the next write looks again.
  if (taken >= buffer.capacity - buffer.fill) return 0;
  append(buffer, data, taken);
  if (taken == gap) fsync(index);
  return static_cast<long>(taken);
}

void CFATAccess::append(WriteBuffer& buffer, const uint8_t* data, uint32_t length) {
  if (length == 0) return;
  waitForFront(buffer);
  memcpy(buffer.front + buffer.fill, data, length);
  buffer.fill += length;
}

long CFATAccess::lseek(int index, long offset, int whence) {
  if (!isIndex(index)) {
    logFat(__func__, __LINE__, tarn::kMsgLseekIndex, index);
    return -1;
  }
  if (whence == SEEK_END) {
    logFat(__func__, __LINE__, tarn::kMsgLseekEnd);
    return -1;
  }
  if (whence != SEEK_SET && whence != SEEK_CUR) {
    logFat(__func__, __LINE__, tarn::kMsgLseekDevice);
    return -1;
  }
  const int64_t distance = asSigned32(low32(static_cast<unsigned long>(offset)));
  const int64_t target = whence == SEEK_SET ? chunkStart(index) + distance : distance;
  ReadBuffer& readBuffer = m_readBuf[index];
  if (isWriteBuffered(index) || readBuffer.data != nullptr) {
    if (standsAt(index, target, whence)) return positionInChunk(index);
    drain(index);
    // Kept on purpose: the device stays behind the block that was read ahead, so SEEK_CUR counts
    // from there; readers of pictures seek with SEEK_SET.
    readBuffer.valid = 0;
    readBuffer.pos = 0;
  }
  return seekDevice(index, target, whence);
}

// Asking for the position never moves the device. Going to the position that was reported does
// where a read or write fell short of it: what is written next belongs there.
bool CFATAccess::standsAt(int index, int64_t target, int whence) const {
  if (whence == SEEK_CUR) return target == 0;
  return !m_astray[index] && target == static_cast<int64_t>(m_position[index]);
}

int64_t CFATAccess::chunkStart(int index) const {
  return tarn::chunkStartByte(m_startSector[index], m_chunkNo[index], m_chunkSize[index]);
}

long CFATAccess::positionInChunk(int index) const {
  const auto start = static_cast<uint64_t>(chunkStart(index));
  return asSigned32(
      tarn::wrapSub32(static_cast<uint32_t>(m_position[index]), static_cast<uint32_t>(start)));
}

long CFATAccess::seekDevice(int index, int64_t target, int whence) {
  const int64_t position = lseek64(m_fd[index], target, whence);
  m_position[index] = static_cast<uint64_t>(position);
  m_astray[index] = position == -1;
  WriteBuffer& buffer = m_writeBuf[index];
  if (isWriteBuffered(index) && buffer.alignMode != 0) {
    buffer.aligned = position == -1 ? isSdAligned(index) : position % kAlignment == 0;
  }
  if (position == -1) {
    logFat("lseek", __LINE__, tarn::kMsgLseekDevice);
    return -1;
  }
  return positionInChunk(index);
}

bool CFATAccess::isSdAligned(int index) {
  const int64_t position = lseek64(isIndex(index) ? m_fd[index] : -1, 0, SEEK_CUR);
  if (position == -1) {
    logFat(__func__, __LINE__, tarn::kMsgLseekError);
    return false;
  }
  return position % kAlignment == 0;
}

bool CFATAccess::lastReadFailed(int index) { return isIndex(index) && m_readFailed[index]; }

int CFATAccess::fsync(int index) {
  if (!isIndex(index)) {
    logFat(__func__, __LINE__, tarn::kMsgFsyncIndex);
    return -1;
  }
  const bool empty = m_writeBuf[index].fill == 0;
  drain(index);
  if (!empty) return 0;
  const int result = ::fsync(m_fd[index]);
  if (result != 0) m_lostData[index] = 1;
  return result;
}

int CFATAccess::close(int index) {
  if (!isIndex(index)) {
    logFat(__func__, __LINE__, tarn::kMsgCloseIndex);
    return -1;
  }
  if (m_fd[index] == -1) {
    logFat(__func__, __LINE__, tarn::kMsgCloseNotOpen);
    return -1;
  }
  if (isWriteBuffered(index)) fsync(index);
  release(index);
  return 0;
}
