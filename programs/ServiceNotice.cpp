#include "programs/ServiceNotice.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "base/UniqueFd.h"

void notifyServiceManager(const char* state) {
  const char* path = getenv("NOTIFY_SOCKET");
  struct sockaddr_un address = {};
  const size_t length = path == nullptr ? 0 : strlen(path);
  if (length < 2 || length >= sizeof address.sun_path || (path[0] != '/' && path[0] != '@')) return;
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path, length);
  if (path[0] == '@') address.sun_path[0] = '\0';  // a name without a file
  const tarn::UniqueFd fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!fd.valid()) return;
  const timeval limit{1, 0};  // clients wait meanwhile
  setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
  sendto(fd.get(), state, strlen(state), MSG_NOSIGNAL,
         reinterpret_cast<const struct sockaddr*>(&address),
         static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + length));
}
