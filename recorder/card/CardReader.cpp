#include "recorder/card/CardReader.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>

#include "recorder/card/CardText.h"
#include "recorder/card/DeviceIo.h"

namespace tarn {

int CardReader::open(const std::string& path, std::string* error) {
  if (info_.read(path, error) != 0) return -1;
  fd_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (fd_.valid()) return 0;
  *error = errnoText("cannot open " + path, errno);
  return -1;
}

bool CardReader::read(uint64_t offset, void* out, size_t length) const {
  return readFully(fd_.get(), offset, out, length);
}

bool CardReader::readChunk(int fileType, uint32_t chunk, uint32_t offset, void* out,
                           size_t length) const {
  const CardFamily& family = this->family(fileType);
  if (chunk >= family.chunks || offset >= family.chunkSize || length > family.chunkSize)
    return false;
  const uint64_t start = family.startByte() + uint64_t{chunk} * family.chunkSize;
  const size_t toEnd = std::min<size_t>(length, family.chunkSize - offset);
  return read(start + offset, out, toEnd) &&
         read(start, static_cast<uint8_t*>(out) + toEnd, length - toEnd);
}

const uint8_t* BlockReader::at(uint64_t offset, size_t length) {
  if (offset > length_ || length_ - offset < length) return nullptr;
  const bool inBlock =
      offset >= blockStart_ && offset - blockStart_ + length <= block_.size() && !block_.empty();
  if (!inBlock) {
    blockStart_ = offset;
    const auto ahead = static_cast<size_t>(std::min<uint64_t>(kBlockBytes, length_ - offset));
    block_.resize(std::max(length, ahead));
    // Around a bad sector each piece is asked for by itself.
    if (!card_.read(start_ + offset, block_.data(), block_.size())) {
      block_.resize(length);
      if (!card_.read(start_ + offset, block_.data(), length)) {
        block_.clear();
        return nullptr;
      }
    }
  }
  return block_.data() + static_cast<size_t>(offset - blockStart_);
}

}  // namespace tarn
