#include "WriteProtection.h"

#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

// Behind sys/stat.h, which it needs.
#include <linux/fs.h>

#include <cerrno>
#include <cstring>

#include "FileOriginal.h"

namespace tarn {
namespace {

// What a write blocker makes of a device.
bool isReadOnlyDevice(const std::string& path) {
  const UniqueFd fd(openUntouched(path));
  int readOnly = 0;
  return fd.valid() && ioctl(fd.get(), BLKROGET, &readOnly) == 0 && readOnly != 0;
}

}  // namespace

std::string whyNotWritable(const std::string& path) {
  struct stat card;
  if (stat(path.c_str(), &card) != 0) return "";
  if (access(path.c_str(), W_OK) != 0) return strerror(errno);
  if (S_ISBLK(card.st_mode)) return isReadOnlyDevice(path) ? "the device is read-only" : "";
  constexpr mode_t kWriters = S_IWUSR | S_IWGRP | S_IWOTH;
  return (card.st_mode & kWriters) == 0 ? "nobody has permission to write" : "";
}

}  // namespace tarn
