#include "media/serve/EventFeed.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace tarn {
namespace {

constexpr int kWaitMs = 500;
// Proxies and browsers take a silent line for a dead one.
constexpr int kQuietWaits = 30;
constexpr char kStillHere[] = ": still here\n\n";
constexpr char kMissed[] = "event: missed\ndata: {}\n\n";

}  // namespace

class EventFeed::Listener : public BodyStream {
 public:
  explicit Listener(EventFeed* feed) : feed_(feed) {
    const std::lock_guard<std::mutex> lock(feed_->mutex_);
    seen_ = feed_->next_;
    ++feed_->listeners_;
  }
  ~Listener() override {
    const std::lock_guard<std::mutex> lock(feed_->mutex_);
    --feed_->listeners_;
  }

  ssize_t read(char* out, size_t room) override {
    if (at_ == text_.size() && !takeNext()) return -1;
    const size_t size = std::min(room, text_.size() - at_);
    memcpy(out, text_.data() + at_, size);
    at_ += size;
    return static_cast<ssize_t>(size);
  }

 private:
  bool takeNext() {
    text_.clear();
    at_ = 0;
    std::unique_lock<std::mutex> lock(feed_->mutex_);
    feed_->news_.wait_for(lock, std::chrono::milliseconds(kWaitMs),
                          [this] { return feed_->closed_ || seen_ != feed_->next_; });
    if (feed_->closed_) return false;
    const uint64_t first = feed_->next_ - feed_->kept_.size();
    if (seen_ == feed_->next_) {
      if (++quiet_ >= kQuietWaits) text_ = kStillHere;
    } else if (seen_ < first) {
      seen_ = first;
      text_ = kMissed;
    } else {
      text_ = feed_->kept_[static_cast<size_t>(seen_++ - first)];
    }
    if (!text_.empty()) quiet_ = 0;
    return true;
  }

  EventFeed* feed_;
  uint64_t seen_ = 0;              // number of the next one to be told
  std::string text_ = kStillHere;  // the answer begins at once
  size_t at_ = 0;
  int quiet_ = 0;
};

void EventFeed::tell(const char* name, const std::string& data) {
  const std::lock_guard<std::mutex> lock(mutex_);
  kept_.push_back(std::string("event: ") + name + "\ndata: " + data + "\n\n");
  if (kept_.size() > kKept) kept_.pop_front();
  ++next_;
  news_.notify_all();
}

void EventFeed::close() {
  const std::lock_guard<std::mutex> lock(mutex_);
  closed_ = true;
  news_.notify_all();
}

std::shared_ptr<BodyStream> EventFeed::listen() { return std::make_shared<Listener>(this); }

int EventFeed::listeners() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return listeners_;
}

}  // namespace tarn
