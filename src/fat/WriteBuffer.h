#pragma once

#include <atomic>
#include <cstdint>

#include "fat/PageMemory.h"

namespace tarn {

// The two write buffers of one handle of CFATAccess: the caller's thread fills the front one, the
// worker writes the back one out. Not part of the interface.
//
// The caller's thread owns the front, unless queued() is true; the worker owns the back while
// pending() is true. The two flags change under the owner's mutex (handOver(), finish()), so that
// no wake-up is lost; who waits for them waits on a condition variable, for asking again and again
// costs the processor that the encoder needs. A full front that finds the back still pending is
// queued, and the worker itself exchanges the two when it is done: it need not wait for the caller
// to wake up first.
class WriteBuffer {
 public:
  WriteBuffer() = default;
  WriteBuffer(const WriteBuffer&) = delete;
  WriteBuffer& operator=(const WriteBuffer&) = delete;

  // `aligned`: full buffers are to begin on 64 KiB of the device. False when there is no memory.
  bool allocate(uint32_t capacity, bool aligned);
  void release();
  bool isUsed() const { return capacity_ != 0; }

  // ---- the caller's thread ----

  uint32_t capacity() const { return capacity_; }  // bytes of each of the two
  uint32_t fill() const { return fill_; }          // bytes in the front that are not handed over
  uint32_t room() const { return capacity_ - fill_; }
  // At most room() bytes; while not queued().
  void append(const uint8_t* data, uint32_t length);
  // Gives the front to the worker, behind an earlier hand-over that is still being written: true
  // when there was none, so that the worker may be idle. Under the mutex; while not queued().
  bool handOver();

  // ---- the worker ----

  const uint8_t* pendingData() const { return back_; }
  uint32_t pendingSize() const { return pendingSize_; }
  // The back is written: a queued front takes its place. Under the mutex.
  void finish();

  // ---- both ----

  bool pending() const { return pending_ != 0; }  // the back waits for the worker
  bool queued() const { return queued_ != 0; }    // the front is handed over, too
  bool wantsAlignment() const { return alignMode_; }
  // The device is known to stand on a boundary of 64 KiB.
  bool isAligned() const { return aligned_ != 0; }
  void setAligned(bool aligned) { aligned_ = aligned; }

 private:
  PageMemory memory_[2];
  uint8_t* front_ = nullptr;
  uint8_t* back_ = nullptr;
  uint32_t capacity_ = 0;
  uint32_t fill_ = 0;
  uint32_t pendingSize_ = 0;  // bytes in the back
  uint32_t queuedSize_ = 0;   // bytes in a queued front
  bool alignMode_ = false;
  std::atomic<uint8_t> aligned_{0};
  std::atomic<uint8_t> pending_{0};
  std::atomic<uint8_t> queued_{0};  // only while pending
};

}  // namespace tarn
