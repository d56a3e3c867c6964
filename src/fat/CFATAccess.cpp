#include "fat/CFATAccess.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>

#include "base/UniqueFd.h"
#include "base/Wrap.h"
#include "fat/CardWear.h"
#include "fat/ChunkFiles.h"
#include "fat/FatLog.h"
#include "fat/FatMessages.h"
#include "fat/FatVolume.h"
#include "fat/FlushTimes.h"
#include "fat/ReadBuffer.h"
#include "fat/WriteBuffer.h"

using tarn::asSigned32;
using tarn::logFat;
using tarn::low32;
using tarn::ReadBuffer;
using tarn::WriteBuffer;

namespace {

constexpr size_t kNameRoom = 128;
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

}  // namespace

CFATAccess::CFATAccess() { std::fill(std::begin(m_fd), std::end(m_fd), -1); }

CFATAccess::~CFATAccess() {
  for (int index = 0; index < kHandles; ++index) {
    if (m_fd[index] != -1) close(index);
  }
  stopThread();
  for (const auto& buffer : m_writeBuf) delete buffer.load();
  for (const ReadBuffer* buffer : m_readBuf) delete buffer;
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
  if (!hasReadBuffer(index)) {
    drain(index);
    // The device leaves the boundary that write() may have brought it to.
    if (isWriteBuffered(index)) writeBuffer(index)->setAligned(false);
    const ssize_t result = ::read(m_fd[index], buf, length);
    m_readFailed[index] = result != static_cast<ssize_t>(length);
    m_astray[index] = m_astray[index] || m_readFailed[index];
    return result;
  }
  m_readFailed[index] = !m_readBuf[index]->read(m_fd[index], static_cast<uint8_t*>(buf), length);
  return static_cast<long>(asSigned32(length));
}

long CFATAccess::readAhead(int index, void* buf, unsigned long len, unsigned long unit) {
  if (!hasReadBuffer(index) || low32(unit) == 0) return 0;
  const uint32_t taken =
      m_readBuf[index]->readAhead(static_cast<uint8_t*>(buf), low32(len), low32(unit));
  m_position[index] += taken;
  if (taken > 0) m_readFailed[index] = false;
  return static_cast<long>(taken);
}

long CFATAccess::write(int index, const void* buf, unsigned long len) {
  if (!isIndex(index)) {
    logFat(__func__, __LINE__, tarn::kMsgWriteIndex);
    return -1;
  }
  const uint32_t length = low32(len);
  m_position[index] += length;
  if (!isWriteBuffered(index)) {
    const ssize_t result = ::write(m_fd[index], buf, length);
    tarn::noteCardWrite(m_fileType[index], result);
    return result;
  }
  if (length > writeBuffer(index)->capacity()) {
    m_astray[index] = true;
    logFat(__func__, __LINE__, tarn::kMsgWriteTooLarge);
    return -1;
  }
  return writeBuffered(index, static_cast<const uint8_t*>(buf), length);
}

long CFATAccess::writeBuffered(int index, const uint8_t* data, uint32_t length) {
  WriteBuffer& buffer = *writeBuffer(index);
  uint32_t taken = 0;
  if (buffer.wantsAlignment() && !buffer.isAligned()) {
    const long result = writeUpToBoundary(index, data, length);
    if (result == -1) {
      m_astray[index] = true;
      return -1;
    }
    taken = static_cast<uint32_t>(result);
  }
  const uint32_t room = buffer.room();
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
  WriteBuffer& buffer = *writeBuffer(index);
  waitUntilWritten(index);  // the position counts only while nothing is being written
  const int64_t position = lseek64(m_fd[index], 0, SEEK_CUR);
  if (position == -1) {
    logFat("write", __LINE__, tarn::kMsgWriteLseek);
    return -1;
  }
  const auto past = static_cast<uint32_t>((position + buffer.fill()) % kAlignment);
  if (past == 0) {
    buffer.setAligned(true);
    return 0;
  }
  const uint32_t gap = static_cast<uint32_t>(kAlignment) - past;
  const uint32_t taken = std::min(gap, length);
  // A buffer that would be full first goes out as any full one; the next write looks again.
  if (taken >= buffer.room()) return 0;
  append(buffer, data, taken);
  if (taken == gap) fsync(index);
  return static_cast<long>(taken);
}

void CFATAccess::append(WriteBuffer& buffer, const uint8_t* data, uint32_t length) {
  if (length == 0) return;
  waitForFront(buffer);
  buffer.append(data, length);
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
  if (isWriteBuffered(index) || hasReadBuffer(index)) {
    if (standsAt(index, target, whence)) return positionInChunk(index);
    drain(index);
    // Kept on purpose: the device stays behind the block that was read ahead, so SEEK_CUR counts
    // from there; readers of pictures seek with SEEK_SET.
    if (hasReadBuffer(index)) m_readBuf[index]->discard();
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
  if (isWriteBuffered(index) && writeBuffer(index)->wantsAlignment()) {
    writeBuffer(index)->setAligned(position == -1 ? isSdAligned(index)
                                                  : position % kAlignment == 0);
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

int CFATAccess::fsync(int index) {
  if (!isIndex(index)) {
    logFat(__func__, __LINE__, tarn::kMsgFsyncIndex);
    return -1;
  }
  const bool empty = !isWriteBuffered(index) || writeBuffer(index)->fill() == 0;
  drain(index);
  if (!empty) return 0;
  const tarn::FlushTimer timer;
  const int result = ::fsync(m_fd[index]);
  tarn::noteCardFlush(m_fileType[index], timer.micros());
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
