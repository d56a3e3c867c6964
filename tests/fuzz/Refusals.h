#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace tarn_fuzz {

// Bytes that a device does not deliver or take.
struct Refusal {
  uint64_t from = 0;
  uint64_t to = 0;
  int skip = 0;          // calls that touch them and go through before
  int times = 0;         // calls that touch them and are refused then; kForever: all
  bool writes = false;   // instead of reads
  bool isShort = false;  // what lies in front of them is transferred, instead of an error
};
inline constexpr int kForever = 1 << 30;

// The device is the file of descriptor `fd`, through whatever descriptor it is asked, and refuses
// these from now on. As on a block device, no position behind its end can be taken. The C
// library's read(), pread(), write(), pwrite() and lseek() stand behind ours. Any thread.
void refuse(int fd, std::vector<Refusal> refusals);
// Calls of the device since then: refused ones, and all that write.
uint64_t refusedCalls();
uint64_t deviceWrites();

// Pages of the device that were written to since they were last taken, each once, in any order:
// all that may differ from what was there. noteWritten() is for who writes past the functions that
// this one stands in front of.
inline constexpr size_t kPage = 4096;
std::vector<uint32_t> takeWrittenPages();
void noteWritten(uint64_t offset, size_t length);

}  // namespace tarn_fuzz
