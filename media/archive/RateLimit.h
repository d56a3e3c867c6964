#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <thread>

namespace tarn {

// Holds its caller back so that no more bytes go in a second than are allowed. Used by one thread.
class RateLimit {
 public:
  // 0: as many as there are.
  explicit RateLimit(uint64_t bytesPerSecond) : rate_(bytesPerSecond) {}

  // These bytes are about to go. What was not used before is not caught up with.
  void take(size_t bytes) {
    if (rate_ == 0) return;
    due_ = std::max(due_, Clock::now());
    std::this_thread::sleep_until(due_);
    due_ += std::chrono::microseconds(uint64_t{bytes} * 1000000 / rate_);
  }

 private:
  using Clock = std::chrono::steady_clock;
  uint64_t rate_;
  Clock::time_point due_;
};

}  // namespace tarn
