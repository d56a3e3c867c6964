#include "recorder/rows/ServerRetry.h"

#include <atomic>

namespace tarn {
namespace {

std::atomic<bool> g_forever{false};

}  // namespace

void waitForServerForever(bool forever) { g_forever = forever; }

int64_t serverPatienceMs() { return g_forever ? RequestPatience::kForever : kServerPatienceMs; }

}  // namespace tarn
