#include "media/serve/FileStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace tarn {
namespace {

constexpr ssize_t kEnd = -1;
constexpr ssize_t kBrokenOff = -2;

}  // namespace

FileStream::FileStream(std::string path, uint64_t size, std::shared_ptr<void> kept)
    : path_(std::move(path)), kept_(std::move(kept)), left_(size) {}

ssize_t FileStream::read(char* out, size_t room) {
  if (left_ == 0) return kEnd;
  if (!file_.valid()) file_.reset(open(path_.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  const auto most = static_cast<size_t>(std::min<uint64_t>(room, left_));
  ssize_t got = -1;
  do {
    got = ::read(file_.get(), out, most);
  } while (got < 0 && errno == EINTR);
  if (got <= 0) return kBrokenOff;
  left_ -= static_cast<uint64_t>(got);
  return got;
}

}  // namespace tarn
