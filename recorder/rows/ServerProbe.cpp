#include "recorder/rows/ServerProbe.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "base/UniqueFd.h"
#include "manager/RequestFormat.h"
#include "recorder/rows/ServerRetry.h"

namespace tarn {

ServerProbe probeServer() {
  const UniqueFd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd.valid()) return ServerProbe::kUnknown;
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  static_assert(sizeof kServerSocketPath <= sizeof address.sun_path);
  memcpy(address.sun_path, kServerSocketPath, sizeof kServerSocketPath);
  const auto* generic = reinterpret_cast<const sockaddr*>(&address);
  if (connect(fd.get(), generic, sizeof address) == 0) return ServerProbe::kAnswered;
  if (errno == ENOENT || errno == ECONNREFUSED) return ServerProbe::kFree;
  if (errno == EAGAIN || errno == EPROTOTYPE) return ServerProbe::kAnswered;
  return ServerProbe::kUnknown;
}

bool serverIsThere() {
  if (serverPatienceMs() <= kServerPatienceMs) return true;
  if (probeServer() != ServerProbe::kAnswered) return false;
  serverHasStarted();
  return true;
}

bool awaitServer(const std::atomic<bool>& stopped) {
  bool there = false;
  retryFor(kServerPatienceMs, [&] {
    there = serverIsThere();
    return there || stopped;
  });
  return there;
}

}  // namespace tarn
