#pragma once

#include <atomic>

#include "base/Export.h"
#include "recorder/card/ServerLock.h"

namespace tarn {

enum class ServerProbe { kFree, kAnswered, kUnknown };

// Whether a management server answers on its path: a full backlog and a socket of another type
// answer too. errno tells more about kUnknown.
TARN_API ServerProbe probeServer();

// Whether card and database may be touched: false only where this program waits for its server as
// long as it takes (ServerPatience.h) and none answers yet, as a recovery may be at work on them.
bool serverIsThere();
// Until serverIsThere(), which makes it true, the program is to end, or `stopped`.
TARN_API bool awaitServer(const std::atomic<bool>& stopped);

}  // namespace tarn
