#include "media/serve/Turns.h"

#include <chrono>

namespace tarn {
namespace {

constexpr auto kPatience = std::chrono::seconds(10);

}  // namespace

bool Turns::enter(Of what) {
  if (what == Of::kCard && !writers_->wait()) return false;
  std::unique_lock<std::mutex> lock(mutex_);
  if (!left_.wait_for(lock, kPatience, [this] { return free_ > 0; })) return false;
  --free_;
  return true;
}

void Turns::leave() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++free_;
  left_.notify_one();
}

}  // namespace tarn
