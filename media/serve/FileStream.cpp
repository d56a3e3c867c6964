#include "media/serve/FileStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tarn {
namespace {

constexpr ssize_t kEnd = -1;
constexpr ssize_t kBrokenOff = -2;

uint64_t sizeOf(const FileStream::Part& part) {
  return part.path.empty() ? part.text.size() : part.size;
}

}  // namespace

FileStream::FileStream(std::vector<Part> parts, std::shared_ptr<void> kept)
    : parts_(std::move(parts)), kept_(std::move(kept)) {}

uint64_t FileStream::size() const {
  uint64_t size = 0;
  for (const Part& part : parts_) size += sizeOf(part);
  return size;
}

ssize_t FileStream::readPart(const Part& part, char* out, size_t room) {
  const auto most = static_cast<size_t>(std::min<uint64_t>(room, sizeOf(part) - sent_));
  if (part.path.empty()) {
    memcpy(out, part.text.data() + sent_, most);
    return static_cast<ssize_t>(most);
  }
  if (sent_ == 0) file_.reset(open(part.path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  ssize_t got = -1;
  do {
    got = ::read(file_.get(), out, most);
  } while (got < 0 && errno == EINTR);
  return got > 0 ? got : kBrokenOff;
}

ssize_t FileStream::read(char* out, size_t room) {
  while (part_ < parts_.size() && sent_ == sizeOf(parts_[part_])) {
    ++part_;
    sent_ = 0;
  }
  if (part_ == parts_.size()) return kEnd;
  const ssize_t got = readPart(parts_[part_], out, room);
  if (got > 0) sent_ += static_cast<uint64_t>(got);
  return got;
}

}  // namespace tarn
