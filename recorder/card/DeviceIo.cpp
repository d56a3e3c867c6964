#include "recorder/card/DeviceIo.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

// Behind sys/stat.h, which it needs.
#include <linux/fs.h>

#include <cerrno>

namespace tarn {

ssize_t readUpTo(int fd, uint64_t offset, void* out, size_t length) {
  auto* bytes = static_cast<uint8_t*>(out);
  size_t done = 0;
  while (done < length) {
    const ssize_t got = pread(fd, bytes + done, length - done, static_cast<off_t>(offset + done));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return -1;
    if (got == 0) break;
    done += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

bool readFully(int fd, uint64_t offset, void* out, size_t length) {
  return readUpTo(fd, offset, out, length) == static_cast<ssize_t>(length);
}

bool writeFully(int fd, uint64_t offset, const void* data, size_t length, uint64_t* failedByte) {
  const auto* bytes = static_cast<const uint8_t*>(data);
  for (size_t done = 0; done < length;) {
    const ssize_t put = pwrite(fd, bytes + done, length - done, static_cast<off_t>(offset + done));
    if (put < 0 && errno == EINTR) continue;
    if (put == 0) errno = ENOSPC;
    if (put <= 0) {
      *failedByte = offset + done;
      return false;
    }
    done += static_cast<size_t>(put);
  }
  return true;
}

uint64_t deviceSize(int fd) {
  struct stat file;
  if (fstat(fd, &file) != 0) return 0;
  uint64_t bytes = 0;
  if (S_ISBLK(file.st_mode)) return ioctl(fd, BLKGETSIZE64, &bytes) == 0 ? bytes : 0;
  return static_cast<uint64_t>(file.st_size);
}

}  // namespace tarn
