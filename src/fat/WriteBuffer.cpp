#include "fat/WriteBuffer.h"

#include <cstring>
#include <utility>

namespace tarn {

bool WriteBuffer::allocate(uint32_t capacity, bool aligned) {
  capacity_ = capacity;
  alignMode_ = aligned;
  fill_ = 0;
  pendingSize_ = 0;
  aligned_ = 0;
  for (PageMemory& memory : memory_) {
    if (!memory.allocate(capacity)) return false;
  }
  front_ = memory_[0].data();
  back_ = memory_[1].data();
  return true;
}

void WriteBuffer::release() {
  for (PageMemory& memory : memory_) memory.release();
  front_ = nullptr;
  back_ = nullptr;
  capacity_ = 0;
  fill_ = 0;
}

void WriteBuffer::append(const uint8_t* data, uint32_t length) {
  memcpy(front_ + fill_, data, length);
  fill_ += length;
}

bool WriteBuffer::handOver() {
  const uint32_t size = std::exchange(fill_, 0);
  if (pending_ != 0) {
    queuedSize_ = size;
    queued_ = 1;
    return false;
  }
  std::swap(front_, back_);
  pendingSize_ = size;
  pending_ = 1;
  return true;
}

void WriteBuffer::finish() {
  if (queued_ != 0) {
    std::swap(front_, back_);
    pendingSize_ = queuedSize_;
    queued_ = 0;
  } else {
    pendingSize_ = 0;
    pending_ = 0;
  }
}

}  // namespace tarn
