#include "base/UniqueFd.h"

#include <cerrno>

namespace tarn {

void UniqueFd::reset(int fd) {
  const int savedErrno = errno;
  close();
  errno = savedErrno;
  fd_ = fd;
}

int UniqueFd::close() { return fd_ >= 0 ? ::close(release()) : 0; }

}  // namespace tarn
