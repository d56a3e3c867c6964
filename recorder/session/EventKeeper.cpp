#include "recorder/session/EventKeeper.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <mutex>
#include <thread>

#include "mesg/CMesgServer.h"
#include "recorder/card/NoThrow.h"
#include "recorder/rows/FileLock.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/KeepJob.h"
#include "recorder/session/KeepRequest.h"
#include "recorder/session/KeptMessages.h"

namespace tarn {
namespace {

constexpr unsigned long kSelectUs = 20000;
constexpr int64_t kLookedAtMs = 300;
constexpr int kIdleMs = 250;
constexpr int64_t kRetryMs = 500;
// Whoever asks is told what became of it as long as this.
constexpr size_t kJobsRemembered = 64;
// A copy takes a quarter of the time, and no step makes more than this of a wait. That makes it one
// of low priority, also for the card; the system's own priorities would take calls that the
// recorder's unit denies.
constexpr int64_t kRestFactor = 3;
constexpr int64_t kLongestRestMs = 2000;

std::mutex theKeeperMutex;
EventKeeper* theKeeper = nullptr;  // under it

}  // namespace

class EventKeeper::Impl {
 public:
  explicit Impl(const KeeperOptions& options) : options_(options) {}
  ~Impl() { stop(false); }

  int start();
  void stop(bool finish);
  void add(const KeepRequest& request);
  bool keepsEveryEvent() const { return options_.everyEvent; }

 private:
  void run();
  void serve();
  KeepAnswer answer(const KeepRequest& request);
  uint32_t addLocked(const KeepRequest& request);
  KeepJob* due(int64_t nowMs);
  void work(KeepJob* job);
  bool rest(uint32_t bytes);
  bool hasWork();

  const KeeperOptions options_;
  FileLock lock_;
  CMesgServer server_{kKeeperSocket, 0, kSelectUs};
  KeptCopies copies_;  // of the thread
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> finish_{false};
  int64_t stepBeganMs_ = 0;
  std::mutex mutex_;
  std::deque<KeepJob> jobs_;  // under mutex_; only the thread takes any away
  uint32_t lastTicket_ = 0;
};

int EventKeeper::Impl::start() {
  // Whoever asks whether there is a keeper holds it for a moment.
  if (!retryFor(kLookedAtMs, [this] { return lock_.lock(kKeeperLock, false); })) {
    syslog(LOG_ERR, "%s", kMsgKeeperElsewhere);
    return -1;
  }
  server_.setSocketMode(0600);
  if (server_.startAcceptNewConnectionThread() != 0 || server_.waitUntilListening() != 0) {
    syslog(LOG_ERR, "%s", kMsgKeeperNoSocket);
    return -1;
  }
  if (options_.everyEvent) {
    for (const uint32_t eventID : eventsLeftWithoutCopies()) {
      KeepRequest request;
      request.command = KeepCommand::kKeepEvent;
      request.number = eventID;
      add(request);
    }
  }
  thread_ = std::thread([this] { run(); });
  return 0;
}

void EventKeeper::Impl::stop(bool finish) {
  if (finish) finish_ = true;
  if (!finish) stop_ = true;
  server_.interrupt();
  if (thread_.joinable()) thread_.join();
  server_.stopAcceptNewConnectionThread();
  server_.closeClients();
  lock_.unlock();
}

uint32_t EventKeeper::Impl::addLocked(const KeepRequest& request) {
  jobs_.emplace_back();
  jobs_.back().request = request;
  jobs_.back().ticket = ++lastTicket_;
  return lastTicket_;
}

void EventKeeper::Impl::add(const KeepRequest& request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  addLocked(request);
}

// A request is noted, and its ticket asked for until it is done: a copy takes longer than anybody
// waits for an answer.
KeepAnswer EventKeeper::Impl::answer(const KeepRequest& request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  KeepAnswer answer;
  if (request.command != KeepCommand::kAsk) {
    answer.ticket = addLocked(request);
    answer.state = KeepState::kWaiting;
    return answer;
  }
  answer.ticket = request.number;
  for (const KeepJob& job : jobs_) {
    if (job.ticket != request.number) continue;
    answer.state = job.state;
    answer.result = job.result;
    answer.text = job.text;
  }
  return answer;
}

void EventKeeper::Impl::serve() {
  uint8_t bytes[kKeepAnswerSize];
  long client = -1;
  const int marked = server_.select();
  if (marked < 0) server_.waitForClient(kIdleMs);
  if (marked <= 0) return;
  for (;;) {
    const long got = server_.readReady(bytes, sizeof bytes, &client);
    if (got == 0) return;
    KeepRequest request;
    if (got < 0 || !decodeKeepRequest(bytes, got, &request)) continue;
    encodeKeepAnswer(answer(request), bytes);
    server_.writeMesg(bytes, kKeepAnswerSize, client);
  }
}

// Between two steps of a copy, with ears for requests.
bool EventKeeper::Impl::rest(uint32_t) {
  if (finish_) return !stop_;  // nobody records any more
  const int64_t began = monotonicMs();
  const int64_t until = began + std::min(kRestFactor * (began - stepBeganMs_) + 1, kLongestRestMs);
  while (!stop_ && monotonicMs() < until) serve();
  stepBeganMs_ = monotonicMs();
  return !stop_;
}

KeepJob* EventKeeper::Impl::due(int64_t nowMs) {
  const std::lock_guard<std::mutex> lock(mutex_);
  while (jobs_.size() > kJobsRemembered && jobs_.front().state != KeepState::kWaiting)
    jobs_.pop_front();
  const auto found = std::find_if(jobs_.begin(), jobs_.end(), [nowMs](const KeepJob& job) {
    return job.state == KeepState::kWaiting && job.nextTryMs <= nowMs;
  });
  return found == jobs_.end() ? nullptr : &*found;  // others are added behind it, and it stays
}

bool EventKeeper::Impl::hasWork() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::any_of(jobs_.begin(), jobs_.end(),
                     [](const KeepJob& job) { return job.state == KeepState::kWaiting; });
}

