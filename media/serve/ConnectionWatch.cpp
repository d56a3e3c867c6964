#include "media/serve/ConnectionWatch.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>

#include "media/MonotonicTime.h"

namespace tarn {
namespace {

constexpr int64_t kMostLookMs = 1000;

}  // namespace

int64_t ConnectionWatch::patienceUs(Phase phase) const {
  switch (phase) {
    case Phase::kAsking:
      return askingMs_ * 1000;
    case Phase::kAnswering:
      return answeringMs_ * 1000;
    case Phase::kListening:
      break;
  }
  return INT64_MAX;
}

void ConnectionWatch::start() {
  thread_ = std::thread([this] { run(); });
}

void ConnectionWatch::stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    wake_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

void ConnectionWatch::opened(const void* connection, int fd) {
  const std::lock_guard<std::mutex> lock(mutex_);
  known_[connection] = {fd, Phase::kAsking, monotonicUs()};
}

void ConnectionWatch::enters(const void* connection, Phase phase) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = known_.find(connection);
  if (found == known_.end()) return;
  found->second.phase = phase;
  found->second.sinceUs = monotonicUs();
}

void ConnectionWatch::closed(const void* connection) {
  const std::lock_guard<std::mutex> lock(mutex_);
  known_.erase(connection);
}

void ConnectionWatch::run() {
  const auto look = std::chrono::milliseconds(std::min(kMostLookMs, askingMs_));
  std::unique_lock<std::mutex> lock(mutex_);
  while (!wake_.wait_for(lock, look, [this] { return stopped_; })) {
    const int64_t now = monotonicUs();
    for (const auto& one : known_) {
      if (now - one.second.sinceUs > patienceUs(one.second.phase))
        shutdown(one.second.fd, SHUT_RDWR);
    }
  }
}

}  // namespace tarn
