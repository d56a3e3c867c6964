#pragma once

#include <cstdint>

#include "fat/PageMemory.h"

namespace tarn {

// Read-ahead of one handle of CFATAccess: the device is read in blocks of 4096 bytes. Not part of
// the interface. Used by one thread.
class ReadBuffer {
 public:
  // False when there is no memory; the handle then reads without a buffer.
  bool allocate();
  void release() { memory_.release(); }
  bool isUsed() const { return memory_.data() != nullptr; }

  // Hands out `length` bytes from where the last read ended; the device stands behind the block.
  // What it did not deliver reads as zeros, and the result is false.
  bool read(int fd, uint8_t* out, uint32_t length);
  // Hands out at most `length` bytes that are there already, in whole records of `unit` bytes (not
  // 0). Returns how many.
  uint32_t readAhead(uint8_t* out, uint32_t length, uint32_t unit);
  // Forgets what was read ahead. The device stays where it is.
  void discard();

 private:
  bool readBlock(int fd, uint8_t* out, uint32_t length);
  void refill(int fd);

  PageMemory memory_;   // one block
  uint32_t valid_ = 0;  // bytes that the last device read brought
  uint32_t pos_ = 0;    // bytes handed out; above valid_ once zeros stood in for missing ones
};

}  // namespace tarn
