#pragma once

#include <unistd.h>

#include <cerrno>

namespace tarn {

// fsync() that no signal ends: an interrupted one may have written nothing, and has not failed.
// 0, or -1 with errno set.
inline int syncFile(int fd) {
  int result = 0;
  do {
    result = ::fsync(fd);
  } while (result != 0 && errno == EINTR);
  return result;
}

}  // namespace tarn
