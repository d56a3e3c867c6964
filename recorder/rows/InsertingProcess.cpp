#include "recorder/rows/InsertingProcess.h"

#include <unistd.h>

#include "base/Mutex.h"

namespace tarn {
namespace {

constexpr char kLockFile[] = "/tmp/tarn-inserting.lock";

// What the objects of this process share.
Mutex g_mutex;
FileLock g_lock TARN_GUARDED_BY(g_mutex);
unsigned g_users TARN_GUARDED_BY(g_mutex) = 0;
pid_t g_owner TARN_GUARDED_BY(g_mutex) = 0;

}  // namespace

FileLock::Outcome InsertingProcess::enter() {
  if (entered_) return FileLock::Outcome::kTaken;
  const MutexLock lock(g_mutex);
  if (g_owner != getpid()) {
    // A copy of the parent's: closing it here leaves the parent its lock.
    g_lock.unlock();
    g_users = 0;
    g_owner = getpid();
  }
  if (!g_lock.held()) {
    const FileLock::Outcome outcome = g_lock.take(kLockFile, false);
    if (outcome != FileLock::Outcome::kTaken) return outcome;
  }
  ++g_users;
  entered_ = true;
  return FileLock::Outcome::kTaken;
}

void InsertingProcess::leave() {
  if (!entered_) return;
  entered_ = false;
  const MutexLock lock(g_mutex);
  if (g_owner != getpid()) return;
  if (--g_users == 0) g_lock.unlock();
}

}  // namespace tarn
