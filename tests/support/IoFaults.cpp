#include "support/IoFaults.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdarg>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <ostream>
#include <thread>

#include "support/RawCalls.h"

namespace tarn_test {
namespace {

// Function pointers of the next definition in line, looked up once each.
template <typename Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

struct Order {
  enum class Kind { Fail, Shorten, Delay, Block };
  Kind kind;
  Call call;
  int left;   // matching calls until it is due, counting the due one
  int times;  // how often it still applies once due
  int error = 0;
  uint64_t bytes = 0;
  std::chrono::milliseconds time{0};
  int64_t from = 0;  // only calls that touch a byte of these; to 0: every call
  int64_t to = 0;

  bool touches(int64_t offset, uint64_t length) const {
    return to == 0 || (offset < to && offset + static_cast<int64_t>(length) > from);
  }
};

// What one call has to do instead of, or besides, its work.
struct Verdict {
  std::optional<int> error;
  std::optional<uint64_t> bytes;
  int errorBeside = 0;
};

std::mutex& stateMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::atomic<int> g_live{0};

// Paths by descriptor, kept from the program's first open on, so that a stand-in may come later.
constexpr int kPaths = 2048;
std::mutex& pathMutex() {
  static auto* mutex = new std::mutex;
  return *mutex;
}
std::array<std::string, kPaths>& paths() {
  static auto* table = new std::array<std::string, kPaths>;
  return *table;
}

void setPath(int fd, const char* path) {
  if (fd < 0 || fd >= kPaths) return;
  std::lock_guard<std::mutex> lock(pathMutex());
  paths()[static_cast<size_t>(fd)] = path;
}

std::string pathOf(int fd) {
  if (fd < 0 || fd >= kPaths) return "";
  std::lock_guard<std::mutex> lock(pathMutex());
  return paths()[static_cast<size_t>(fd)];
}

}  // namespace

struct IoFaults::State {
  std::string path;
  std::vector<Order> orders;
  std::vector<IoRecord> records;
  std::condition_variable changed;
  int blocked = 0;
  bool released = false;
  bool dead = false;

  bool matches(const std::string& other) const { return path.empty() || path == other; }
};

namespace {

std::vector<std::shared_ptr<IoFaults::State>>& live() {
  static auto* states = new std::vector<std::shared_ptr<IoFaults::State>>;
  return *states;
}

// Counts the call down in every order of its kind and returns the first one that is due.
std::optional<Order> dueOrder(IoFaults::State& state, Call call, int64_t offset, uint64_t length) {
  std::optional<Order> due;
  for (Order& order : state.orders) {
    if (order.call != call || order.times == 0 || !order.touches(offset, length)) continue;
    if (order.left > 1) {
      --order.left;
      continue;
    }
    if (due) continue;
    due = order;
    --order.times;
  }
  return due;
}

void waitForRelease(IoFaults::State& state, std::unique_lock<std::mutex>& lock) {
  ++state.blocked;
  state.changed.notify_all();
  state.changed.wait(lock, [&] { return state.released || state.dead; });
  --state.blocked;
}

void applyOrder(IoFaults::State& state, const Order& order, std::unique_lock<std::mutex>& lock,
                Verdict& verdict) {
  switch (order.kind) {
    case Order::Kind::Fail:
      verdict.error = order.error;
      break;
    case Order::Kind::Shorten:
      verdict.bytes = order.bytes;
      verdict.errorBeside = order.error;
      break;
    case Order::Kind::Delay:
      lock.unlock();
      std::this_thread::sleep_for(order.time);
      lock.lock();
      break;
    case Order::Kind::Block:
      waitForRelease(state, lock);
      break;
  }
}

// One call on its way through: records it, waits, and says what is to become of it.
class Passage {
 public:
  Passage(Call call, const std::string& path, int64_t offset, uint64_t length) {
    std::unique_lock<std::mutex> lock(stateMutex());
    const auto states = live();
    for (const auto& state : states) {
      if (!state->matches(path)) continue;
      places_.emplace_back(state, state->records.size());
      state->records.push_back({call, path, offset, length, -1});
    }
    for (const auto& [state, place] : places_) {
      const std::optional<Order> order = dueOrder(*state, call, offset, length);
      if (order) applyOrder(*state, *order, lock, verdict_);
    }
  }

