#include "recorder/rows/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>

namespace tarn {

FileLock::Outcome FileLock::take(const char* path, bool wait) {
  UniqueFd fd(open(path, O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660));
  if (!fd.valid()) return Outcome::kCannotOpen;
  int result = 0;
  do {
    result = flock(fd.get(), wait ? LOCK_EX : LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result != 0) return errno == EWOULDBLOCK ? Outcome::kHeldByOther : Outcome::kCannotOpen;
  fd_ = static_cast<UniqueFd&&>(fd);
  return Outcome::kTaken;
}

}  // namespace tarn
