#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "base/Export.h"
#include "base/Mutex.h"

namespace tarn {
class ReadBuffer;
class WriteBuffer;
}  // namespace tarn

// Raw access to the chunks of a card. Hands out small handles (0 to 49), each standing for one
// chunk of one family on one block device, and reads, writes and seeks inside it. Positions are
// relative to the chunk's first byte; nothing stops a caller at the chunk's end.
//
// Stream (CKST), picture (CKPC) and system log (CKSL) chunks opened for writing are
// double-buffered: write() only copies, and one worker thread per object writes full buffers to the
// device, each followed by the device's fsync. What the worker could not write is dropped, logged
// and marked by the file "/tmp/sd_err_mem_write". Picture chunks opened read-only are read in
// blocks of 4096 bytes.
//
// One thread at a time may use an object; the object's own worker takes care of itself. Failures
// are -1 and one line at LOG_ERR; the device's own errors on unbuffered handles come back as they
// are, with errno and without a line.
class TARN_API CFATAccess {
 public:
  CFATAccess();
  // Closes every open handle, each with its flush, and stops the worker.
  ~CFATAccess();
  CFATAccess(const CFATAccess&) = delete;
  CFATAccess& operator=(const CFATAccess&) = delete;

  // Opens the chunk "device:TAGnnnn" (for example "/dev/sdblk0p1:CKST0007") and returns its handle,
  // the lowest free one, or -1. flags go to the device's open and select the buffering; a device
  // that is missing is never created. The volume is read afresh each time. The chunk number is not
  // checked against chunks(). Nothing is flushed: there is nothing yet.
  int open(const char* name, int flags);

  // Geometry of an open handle's family, as read at open(); 0 for an index outside the table. An
  // open() that found the volume and failed behind its directory leaves chunks() at 0.
  unsigned short chunks(int index);
  unsigned long getChunkSize(int index);  // bytes
  // Size in bytes of a CKST or CKPC chunk, whatever the handle's own family.
  unsigned long streamChunkSize(int index);
  unsigned long pictureChunkSize(int index);

  // Reads len bytes and returns what the device gave, or -1. Picture chunks opened read-only always
  // give len: what the device did not deliver reads as zeros, see lastReadFailed(). Buffered writes
  // of the handle reach the device first.
  long read(int index, void* buf, unsigned long len);
  // Writes len bytes and returns the bytes accepted, or -1. Buffered handles refuse more than one
  // buffer (1 MiB for CKST, 32 KiB for CKPC and CKSL) and never report the device's failure. Blocks
  // only while both buffers of the handle are full.
  long write(int index, const void* buf, unsigned long len);
  // SEEK_SET or SEEK_CUR; the new position in the chunk as a signed 32-bit value, or -1. A seek
  // that moves a write-buffered handle writes and flushes first what is in its buffers, and leaves
  // the device's flush out when there is nothing; one to where it stands does nothing.
  // After a read or write that did not do all it was asked for the handle reports a position that
  // the device never reached, and SEEK_SET moves the device there. On a read-buffered handle
  // SEEK_CUR with an offset other than 0 counts from the end of the last block read.
  long lseek(int index, long offset, int whence);
  // Returns when everything written has reached the medium: 0, -1, or the device's own result when
  // nothing was buffered.
  int fsync(int index);
  // Flushes, frees the buffers, closes the device: 0, or -1 for an index without an open handle.
  int close(int index);

  // True when the device's position is a multiple of 64 KiB.
  bool isSdAligned(int index);
  // True when the handle's last read() got fewer bytes from the device than were asked for, be it
  // an error or the device's end; false for an index outside the table and before the first read().
  bool lastReadFailed(int index) const { return isIndex(index) && m_readFailed[index]; }

  // True when something of what this handle was given since its open() is not on the medium for
  // all that is known: it could not be written or flushed, and a later flush that works proves
  // nothing about it. The marker file says the same of all
  // handles, unless the RAM disk has no room for it. False for an index outside the table. A
  // drained handle's answer (after fsync()) covers all its writes.
  bool hasLostData(int index) const { return isIndex(index) && m_lostData[index] != 0; }

