#pragma once

namespace tarn {

// Held by the management server from its start to its end, and by whatever must not run beside it.
inline constexpr char kServerLockPath[] = "/tmp/unix-sock-tarn-server.lock";

}  // namespace tarn
