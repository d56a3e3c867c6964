#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// How long a recorder puts up with a management server that does not answer: a restart takes less.
inline constexpr int64_t kServerPatienceMs = 5000;

// From now on this process waits for its server as long as it takes, until it is to end
// (RequestPatience::hurry()).
TARN_API void waitForServerForever(bool forever);
// kServerPatienceMs, or what waitForServerForever() made of it.
TARN_API int64_t serverPatienceMs();

}  // namespace tarn
