#include "fat/ReadBuffer.h"

#include <unistd.h>

#include <algorithm>
#include <cstring>

namespace tarn {
namespace {

constexpr uint32_t kBlock = 4096;

}  // namespace

bool ReadBuffer::allocate() {
  discard();
  return memory_.allocate(kBlock);
}

void ReadBuffer::discard() {
  valid_ = 0;
  pos_ = 0;
}

bool ReadBuffer::read(int fd, uint8_t* out, uint32_t length) {
  bool whole = true;
  for (uint32_t done = 0; done < length;) {
    const uint32_t piece = std::min(length - done, kBlock);
    whole = readBlock(fd, out + done, piece) && whole;
    done += piece;
  }
  return whole;
}

// Hands out at most one block; false when zeros had to stand in for bytes that did not come.
bool ReadBuffer::readBlock(int fd, uint8_t* out, uint32_t length) {
  if (int64_t{valid_} - pos_ < length) refill(fd);
  const uint32_t there = pos_ < valid_ ? std::min(length, valid_ - pos_) : 0;
  if (there > 0) memcpy(out, memory_.data() + pos_, there);
  memset(out + there, 0, length - there);
  // May pass `valid_`, so that the next refill starts where the caller believes to be, also after
  // bytes that never came.
  pos_ += std::min(length, UINT32_MAX - pos_);
  return there == length;
}

void ReadBuffer::refill(int fd) {
  const int64_t left = int64_t{valid_} - pos_;
  // A device that cannot go there has nothing to read there either; what is left stays good.
  if (left != 0 && lseek64(fd, -left, SEEK_CUR) == -1) return;
  pos_ = 0;
  valid_ = static_cast<uint32_t>(std::max<ssize_t>(0, ::read(fd, memory_.data(), kBlock)));
}

uint32_t ReadBuffer::readAhead(uint8_t* out, uint32_t length, uint32_t unit) {
  if (pos_ >= valid_) return 0;
  uint32_t taken = std::min(length, valid_ - pos_);
  taken -= taken % unit;
  memcpy(out, memory_.data() + pos_, taken);
  pos_ += taken;
  return taken;
}

}  // namespace tarn
