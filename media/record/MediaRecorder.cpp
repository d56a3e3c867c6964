#include "media/record/MediaRecorder.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <list>
#include <mutex>
#include <thread>

#include "media/record/ChannelRecorder.h"
#include "recorder/card/NoThrow.h"
#include "recorder/session/StatusTeller.h"

namespace tarn {
namespace {

constexpr std::chrono::milliseconds kLook{100};
constexpr char kErrNoThread[] = "no thread can be started for each input";

}  // namespace

class MediaRecorder::Impl {
 public:
  Impl(const RecordRequest& request, RecordListener* listener)
      : request_(request), listener_(listener) {
    for (const InputRequest& input : request_.inputs)
      channels_.emplace_back(request_, input, listener_);
  }
  bool run();
  const char* error() const { return noThreads_ ? kErrNoThread : error_.c_str(); }
  std::vector<ChannelRecording> recordings() const;

 private:
  void startThreads();
  void runChannel(ChannelRecorder* channel);
  void waitForChannels();
  uint64_t safePictures() const;

  const RecordRequest request_;
  RecordListener* const listener_;
  std::list<ChannelRecorder> channels_;
  std::list<std::thread> threads_;
  std::mutex mutex_;
  std::condition_variable ended_;
  size_t running_ = 0;
  bool good_ = true;
  uint32_t failed_ = 0;  // channels
  bool noThreads_ = false;
  std::string error_;
};

void MediaRecorder::Impl::runChannel(ChannelRecorder* channel) {
  const bool done = channel->run();
  const std::lock_guard<std::mutex> lock(mutex_);
  good_ = done && good_;
  if (!done) ++failed_;
  --running_;
  ended_.notify_one();
}

// All or none: half of the cameras would look like all of them.
void MediaRecorder::Impl::startThreads() {
  for (ChannelRecorder& channel : channels_) {
    const std::lock_guard<std::mutex> lock(mutex_);
    try {
      threads_.emplace_back([this, &channel] { runChannel(&channel); });
    } catch (const std::exception&) {
      noThreads_ = true;
      break;
    }
    ++running_;
  }
  if (!noThreads_) return;
  for (ChannelRecorder& channel : channels_) channel.stop();
}

uint64_t MediaRecorder::Impl::safePictures() const {
  uint64_t safe = 0;
  for (const ChannelRecorder& channel : channels_) safe += channel.safePictures();
  return safe;
}

void MediaRecorder::Impl::waitForChannels() {
  StatusTeller teller;
  std::unique_lock<std::mutex> lock(mutex_);
  while (!ended_.wait_for(lock, kLook, [this] { return running_ == 0; })) {
    const uint32_t failed = failed_;
    lock.unlock();
    teller.tell(failed);
    listener_->meanwhile(safePictures());
    lock.lock();
  }
}

bool MediaRecorder::Impl::run() {
  if (!checkRecordRequest(request_, &error_)) return false;
  EventKeeper keeper;
  keeper.start(request_.keeper);  // its failure is in the log, and no reason not to record
  startThreads();
  waitForChannels();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
  keeper.stop(true);
  return good_ && !noThreads_;
}

std::vector<ChannelRecording> MediaRecorder::Impl::recordings() const {
  std::vector<ChannelRecording> all;
  for (const ChannelRecorder& channel : channels_) all.push_back(channel.recording());
  return all;
}

MediaRecorder::MediaRecorder(const RecordRequest& request, RecordListener* listener) noexcept {
  impl_ = orNoMemory(
      "MediaRecorder", [&] { return std::make_unique<Impl>(request, listener); },
      [] { return std::unique_ptr<Impl>(); });
}

MediaRecorder::~MediaRecorder() = default;

bool MediaRecorder::run() noexcept {
  if (!impl_) return false;
  return orNoMemory(
      "MediaRecorder::run", [&] { return impl_->run(); }, [] { return false; });
}

const char* MediaRecorder::error() const noexcept { return impl_ ? impl_->error() : kErrNoMemory; }

std::vector<ChannelRecording> MediaRecorder::recordings() const noexcept {
  return orNoMemory(
      "MediaRecorder::recordings",
      [&] { return impl_ ? impl_->recordings() : std::vector<ChannelRecording>(); },
      [] { return std::vector<ChannelRecording>(); });
}

}  // namespace tarn
