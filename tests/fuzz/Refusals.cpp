#include "fuzz/Refusals.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <mutex>
#include <utility>

#include "support/RawCalls.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define TARN_WATCHED_BY_ASAN
#endif
#endif

namespace tarn_fuzz {
namespace {

std::mutex g_mutex;
std::vector<Refusal> g_refusals;
struct stat g_device = {};
std::atomic<uint64_t> g_refused{0};
std::atomic<uint64_t> g_writes{0};
std::atomic<bool> g_any{false};
std::atomic<bool> g_known{false};
std::vector<bool> g_isWritten;    // by page
std::vector<uint32_t> g_written;  // the same pages

// The sanitizer's own read() looks at the room for what was asked; this one stands in front of it.
void lookAtRoom(const void* bytes, size_t length) {
#ifdef TARN_WATCHED_BY_ASAN
  if (__asan_region_is_poisoned(const_cast<void*>(bytes), length) == nullptr) return;
  __asan_report_error(__builtin_return_address(0), __builtin_frame_address(0), &bytes,
                      const_cast<void*>(bytes), 1, length);
  abort();
#else
  static_cast<void>(bytes);
  static_cast<void>(length);
#endif
}

bool isDevice(int fd) {
  struct stat file = {};
  return fstat(fd, &file) == 0 && file.st_ino == g_device.st_ino && file.st_dev == g_device.st_dev;
}

bool isBehindEnd(int fd, int64_t offset) {
  struct stat file = {};
  return g_known && isDevice(fd) && fstat(fd, &file) == 0 && offset > file.st_size;
}

void notePages(uint64_t offset, size_t length) {
  for (uint64_t page = offset / kPage; length > 0 && page <= (offset + length - 1) / kPage;
       ++page) {
    if (page >= g_isWritten.size()) g_isWritten.resize(page + 1024);
    if (g_isWritten[page]) continue;
    g_isWritten[page] = true;
    g_written.push_back(static_cast<uint32_t>(page));
  }
}

// How much of a transfer goes through; -1 when it is refused.
ssize_t allowed(int fd, uint64_t offset, size_t length, bool writes) {
  if ((!g_any && !(writes && g_known)) || !isDevice(fd)) return static_cast<ssize_t>(length);
  if (writes) ++g_writes;
  const std::lock_guard<std::mutex> lock(g_mutex);
  if (writes) notePages(offset, length);
  for (Refusal& refusal : g_refusals) {
    if (refusal.writes != writes || refusal.times == 0) continue;
    if (offset >= refusal.to || offset + length <= refusal.from) continue;
    if (refusal.skip-- > 0) continue;
    refusal.skip = 0;
    if (refusal.times != kForever) --refusal.times;
    ++g_refused;
    if (!refusal.isShort) return -1;
    return offset < refusal.from ? static_cast<ssize_t>(refusal.from - offset) : 0;
  }
  return static_cast<ssize_t>(length);
}

template <typename Transfer>
ssize_t transfer(int fd, const void* bytes, size_t length, int64_t offset, bool writes,
                 Transfer transfer) {
  lookAtRoom(bytes, length);
  const ssize_t most = length == 0 || offset < 0
                           ? static_cast<ssize_t>(length)
                           : allowed(fd, static_cast<uint64_t>(offset), length, writes);
  if (most >= 0) return transfer(static_cast<size_t>(most));
  errno = EIO;
  return -1;
}

// Only a refusal asks for it, and who wants to know what was written.
int64_t positionOf(int fd, bool writes) {
  if (!g_any && !(writes && g_known)) return 0;
  const int saved = errno;
  const int64_t position = tarn_test::rawPosition(fd);
  errno = saved;
  return position;
}

}  // namespace

void refuse(int fd, std::vector<Refusal> refusals) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  if (fstat(fd, &g_device) != 0) abort();
  g_any = !refusals.empty();
  g_refusals = std::move(refusals);
  g_known = true;
  g_refused = 0;
  g_writes = 0;
}

uint64_t refusedCalls() { return g_refused; }
uint64_t deviceWrites() { return g_writes; }

std::vector<uint32_t> takeWrittenPages() {
  const std::lock_guard<std::mutex> lock(g_mutex);
  for (const uint32_t page : g_written) g_isWritten[page] = false;
  return std::exchange(g_written, {});
}

void noteWritten(uint64_t offset, size_t length) {
  const std::lock_guard<std::mutex> lock(g_mutex);
  notePages(offset, length);
}

}  // namespace tarn_fuzz

extern "C" {

// Under their names for 64-bit offsets as well, which are the same ones here.
ssize_t tarn_fuzz_pread(int fd, void* bytes, size_t length, off_t offset) __asm__("pread");
ssize_t tarn_fuzz_pread64(int fd, void* bytes, size_t length, off_t offset) __asm__("pread64");
ssize_t tarn_fuzz_pwrite(int fd, const void* bytes, size_t length, off_t offset) __asm__("pwrite");
ssize_t tarn_fuzz_pwrite64(int fd, const void* bytes, size_t length,
                           off_t offset) __asm__("pwrite64");
off_t tarn_fuzz_lseek(int fd, off_t offset, int whence) __asm__("lseek");
off64_t tarn_fuzz_lseek64(int fd, off64_t offset, int whence) __asm__("lseek64");

ssize_t read(int fd, void* bytes, size_t length) {
  return tarn_fuzz::transfer(
      fd, bytes, length, tarn_fuzz::positionOf(fd, false), false,
      [=](size_t most) { return static_cast<ssize_t>(syscall(SYS_read, fd, bytes, most)); });
}

ssize_t write(int fd, const void* bytes, size_t length) {
  return tarn_fuzz::transfer(
      fd, bytes, length, tarn_fuzz::positionOf(fd, true), true,
      [=](size_t most) { return static_cast<ssize_t>(syscall(SYS_write, fd, bytes, most)); });
}

ssize_t tarn_fuzz_pread64(int fd, void* bytes, size_t length, off_t offset) {
  return tarn_fuzz::transfer(fd, bytes, length, offset, false, [=](size_t most) {
    return tarn_test::rawPread(fd, bytes, most, offset);
  });
}

ssize_t tarn_fuzz_pwrite64(int fd, const void* bytes, size_t length, off_t offset) {
  return tarn_fuzz::transfer(fd, bytes, length, offset, true, [=](size_t most) {
    return tarn_test::rawPwrite(fd, bytes, most, offset);
  });
}

off64_t tarn_fuzz_lseek64(int fd, off64_t offset, int whence) {
  if (whence == SEEK_SET && tarn_fuzz::isBehindEnd(fd, offset)) {
    errno = EINVAL;
    return -1;
  }
  return static_cast<off64_t>(syscall(SYS_lseek, fd, offset, whence));
}

off_t tarn_fuzz_lseek(int fd, off_t offset, int whence) {
  return tarn_fuzz_lseek64(fd, offset, whence);
}

ssize_t tarn_fuzz_pread(int fd, void* bytes, size_t length, off_t offset) {
  return tarn_fuzz_pread64(fd, bytes, length, offset);
}

ssize_t tarn_fuzz_pwrite(int fd, const void* bytes, size_t length, off_t offset) {
  return tarn_fuzz_pwrite64(fd, bytes, length, offset);
}

}  // extern "C"