  const Verdict& verdict() const { return verdict_; }

  // Notes the result; keeps errno.
  int64_t done(int64_t result, bool isSeek = false) {
    std::lock_guard<std::mutex> lock(stateMutex());
    for (const auto& [state, place] : places_) {
      if (place >= state->records.size()) continue;  // cleared meanwhile
      state->records[place].result = result;
      if (isSeek) state->records[place].offset = result;
    }
    return result;
  }

 private:
  std::vector<std::pair<std::shared_ptr<IoFaults::State>, size_t>> places_;
  Verdict verdict_;
};

bool watching() { return g_live.load(std::memory_order_acquire) > 0; }

int64_t positionOf(int fd) {
  const int saved = errno;
  const int64_t position = rawPosition(fd);
  errno = saved;
  return position;
}

// Passes a transfer through, whole, shortened or not at all.
template <typename Do>
ssize_t transfer(Call call, int fd, int64_t offset, size_t length, Do&& perform) {
  const int saved = errno;
  Passage passage(call, pathOf(fd), offset, length);
  errno = saved;
  if (passage.verdict().error) {
    passage.done(-1);
    errno = *passage.verdict().error;
    return -1;
  }
  if (!passage.verdict().bytes) {
    const ssize_t result = perform(length);
    const int after = errno;
    passage.done(result);
    errno = after;
    return result;
  }
  const ssize_t result =
      perform(std::min<size_t>(length, static_cast<size_t>(*passage.verdict().bytes)));
  const int after = passage.verdict().errorBeside != 0 ? passage.verdict().errorBeside : errno;
  passage.done(result);
  errno = after;
  return result;
}

template <typename Do>
int64_t plainCall(Call call, const std::string& path, uint64_t length, bool isSeek, Do&& perform) {
  const int saved = errno;
  Passage passage(call, path, -1, length);
  errno = saved;
  if (passage.verdict().error) {
    passage.done(-1);
    errno = *passage.verdict().error;
    return -1;
  }
  const int64_t result = perform();
  const int after = errno;
  passage.done(result, isSeek);
  errno = after;
  return result;
}

template <typename Do>
int openCall(const char* path, Do&& perform) {
  int fd;
  if (watching()) {
    fd = static_cast<int>(plainCall(Call::Open, path == nullptr ? "" : path, 0, false, perform));
  } else {
    fd = perform();
  }
  const int saved = errno;
  setPath(fd, path == nullptr ? "" : path);
  errno = saved;
  return fd;
}

}  // namespace

std::ostream& operator<<(std::ostream& out, const WriteRecord& record) {
  return out << "{" << record.offset << ", " << record.length << "}";
}

IoFaults::IoFaults(std::string path) : state_(std::make_shared<State>()) {
  state_->path = std::move(path);
  std::lock_guard<std::mutex> lock(stateMutex());
  live().push_back(state_);
  ++g_live;
}

IoFaults::~IoFaults() {
  std::lock_guard<std::mutex> lock(stateMutex());
  auto& states = live();
  states.erase(std::remove(states.begin(), states.end(), state_), states.end());
  --g_live;
  state_->dead = true;
  state_->changed.notify_all();
}

void IoFaults::fail(Call call, int n, int error, int times) {
  std::lock_guard<std::mutex> lock(stateMutex());
  state_->orders.push_back({Order::Kind::Fail, call, n, times, error});
}

void IoFaults::failAt(Call call, uint64_t offset, uint64_t length, int error, int times) {
  std::lock_guard<std::mutex> lock(stateMutex());
  Order order = {Order::Kind::Fail, call, 1, times, error};
  order.from = static_cast<int64_t>(offset);
  order.to = static_cast<int64_t>(offset + length);
  state_->orders.push_back(order);
}

void IoFaults::shorten(Call call, int n, uint64_t bytes, int error) {
  std::lock_guard<std::mutex> lock(stateMutex());
  state_->orders.push_back({Order::Kind::Shorten, call, n, 1, error, bytes});
}

void IoFaults::delay(Call call, int n, std::chrono::milliseconds time, int times) {
  std::lock_guard<std::mutex> lock(stateMutex());
  state_->orders.push_back({Order::Kind::Delay, call, n, times, 0, 0, time});
}

void IoFaults::block(Call call, int n) {
  std::lock_guard<std::mutex> lock(stateMutex());
  state_->released = false;
  state_->orders.push_back({Order::Kind::Block, call, n, 1});
}

bool IoFaults::waitUntilBlocked(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(stateMutex());
  // system_clock: the thread sanitizer does not know of waits on the steady one.
  return state_->changed.wait_until(lock, std::chrono::system_clock::now() + limit,
                                    [&] { return state_->blocked > 0; });
}

void IoFaults::release() {
  std::lock_guard<std::mutex> lock(stateMutex());
  state_->released = true;
  state_->changed.notify_all();
}

size_t IoFaults::count(Call call) const {
  std::lock_guard<std::mutex> lock(stateMutex());
  return static_cast<size_t>(std::count_if(state_->records.begin(), state_->records.end(),
                                           [&](const IoRecord& r) { return r.call == call; }));
}

std::vector<IoRecord> IoFaults::calls() const {
  std::lock_guard<std::mutex> lock(stateMutex());
  return state_->records;
}

std::vector<WriteRecord> IoFaults::writes() const {
  std::vector<WriteRecord> result;
  for (const IoRecord& record : calls()) {
    if (record.call == Call::Write || record.call == Call::Pwrite) {
      result.push_back({record.offset, record.length});
    }
  }
  return result;
}

std::string IoFaults::sequence() const {
  static constexpr char kLetters[] = "ocrRwWlft";
  std::string result;
  for (const IoRecord& record : calls()) result += kLetters[static_cast<int>(record.call)];
  return result;
}

void IoFaults::clear() {
  std::lock_guard<std::mutex> lock(stateMutex());
  state_->records.clear();
}

}  // namespace tarn_test

