#pragma once

#include <sys/syscall.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdint>

// System calls past the C library, whose functions the tests stand in front of. A 64-bit offset is
// two arguments on a 32-bit machine, from an even one on.
namespace tarn_test {

#if __SIZEOF_LONG__ == 8

inline ssize_t rawPread(int fd, void* to, size_t length, int64_t offset) {
  return syscall(SYS_pread64, fd, to, length, offset);
}
inline ssize_t rawPwrite(int fd, const void* from, size_t length, int64_t offset) {
  return syscall(SYS_pwrite64, fd, from, length, offset);
}
inline int rawTruncate(int fd, int64_t size) {
  return static_cast<int>(syscall(SYS_ftruncate, fd, size));
}
inline int64_t rawPosition(int fd) { return syscall(SYS_lseek, fd, 0, SEEK_CUR); }

#else

inline unsigned long lowHalf(int64_t value) { return static_cast<unsigned long>(value); }
inline unsigned long highHalf(int64_t value) { return static_cast<unsigned long>(value >> 32); }

inline ssize_t rawPread(int fd, void* to, size_t length, int64_t offset) {
  return syscall(SYS_pread64, fd, to, length, 0, lowHalf(offset), highHalf(offset));
}
inline ssize_t rawPwrite(int fd, const void* from, size_t length, int64_t offset) {
  return syscall(SYS_pwrite64, fd, from, length, 0, lowHalf(offset), highHalf(offset));
}
inline int rawTruncate(int fd, int64_t size) {
  return static_cast<int>(syscall(SYS_ftruncate64, fd, 0, lowHalf(size), highHalf(size)));
}
inline int64_t rawPosition(int fd) {
  int64_t position = -1;
  return syscall(SYS__llseek, fd, 0, 0, &position, SEEK_CUR) == 0 ? position : -1;
}

#endif

}  // namespace tarn_test
