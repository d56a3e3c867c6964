#include "FileOriginal.h"

#include <fcntl.h>

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
