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
#include "recorder/rows/ServerProbe.h"
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

bool isWaiting(const KeepJob& job) { return job.state == KeepState::kWaiting; }

}  // namespace

class EventKeeper::Impl {
 public:
  explicit Impl(const KeeperOptions& options) : options_(options) {}
  ~Impl() { stop(false); }

  int start();
  void stop(bool finish);
  bool add(const KeepRequest& request);
  bool keepsEveryEvent() const { return options_.everyEvent; }

 private:
  void run();
  void serve();
  KeepAnswer answer(const KeepRequest& request);
  uint32_t addLocked(const KeepRequest& request);
  const KeepJob* sameWaiting(const KeepRequest& request) const;
  void forgetOldLocked();
  KeepJob* due(int64_t nowMs);
  void work(KeepJob* job);
  bool rest(uint32_t bytes);
  bool hasWork();
  void lookForServer();

  const KeeperOptions options_;
  FileLock lock_;
  CMesgServer server_{kKeeperSocket, 0, kSelectUs};
  KeptCopies copies_;  // of the thread
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::atomic<bool> finish_{false};
  bool serverIsThere_ = false;  // of the thread, once it runs
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
  lookForServer();
  thread_ = std::thread([this] { run(); });
  return 0;
}

// A recovery may be at work on the database: nothing is asked of it before there is a server.
void EventKeeper::Impl::lookForServer() {
  if (serverIsThere_ || !serverIsThere()) return;
  serverIsThere_ = true;
  if (!options_.everyEvent) return;
  for (const uint32_t eventID : eventsLeftWithoutCopies()) {
    KeepRequest request;
    request.command = KeepCommand::kKeepEvent;
    request.number = eventID;
    add(request);
  }
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

// The job that does the same already. What was asked for before a release does not: it is gone
// then.
const KeepJob* EventKeeper::Impl::sameWaiting(const KeepRequest& request) const {
  for (auto job = jobs_.rbegin(); job != jobs_.rend(); ++job) {
    if (job->state != KeepState::kWaiting) continue;
    if (job->request == request) return &*job;
    if (job->request.command == KeepCommand::kReleaseEvent) return nullptr;
  }
  return nullptr;
}

// The job's ticket; 0 when there is no place for one more.
uint32_t EventKeeper::Impl::addLocked(const KeepRequest& request) {
  if (const KeepJob* same = sameWaiting(request)) return same->ticket;
  const auto waiting = std::count_if(jobs_.begin(), jobs_.end(), isWaiting);
  if (static_cast<size_t>(waiting) >= kMostWaiting) {
    if (request.command == KeepCommand::kKeepEvent)
      syslog(LOG_WARNING, kMsgNotKept, request.number, kErrKeeperFull);
    return 0;
  }
  jobs_.emplace_back();
  jobs_.back().request = request;
  jobs_.back().ticket = ++lastTicket_;
  return lastTicket_;
}

bool EventKeeper::Impl::add(const KeepRequest& request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  return addLocked(request) != 0;
}

// A request is noted, and its ticket asked for until it is done: a copy takes longer than anybody
// waits for an answer.
KeepAnswer EventKeeper::Impl::answer(const KeepRequest& request) {
  const std::lock_guard<std::mutex> lock(mutex_);
  KeepAnswer answer;
  if (request.command != KeepCommand::kAsk) {
    answer.ticket = addLocked(request);
    answer.state = answer.ticket != 0 ? KeepState::kWaiting : KeepState::kFailed;
    if (answer.ticket == 0) answer.text = kErrKeeperFull;
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

// Of those that are done only the newest stay, also behind one that waits for its event's end.
void EventKeeper::Impl::forgetOldLocked() {
  auto done =
      std::count_if(jobs_.begin(), jobs_.end(), [](const KeepJob& job) { return !isWaiting(job); });
  for (auto job = jobs_.begin(); static_cast<size_t>(done) > kJobsRemembered;) {
    if (isWaiting(*job)) {
      ++job;
      continue;
    }
    job = jobs_.erase(job);
    --done;
  }
}

KeepJob* EventKeeper::Impl::due(int64_t nowMs) {
  const std::lock_guard<std::mutex> lock(mutex_);
  forgetOldLocked();
  const auto found = std::find_if(jobs_.begin(), jobs_.end(), [nowMs](const KeepJob& job) {
    return isWaiting(job) && job.nextTryMs <= nowMs;
  });
  return found == jobs_.end() ? nullptr : &*found;  // others are added behind it, and it stays
}

bool EventKeeper::Impl::hasWork() {
  if (!serverIsThere_) return false;
  const std::lock_guard<std::mutex> lock(mutex_);
  return std::any_of(jobs_.begin(), jobs_.end(), isWaiting);
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
          lookForServer();
          KeepJob* job = serverIsThere_ ? due(monotonicMs()) : nullptr;
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
        return impl_->add(request) ? 0 : -1;
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
