#include "recorder/rows/ChannelLock.h"

#include <glob.h>

namespace tarn {
namespace {

constexpr char kAnyChannelLock[] = "/tmp/tarn-channel-*.lock";

}  // namespace

FileLock::Outcome tryAllChannels() {
  glob_t locks = {};
  FileLock::Outcome outcome = FileLock::Outcome::kTaken;
  if (glob(kAnyChannelLock, 0, nullptr, &locks) == 0) {
    for (size_t i = 0; i < locks.gl_pathc && outcome == FileLock::Outcome::kTaken; ++i) {
      outcome = FileLock().take(locks.gl_pathv[i], false);
    }
  }
  globfree(&locks);
  return outcome;
}

}  // namespace tarn
