#pragma once

#include <cstddef>
#include <cstdint>

namespace tarn {

// Memory of a buffer, from malloc, that begins on a page: the system copies from and to any other
// place at half the speed. What is released goes to the next buffer of its size: the process keeps
// at most two of each, those of one handle. Empty until allocate(). Not copyable; used by one
// thread.
class PageMemory {
 public:
  PageMemory() = default;
  ~PageMemory() { release(); }
  PageMemory(const PageMemory&) = delete;
  PageMemory& operator=(const PageMemory&) = delete;

  // False when there is no memory. Releases what it had before. What it holds is whatever was
  // there.
  bool allocate(size_t bytes);
  void release();
  // Null when empty.
  uint8_t* data() const { return data_; }

 private:
  void* memory_ = nullptr;
  size_t bytes_ = 0;
  uint8_t* data_ = nullptr;  // in it
};

}  // namespace tarn
