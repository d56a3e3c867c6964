#pragma once

#include "base/Export.h"

namespace tarn {

// Held by the management server from its start to its end, and by whatever must not run beside it.
inline constexpr char kServerLockPath[] = "/tmp/unix-sock-tarn-server.lock";

enum class ServerProbe { kFree, kAnswered, kUnknown };

// Whether a management server answers on its path: a full backlog and a socket of another type
// answer too. errno tells more about kUnknown.
TARN_API ServerProbe probeServer();

}  // namespace tarn
