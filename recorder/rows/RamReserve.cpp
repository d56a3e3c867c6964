#include "recorder/rows/RamReserve.h"

#include <fcntl.h>
#include <sys/statvfs.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdint>

#include "base/Mutex.h"
#include "base/UniqueFd.h"
#include "recorder/rows/RowMessages.h"

namespace tarn {
namespace {

constexpr char kFolder[] = "/tmp";
constexpr off_t kReserve = 256 * 1024;
// Less than this left is full: a statement needs a few pages for its own journal.
constexpr uint64_t kFull = 64 * 1024;

Mutex g_mutex;
// Without a name, so that it is gone when the process is.
UniqueFd g_reserve TARN_GUARDED_BY(g_mutex);

// Room that is only promised is none: a sparse file would be given nothing when it counts.
bool fill(int fd) { return posix_fallocate(fd, 0, kReserve) == 0; }

bool isFull() {
  struct statvfs disk = {};
  return statvfs(kFolder, &disk) == 0 && uint64_t{disk.f_bavail} * disk.f_frsize < kFull;
}

}  // namespace

bool RamReserve::keep() {
  const MutexLock lock(g_mutex);
  if (g_reserve.valid()) return true;
  UniqueFd fd(open(kFolder, O_RDWR | O_TMPFILE | O_CLOEXEC, 0600));
  if (fd.valid() && fill(fd.get())) {
    g_reserve = static_cast<UniqueFd&&>(fd);
    return true;
  }
  syslog(LOG_WARNING, kMsgNoReserve);
  return false;
}

bool RamReserve::giveUpWhenFull(bool ranFull) {
  const MutexLock lock(g_mutex);
  if (!g_reserve.valid() || (!ranFull && !isFull())) return false;
  g_reserve.reset();
  syslog(LOG_ERR, kMsgReserveGivenUp);
  return true;
}

void RamReserve::drop() {
  const MutexLock lock(g_mutex);
  g_reserve.reset();
}

}  // namespace tarn
