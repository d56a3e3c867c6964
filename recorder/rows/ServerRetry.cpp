#include "recorder/rows/ServerRetry.h"

#include <atomic>

namespace tarn {
namespace {

std::atomic<bool> g_forever{false};
std::atomic<bool> g_untilStarted{false};

}  // namespace

void waitForServerForever(bool forever) { g_forever = forever; }

void waitForServerStart() { g_untilStarted = true; }

void serverHasStarted() { g_untilStarted = false; }

int64_t serverPatienceMs() {
  return g_forever || g_untilStarted ? RequestPatience::kForever : kServerPatienceMs;
}

}  // namespace tarn
