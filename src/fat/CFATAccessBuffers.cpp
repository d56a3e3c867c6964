// The buffers of CFATAccess: which handle has which, from its open to its close.
#include <fcntl.h>
#include <unistd.h>

#include <new>
#include <utility>

#include "fat/CFATAccess.h"
#include "fat/ChunkFiles.h"
#include "fat/FatLog.h"
#include "fat/FatMessages.h"
#include "fat/ReadBuffer.h"
#include "fat/WriteBuffer.h"

using tarn::logFat;
using tarn::ReadBuffer;
using tarn::WriteBuffer;

namespace {

constexpr uint32_t kStreamCapacity = 1024 * 1024;
constexpr uint32_t kSmallCapacity = 32 * 1024;

bool needsWriteBuffer(int fileType, int flags) {
  const bool buffered = fileType == tarn::kFileStream || fileType == tarn::kFilePicture ||
                        fileType == tarn::kFileSyslog;
  return buffered && (flags & (O_WRONLY | O_RDWR)) != 0;
}

}  // namespace

bool CFATAccess::setUpBuffers(int index, int flags) {
  m_readFailed[index] = false;
  m_astray[index] = false;
  m_lostData[index] = 0;
  if (needsWriteBuffer(m_fileType[index], flags)) {
    if (!setUpWriteBuffer(index)) {
      logFat("open", __LINE__, tarn::kMsgWriteBufferAlloc);
      return false;
    }
    startThread();  // without a worker, the caller's thread does its work
  }
  const bool readAhead = m_fileType[index] == tarn::kFilePicture && flags == O_RDONLY;
  if (readAhead && !setUpReadBuffer(index)) {
    logFat("open", __LINE__, tarn::kMsgReadBufferAlloc);
    return false;
  }
  return true;
}

bool CFATAccess::setUpWriteBuffer(int index) {
  if (writeBuffer(index) == nullptr) {
    m_writeBuf[index].store(new (std::nothrow) WriteBuffer, std::memory_order_release);
  }
  const bool stream = m_fileType[index] == tarn::kFileStream;
  WriteBuffer* buffer = writeBuffer(index);
  return buffer != nullptr && buffer->allocate(stream ? kStreamCapacity : kSmallCapacity, stream);
}

bool CFATAccess::setUpReadBuffer(int index) {
  if (m_readBuf[index] == nullptr) m_readBuf[index] = new (std::nothrow) ReadBuffer;
  return m_readBuf[index] != nullptr && m_readBuf[index]->allocate();
}

bool CFATAccess::hasReadBuffer(int index) const {
  return isIndex(index) && m_readBuf[index] != nullptr && m_readBuf[index]->isUsed();
}

bool CFATAccess::isWriteBuffered(int index) const {
  const WriteBuffer* buffer = writeBuffer(index);
  return buffer != nullptr && buffer->isUsed();
}

void CFATAccess::release(int index) {
  if (writeBuffer(index) != nullptr) writeBuffer(index)->release();
  if (m_readBuf[index] != nullptr) m_readBuf[index]->release();
  ::close(std::exchange(m_fd[index], -1));
}
