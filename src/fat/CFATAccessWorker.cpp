// The write side behind CFATAccess: handing buffers over and the worker that writes them out.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "base/UniqueFd.h"
#include "fat/CFATAccess.h"
#include "fat/CardWear.h"
#include "fat/FailureMarker.h"
#include "fat/FatLog.h"
#include "fat/FatMessages.h"
#include "fat/FlushTimes.h"
#include "fat/WriteBuffer.h"

using tarn::logFat;
using tarn::WriteBuffer;

namespace {

// Its existence tells the rest of the recorder that buffered data was lost. Only ever created here.
constexpr mode_t kMarkerMode = 0777;
// The worker's lines carry its own operation's name, whichever thread does the work.
constexpr char kWorker[] = "m_bufferWriteFunc";

void createMarker() {
  tarn::UniqueFd marker(open64(tarn::kFailureMarkerPath, O_WRONLY | O_CREAT, kMarkerMode));
}

}  // namespace

int CFATAccess::startThread() {
  if (m_threadRunning != 0) return 0;
  m_threadRunning = 1;
  if (pthread_create(&m_thread, nullptr, m_runThread, this) == 0) return 0;
  m_threadRunning = 0;
  logFat(__func__, __LINE__, tarn::kMsgThreadCreate);
  return -1;
}

void CFATAccess::stopThread() {
  if (m_threadRunning == 0) return;
  {
    // Under the mutex, the worker is either before its test of the flag or already waiting.
    tarn::MutexLock lock(m_mutex);
    m_threadRunning = 0;
  }
  m_cond.signal();
  pthread_join(m_thread, nullptr);
}

void* CFATAccess::m_runThread(void* arg) {
  static_cast<CFATAccess*>(arg)->m_bufferWriteFunc();
  return nullptr;
}

void CFATAccess::m_bufferWriteFunc() {
  while (m_threadRunning != 0) {
    {
      tarn::MutexLock lock(m_mutex);
      while (m_threadRunning != 0 && !anyPending()) m_cond.wait(m_mutex);
    }
    // The mutex is free meanwhile: writers of other handles, and of this one's front, go on.
    for (int index = 0; index < kHandles; ++index) {
      if (isPending(index)) writePending(index);
    }
  }
}

bool CFATAccess::anyPending() const {
  for (int index = 0; index < kHandles; ++index) {
    if (isPending(index)) return true;
  }
  return false;
}

bool CFATAccess::isPending(int index) const {
  const WriteBuffer* buffer = writeBuffer(index);
  return buffer != nullptr && buffer->pending();
}

void CFATAccess::handOver(int index) {
  WriteBuffer& buffer = *writeBuffer(index);
  bool workerMayBeIdle;
  {
    tarn::MutexLock lock(m_mutex);
    workerMayBeIdle = buffer.handOver();
  }
  if (!workerMayBeIdle) return;
  if (m_threadRunning != 0) {
    m_cond.signal();
  } else {
    writePending(index);
  }
}

void CFATAccess::waitForFront(const WriteBuffer& buffer) {
  if (!buffer.queued()) return;
  tarn::MutexLock lock(m_mutex);
  while (buffer.queued()) m_written.wait(m_mutex);
}

void CFATAccess::waitUntilWritten(int index) {
  if (!isPending(index)) return;
  tarn::MutexLock lock(m_mutex);
  while (isPending(index)) m_written.wait(m_mutex);
}

void CFATAccess::drain(int index) {
  if (isWriteBuffered(index) && writeBuffer(index)->fill() != 0) handOver(index);
  waitUntilWritten(index);
}

// Writes the back buffer out, whatever it takes, and gives it back to the caller's thread.
void CFATAccess::writePending(int index) {
  WriteBuffer& buffer = *writeBuffer(index);
  uint32_t written = 0;
  ssize_t result = 0;
  do {
    errno = 0;  // a short write sets none, and an old EINTR would have us try again
    result = ::write(m_fd[index], buffer.pendingData() + written, buffer.pendingSize() - written);
    if (result > 0) written += static_cast<uint32_t>(result);
  } while (written < buffer.pendingSize() && errno == EINTR);
  tarn::noteCardWrite(m_fileType[index], static_cast<long>(written));
  if (written == buffer.pendingSize()) {
    flushDevice(index);
  } else {
    reportLostWrite(index, result == -1 ? -1 : static_cast<long>(written), written);
  }
  if (buffer.wantsAlignment()) buffer.setAligned(isSdAligned(index));
  finishPending(buffer);
}

void CFATAccess::finishPending(WriteBuffer& buffer) {
  {
    tarn::MutexLock lock(m_mutex);
    buffer.finish();
  }
  m_written.signal();  // at most one: an object has one caller at a time
}

void CFATAccess::flushDevice(int index) {
  const tarn::FlushTimer timer;
  const int result = ::fsync(m_fd[index]);
  tarn::noteCardFlush(m_fileType[index], timer.micros());
  if (result == 0) return;
  m_lostData[index] = 1;
  logFat(kWorker, __LINE__, tarn::kMsgSyncError, errno);
  createMarker();
}

void CFATAccess::reportLostWrite(int index, long result, uint32_t written) {
  const uint32_t size = writeBuffer(index)->pendingSize();
  m_lostData[index] = 1;
  logFat(kWorker, __LINE__, tarn::kMsgWriteError, result, static_cast<long>(size), errno);
  createMarker();
  // What was lost leaves a hole; what follows goes where the caller believes it goes.
  lseek64(m_fd[index], static_cast<int64_t>(size - written), SEEK_CUR);
}