// The library's calls resolve to these, because the executable comes first in symbol look-up.
namespace tarn_test {
namespace {

mode_t modeOf(int flags, va_list args) {
  return (flags & (O_CREAT | __O_TMPFILE)) != 0 ? static_cast<mode_t>(va_arg(args, int)) : 0;
}

template <typename Seek>
off64_t seekCall(int fd, Seek&& perform) {
  if (!watching()) return perform();
  return plainCall(Call::Lseek, pathOf(fd), 0, true, perform);
}

template <typename Sync>
int syncCall(int fd, Sync&& perform) {
  if (!watching()) return perform();
  return static_cast<int>(plainCall(Call::Fsync, pathOf(fd), 0, false, perform));
}

}  // namespace
}  // namespace tarn_test

extern "C" {

// glibc gives open, lseek, pread and pwrite a second name each, for 64-bit file offsets; under
// _FILE_OFFSET_BITS=64 the headers already map the one to the other, so the symbols are spelled
// here.
int tarn_test_open(const char* path, int flags, ...) __asm__("open");
int tarn_test_open64(const char* path, int flags, ...) __asm__("open64");
off64_t tarn_test_lseek64(int fd, off64_t offset, int whence) __asm__("lseek64");
ssize_t tarn_test_pread64(int fd, void* buf, size_t length, off64_t offset) __asm__("pread64");
ssize_t tarn_test_pwrite64(int fd, const void* buf, size_t length,
                           off64_t offset) __asm__("pwrite64");

#if __SIZEOF_LONG__ == 8
// On a 32-bit machine the unsuffixed names have narrower offsets; nothing here calls them there.
off64_t tarn_test_lseek(int fd, off64_t offset, int whence) __asm__("lseek");
ssize_t tarn_test_pread(int fd, void* buf, size_t length, off64_t offset) __asm__("pread");
ssize_t tarn_test_pwrite(int fd, const void* buf, size_t length, off64_t offset) __asm__("pwrite");

off64_t tarn_test_lseek(int fd, off64_t offset, int whence) {
  return tarn_test_lseek64(fd, offset, whence);
}
ssize_t tarn_test_pread(int fd, void* buf, size_t length, off64_t offset) {
  return tarn_test_pread64(fd, buf, length, offset);
}
ssize_t tarn_test_pwrite(int fd, const void* buf, size_t length, off64_t offset) {
  return tarn_test_pwrite64(fd, buf, length, offset);
}
#endif

int tarn_test_open(const char* path, int flags, ...) {
  static const auto real = tarn_test::next<int (*)(const char*, int, ...)>("open");
  va_list args;
  va_start(args, flags);
  const mode_t mode = tarn_test::modeOf(flags, args);
  va_end(args);
  return tarn_test::openCall(path, [&] { return real(path, flags, mode); });
}

int tarn_test_open64(const char* path, int flags, ...) {
  static const auto real = tarn_test::next<int (*)(const char*, int, ...)>("open64");
  va_list args;
  va_start(args, flags);
  const mode_t mode = tarn_test::modeOf(flags, args);
  va_end(args);
  return tarn_test::openCall(path, [&] { return real(path, flags, mode); });
}

int close(int fd) {
  static const auto real = tarn_test::next<int (*)(int)>("close");
  const std::string path = tarn_test::watching() ? tarn_test::pathOf(fd) : "";
  tarn_test::setPath(fd, "");
  if (!tarn_test::watching()) return real(fd);
  return static_cast<int>(
      tarn_test::plainCall(tarn_test::Call::Close, path, 0, false, [&] { return real(fd); }));
}

ssize_t read(int fd, void* buf, size_t length) {
  static const auto real = tarn_test::next<ssize_t (*)(int, void*, size_t)>("read");
  if (!tarn_test::watching()) return real(fd, buf, length);
  return tarn_test::transfer(tarn_test::Call::Read, fd, tarn_test::positionOf(fd), length,
                             [&](size_t n) { return real(fd, buf, n); });
}

ssize_t write(int fd, const void* buf, size_t length) {
  static const auto real = tarn_test::next<ssize_t (*)(int, const void*, size_t)>("write");
  if (!tarn_test::watching()) return real(fd, buf, length);
  return tarn_test::transfer(tarn_test::Call::Write, fd, tarn_test::positionOf(fd), length,
                             [&](size_t n) { return real(fd, buf, n); });
}

using PreadFunction = ssize_t (*)(int, void*, size_t, off64_t);
using PwriteFunction = ssize_t (*)(int, const void*, size_t, off64_t);

ssize_t tarn_test_pread64(int fd, void* buf, size_t length, off64_t offset) {
  static const auto real = tarn_test::next<PreadFunction>("pread64");
  if (!tarn_test::watching()) return real(fd, buf, length, offset);
  return tarn_test::transfer(tarn_test::Call::Pread, fd, offset, length,
                             [&](size_t n) { return real(fd, buf, n, offset); });
}

ssize_t tarn_test_pwrite64(int fd, const void* buf, size_t length, off64_t offset) {
  static const auto real = tarn_test::next<PwriteFunction>("pwrite64");
  if (!tarn_test::watching()) return real(fd, buf, length, offset);
  return tarn_test::transfer(tarn_test::Call::Pwrite, fd, offset, length,
                             [&](size_t n) { return real(fd, buf, n, offset); });
}

off64_t tarn_test_lseek64(int fd, off64_t offset, int whence) {
  static const auto real = tarn_test::next<off64_t (*)(int, off64_t, int)>("lseek64");
  return tarn_test::seekCall(fd, [&] { return real(fd, offset, whence); });
}

int fsync(int fd) {
  static const auto real = tarn_test::next<int (*)(int)>("fsync");
  return tarn_test::syncCall(fd, [&] { return real(fd); });
}

int fdatasync(int fd) {
  static const auto real = tarn_test::next<int (*)(int)>("fdatasync");
  return tarn_test::syncCall(fd, [&] { return real(fd); });
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*entry)(void*),
                   void* argument) noexcept {
  using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const auto real = tarn_test::next<Function>("pthread_create");
  if (!tarn_test::watching()) return real(thread, attributes, entry, argument);
  tarn_test::Passage passage(tarn_test::Call::ThreadCreate, "", -1, 0);
  if (passage.verdict().error) return *passage.verdict().error;
  return static_cast<int>(passage.done(real(thread, attributes, entry, argument)));
}

}  // extern "C"
