#include "media/OutputFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "media/OutputFormat.h"

namespace tarn {

bool OutputFile::fail(const char* what, int code) {
  error_ = std::string("cannot ") + what + " " + name_ + ": " + strerror(code);
  return false;
}

bool OutputFile::open(const std::string& path) {
  const bool standard = path == kStandardOutput;
  name_ = standard ? "standard output" : path;
  file_.reset(standard ? ::fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3)
                       : ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
  return file_.valid() || fail("create", errno);
}

bool OutputFile::write(const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t put = TEMP_FAILURE_RETRY(::write(file_.get(), data, size));
    if (put <= 0) return fail("write", put == 0 ? ENOSPC : errno);
    data += put;
    size -= static_cast<size_t>(put);
  }
  return true;
}

bool OutputFile::close() { return file_.close() == 0 || fail("write", errno); }

}  // namespace tarn
