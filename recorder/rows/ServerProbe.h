#pragma once

#include "base/Export.h"
#include "recorder/card/ServerLock.h"

namespace tarn {

enum class ServerProbe { kFree, kAnswered, kUnknown };

// Whether a management server answers on its path: a full backlog and a socket of another type
// answer too. errno tells more about kUnknown.
TARN_API ServerProbe probeServer();

}  // namespace tarn
