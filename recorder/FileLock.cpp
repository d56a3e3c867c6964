#include "recorder/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace tarn {

bool FileLock::lock(const char* path, bool wait) {
  UniqueFd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0660));
  if (!fd.valid()) return false;
  int result = 0;
  do {
    result = flock(fd.get(), wait ? LOCK_EX : LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result != 0) return false;
  fd_ = static_cast<UniqueFd&&>(fd);
  return true;
}

}  // namespace tarn
