#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// How long a recorder puts up with a management server that does not answer: a restart takes less.
inline constexpr int64_t kServerPatienceMs = 5000;

// From now on this process waits for its server as long as it takes, until it is to end
// (RequestPatience::hurry()).
TARN_API void waitForServerForever(bool forever);
// The same until awaitServer() has seen it answer once: it is being started up beside this process.
TARN_API void waitForServerStart();
// Ends what waitForServerStart() began.
void serverHasStarted();
// kServerPatienceMs, or what these made of it.
TARN_API int64_t serverPatienceMs();

}  // namespace tarn
