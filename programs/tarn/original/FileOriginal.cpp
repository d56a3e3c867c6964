#include "FileOriginal.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "recorder/card/CardText.h"
#include "recorder/card/DeviceIo.h"

namespace tarn {

int openUntouched(const std::string& path) {
  constexpr int kFlags = O_RDONLY | O_CLOEXEC;
  const int fd = ::open(path.c_str(), kFlags | O_NOATIME);
  // Only the owner and root may ask for that.
  return fd < 0 && errno == EPERM ? ::open(path.c_str(), kFlags) : fd;
}

std::unique_ptr<FileOriginal> FileOriginal::open(const std::string& path, std::string* error) {
  struct stat file;
  if (stat(path.c_str(), &file) != 0) {
    *error = errnoText("cannot open " + path, errno);
    return nullptr;
  }
  // A pipe would be waited for.
  if (!S_ISREG(file.st_mode) && !S_ISBLK(file.st_mode)) {
    *error = path + " is neither a block device nor an image file nor a folder";
    return nullptr;
  }
  UniqueFd fd(openUntouched(path));
  if (!fd.valid()) {
    *error = errnoText("cannot open " + path, errno);
    return nullptr;
  }
  const uint64_t size = deviceSize(fd.get());
  return std::unique_ptr<FileOriginal>(new FileOriginal(std::move(fd), size));
}

bool FileOriginal::read(uint64_t offset, void* out, size_t length) {
  return offset <= size_ && length <= size_ - offset && readFully(fd_.get(), offset, out, length);
}

}  // namespace tarn