  // True for an open picture chunk that is read in blocks.
  bool hasReadBuffer(int index) const;
  // Copies at most `len` bytes of what read() would give next without asking the device, in whole
  // records of `unit` bytes, and moves behind them. Returns the bytes copied; 0 on a handle that
  // reads without a buffer.
  long readAhead(int index, void* buf, unsigned long len, unsigned long unit);

  // Starts the write worker unless it runs: 0 or -1. open() does so where it is needed.
  int startThread();
  // Entry of the worker thread; arg is the object. Returns null.
  static void* m_runThread(void* arg);
  // The worker's loop: returns when the object is being destroyed, or at once when no worker runs.
  void m_bufferWriteFunc();

 private:
  static constexpr int kHandles = 50;
  static constexpr int kDeviceRoom = 64;

  static bool isIndex(int index) { return index >= 0 && index < kHandles; }
  void stopThread();
  int freeIndex() const;
  bool parseName(const char* name, int index);
  bool locateFamily(int fd, int index);
  bool setUpBuffers(int index, int flags);
  // False when there is no memory.
  bool setUpWriteBuffer(int index);
  bool setUpReadBuffer(int index);
  // Frees the buffers, closes the device and makes the index free, whatever open() had got to.
  void release(int index);

  long writeBuffered(int index, const uint8_t* data, uint32_t length);
  long writeUpToBoundary(int index, const uint8_t* data, uint32_t length);
  void append(tarn::WriteBuffer& buffer, const uint8_t* data, uint32_t length)
      TARN_EXCLUDES(m_mutex);

  int64_t chunkStart(int index) const;
  long positionInChunk(int index) const;
  bool standsAt(int index, int64_t target, int whence) const;
  long seekDevice(int index, int64_t target, int whence);

  bool isWriteBuffered(int index) const;
  // Null before the handle's first buffered open().
  tarn::WriteBuffer* writeBuffer(int index) const {
    return m_writeBuf[index].load(std::memory_order_acquire);
  }
  // Gives the front to the worker, behind an earlier hand-over that is still being written.
  void handOver(int index) TARN_EXCLUDES(m_mutex);
  void finishPending(tarn::WriteBuffer& buffer) TARN_EXCLUDES(m_mutex);
  // Returns when the front can be filled again.
  void waitForFront(const tarn::WriteBuffer& buffer) TARN_EXCLUDES(m_mutex);
  void waitUntilWritten(int index) TARN_EXCLUDES(m_mutex);
  // Returns when nothing of the handle is buffered any more.
  void drain(int index) TARN_EXCLUDES(m_mutex);
  bool anyPending() const;
  bool isPending(int index) const;
  void writePending(int index) TARN_EXCLUDES(m_mutex);
  void flushDevice(int index);
  void reportLostWrite(int index, long result, uint32_t written);

  uint8_t m_maxIndex = kHandles;
  int32_t m_fd[kHandles];  // -1: free handle
  uint32_t m_startSector[kHandles] = {};
  int8_t m_fileType[kHandles] = {};
  int16_t m_chunkNo[kHandles] = {};
  uint64_t m_position[kHandles] = {};  // of the device as the caller sees it, front included
  uint16_t m_chunkCount[kHandles] = {};
  uint32_t m_chunkSize[kHandles] = {};
  // Made for a handle's first buffered open() and kept for later ones until the object goes: the
  // worker looks at all of them at any time.
  std::atomic<tarn::WriteBuffer*> m_writeBuf[kHandles] = {};
  tarn::ReadBuffer* m_readBuf[kHandles] = {};
  char m_deviceName[kDeviceRoom] = {};  // of the last open(), one for the whole object
  uint32_t m_streamChunkSize[kHandles] = {};
  uint32_t m_pictureChunkSize[kHandles] = {};
  pthread_t m_thread{};
  tarn::Mutex m_mutex;
  tarn::CondVar m_cond;                     // the worker waits for work
  tarn::CondVar m_written;                  // the caller waits for the worker
  std::atomic<int32_t> m_threadRunning{0};  // cleared under m_mutex to stop the worker
  bool m_readFailed[kHandles] = {};
  bool m_astray[kHandles] = {};  // the device does not stand where m_position says
  std::atomic<uint8_t> m_lostData[kHandles] = {};
};
