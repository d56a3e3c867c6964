#include "media/InputBytes.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "media/MonotonicTime.h"

namespace tarn {

// The wait is short, for a signal just before it does not end it.
ssize_t InputBytes::readNew(uint8_t* out, size_t size, int patienceMs) {
  constexpr int kWaitMs = 100;
  const int64_t beganUs = monotonicUs();
  for (;;) {
    struct pollfd input = {fd_.get(), POLLIN, 0};
    const int ready = poll(&input, 1, kWaitMs);
    if (stopAsked_()) {
      errno = EINTR;
      return -1;
    }
    if (ready == 0 && patienceMs >= 0 && monotonicUs() - beganUs >= int64_t{patienceMs} * 1000) {
      errno = ETIMEDOUT;
      return -1;
    }
    if (ready <= 0) continue;
    const ssize_t got = ::read(fd_.get(), out, size);
    if (got >= 0 || (errno != EINTR && errno != EAGAIN)) return got;
  }
}

ssize_t InputBytes::read(uint8_t* out, size_t size, int patienceMs) {
  if (ahead_.empty()) return readNew(out, size, patienceMs);
  const size_t count = std::min(size, ahead_.size());
  memcpy(out, ahead_.data(), count);
  ahead_.erase(ahead_.begin(), ahead_.begin() + static_cast<std::ptrdiff_t>(count));
  return static_cast<ssize_t>(count);
}

const std::vector<uint8_t>& InputBytes::ahead(size_t count) {
  while (ahead_.size() < count) {
    const size_t have = ahead_.size();
    ahead_.resize(count);
    const ssize_t got = readNew(ahead_.data() + have, count - have, kForever);
    ahead_.resize(have + static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (got <= 0) break;
  }
  return ahead_;
}

bool InputBytes::isLive() const {
  struct stat file = {};
  return fstat(fd_.get(), &file) != 0 || !S_ISREG(file.st_mode);
}

}  // namespace tarn
