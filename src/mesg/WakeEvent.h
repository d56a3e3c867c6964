#pragma once

#include <unistd.h>

#include <cerrno>
#include <cstdint>

// An eventfd by which one thread wakes another.
namespace tarn {

// Only write() and errno: also called from signal handlers.
inline void raiseEvent(int eventFd) {
  const int savedErrno = errno;
  const uint64_t one = 1;
  // It fails only when the counter is full, and then the reader will wake anyway.
  [[maybe_unused]] const ssize_t written = write(eventFd, &one, sizeof one);
  errno = savedErrno;
}

inline void clearEvent(int eventFd) {
  uint64_t count;
  [[maybe_unused]] const ssize_t got = read(eventFd, &count, sizeof count);
}

}  // namespace tarn
