#include "recorder/card/CardBytes.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "recorder/card/CardText.h"
#include "recorder/card/DeviceIo.h"
#include "recorder/card/ReadPatience.h"

namespace tarn {
int CardBytes::open(const std::string& path, std::string* error) {
  fd_.reset(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  if (!fd_.valid()) {
    *error = errnoText("cannot open " + path, errno);
    return -1;
  }
  size_ = deviceSize(fd_.get());
  if (size_ != 0) return 0;
  *error = path + ": no size: it is empty, or no card";
  return -1;
}

bool CardBytes::read(uint64_t offset, void* out, size_t length) const {
  if (!holds(offset, length)) return false;
  bool given = readFully(fd_.get(), offset, out, length);
  for (int tried = 1; !given && tried < kReadTries; ++tried) {
    pauseBeforeRead(tried, &patienceMs_);
    given = readFully(fd_.get(), offset, out, length);
  }
  if (given) cover(offset, static_cast<uint8_t*>(out), length);
  return given;
}

void CardBytes::cover(uint64_t offset, uint8_t* out, size_t length) const {
  // The one before may reach in.
  auto change = changes_.upper_bound(offset);
  if (change != changes_.begin()) --change;
  for (; change != changes_.end() && change->first < offset + length; ++change) {
    const auto& [start, bytes] = *change;
    const uint64_t from = std::max(offset, start);
    const uint64_t to = std::min(offset + length, start + bytes.size());
    if (from >= to) continue;
    memcpy(out + (from - offset), bytes.data() + (from - start), static_cast<size_t>(to - from));
  }
}

}  // namespace tarn