void EventKeeper::Impl::work(KeepJob* job) {
  KeepJob result = *job;
  KeepOptions options = options_.budget;
  if (job->request.budgetChunks != 0) options.budgetChunks = job->request.budgetChunks;
  options.strict = options.strict || job->request.strict;
  stepBeganMs_ = monotonicMs();
  carryOut(
      &copies_, options, [this](uint32_t bytes) { return rest(bytes); }, &result);
  result.nextTryMs = monotonicMs() + kRetryMs;
  if (result.state == KeepState::kFailed)
    syslog(LOG_WARNING, kMsgNotKept, result.request.number, result.text.c_str());
  const std::lock_guard<std::mutex> lock(mutex_);
  *job = result;
}

void EventKeeper::Impl::run() {
  while (!stop_ && !(finish_ && !hasWork())) {
    orNoMemory(
        "EventKeeper",
        [this] {
          serve();
          KeepJob* job = due(monotonicMs());
          if (job != nullptr) work(job);
          return 0;
        },
        [] {
          usleep(static_cast<useconds_t>(kIdleMs) * 1000);
          return 0;
        });
    if (!hasWork()) copies_.close();
  }
  copies_.close();
}

EventKeeper::EventKeeper() = default;
EventKeeper::~EventKeeper() { stop(); }

int EventKeeper::start(const KeeperOptions& options) {
  return orNoMemory(
      "EventKeeper",
      [&]() -> int {
        const std::lock_guard<std::mutex> lock(theKeeperMutex);
        if (theKeeper != nullptr) return -1;
        auto impl = std::make_unique<Impl>(options);
        if (impl->start() != 0) return -1;
        impl_ = std::move(impl);
        theKeeper = this;
        return 0;
      },
      []() -> int { return -1; });
}

void EventKeeper::stop(bool finish) {
  {
    const std::lock_guard<std::mutex> lock(theKeeperMutex);
    if (theKeeper == this) theKeeper = nullptr;
  }
  if (impl_ && finish) impl_->stop(true);
  impl_.reset();
}

int EventKeeper::keepEvent(uint32_t eventID) {
  return orNoMemory(
      "EventKeeper",
      [&]() -> int {
        if (!impl_) return -1;
        KeepRequest request;
        request.command = KeepCommand::kKeepEvent;
        request.number = eventID;
        impl_->add(request);
        return 0;
      },
      []() -> int { return -1; });
}

int EventKeeper::keepEventOfProcess(uint32_t eventID) {
  const std::lock_guard<std::mutex> lock(theKeeperMutex);
  return theKeeper != nullptr ? theKeeper->keepEvent(eventID) : -1;
}

void EventKeeper::eventEnded(uint32_t eventID) {
  const std::lock_guard<std::mutex> lock(theKeeperMutex);
  if (theKeeper != nullptr && theKeeper->impl_->keepsEveryEvent()) theKeeper->keepEvent(eventID);
}

}  // namespace tarn
