// Never built: scripts/lint proves with it that clang refuses an access without its lock.
#include "base/Mutex.h"

namespace {

tarn::Mutex g_mutex;
int g_guarded TARN_GUARDED_BY(g_mutex) = 0;

}  // namespace

int withLock() {
  const tarn::MutexLock lock(g_mutex);
  return g_guarded;
}

int withoutLock() { return g_guarded; }
