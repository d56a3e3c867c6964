#include "mesg/CMesgClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "mesg/MesgMessages.h"
#include "mesg/RequestPatience.h"

using tarn::kMesgClientName;

namespace {

constexpr int kSelectTimeoutMs = 100;
constexpr int kReadAttempts = 10;

sockaddr_un socketAddress(const char* path) {
  sockaddr_un address;
  memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path, sizeof address.sun_path - 1);
  return address;
}

// A queue that is full, and a signal while waiting for it, are no failures yet.
bool mayPass(int error) { return error == EAGAIN || error == EINTR; }

// What `call` gives, which the system holds up while the server's queue is full: for no longer at a
// time than what is left of a request's patience, a program that is to end has only a moment.
template <class Call>
auto withinPatience(int fd, Call&& call) {
  tarn::RequestPatience patience;
  int waitMs = std::max(patience.nextWaitMs(), 1);
  for (;;) {
    const timeval held{0, waitMs * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &held, sizeof held);
    const auto result = call();
    const int error = errno;
    if (result >= 0 || !mayPass(error) || (waitMs = patience.nextWaitMs()) == 0) {
      errno = error;
      return result;
    }
  }
}

}  // namespace

CMesgClient::CMesgClient(const char* path) {
  m_path[0] = '\0';
  strncat(m_path, path, kPathRoom);
  signal(SIGPIPE, SIG_IGN);
}

CMesgClient::~CMesgClient() { m_disconnect(); }

// poll() rather than select(): the handle's number may be of any height.
int CMesgClient::select() {
  if (!m_ensureConnected()) return -1;
  pollfd entry{m_fd.get(), POLLIN, 0};
  return poll(&entry, 1, kSelectTimeoutMs);
}

long CMesgClient::readMesg(void* buf, long size) {
  if (!m_ensureConnected()) return -1;
  for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
    const ssize_t got = read(m_fd.get(), buf, static_cast<size_t>(size));
    if (got != -1) return got;
    const int error = errno;
    syslog(LOG_ERR, tarn::kMesgReadError, __func__, __LINE__, kMesgClientName);
    if (error != EINTR) {
      m_disconnect();
      return -1;
    }
  }
  return -1;
}

long CMesgClient::writeMesg(const void* buf, long size) {
  if (!m_ensureConnected()) return -1;
  if (size > kMessageLimit) {
    syslog(LOG_ERR, tarn::kMesgTooLong, __func__, __LINE__, kMesgClientName, size);
    return -1;
  }
  // A program may have given SIGPIPE its default action again since this object was made.
  const auto send = [&](int flags) {
    return ::send(m_fd.get(), buf, static_cast<size_t>(size), MSG_NOSIGNAL | flags);
  };
  // There nearly always is room: one call, and no clock.
  ssize_t sent = send(MSG_DONTWAIT);
  if (sent < 0 && mayPass(errno)) sent = withinPatience(m_fd.get(), [&] { return send(0); });
  if (sent >= 0) return sent;
  const int error = errno;
  perror(tarn::kMesgWritePerror);
  if (mayPass(error)) m_disconnect();
  if (error == EPIPE) {
    syslog(LOG_ERR, tarn::kMesgSocketClosed, __func__, __LINE__, kMesgClientName,
           static_cast<long>(m_fd.get()));
    m_disconnect();
  }
  return -1;
}

int CMesgClient::disconnect() { return m_disconnect(); }

int CMesgClient::awaitMesg() {
  if (!m_ensureConnected()) return -1;
  pollfd entry{m_fd.get(), POLLIN, 0};
  tarn::RequestPatience patience;
  for (int waitMs; (waitMs = patience.nextWaitMs()) > 0;) {
    const int ready = poll(&entry, 1, waitMs);
    if (ready > 0) {
      tarn::RequestPatience::answered(true);
      return 1;
    }
    if (ready < 0 && errno != EINTR) return -1;
  }
  tarn::RequestPatience::answered(false);
  syslog(LOG_ERR, tarn::kMesgNoAnswer, __func__, __LINE__, kMesgClientName);
  return 0;
}

// One attempt a second after a failure: a process whose server is down must not spend its time on
// connecting.
int CMesgClient::m_connect() {
  const int64_t now = time(nullptr);
  if (now == m_lastFailure) return -1;
  m_fd.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
  if (!m_fd.valid()) {
    syslog(LOG_ERR, tarn::kMesgSocketError, __func__, __LINE__, kMesgClientName);
    m_lastFailure = now;
    return -1;
  }
  if (m_tryConnect() != 0) {
    const int error = errno;
    m_disconnect();
    syslog(LOG_ERR, tarn::kMesgConnectError, __func__, __LINE__, kMesgClientName, m_path, error);
    m_lastFailure = now;
    return -1;
  }
  return 0;
}

// 0, or -1 with errno. Waits where the server's queue of new clients is full.
int CMesgClient::m_tryConnect() {
  const sockaddr_un address = socketAddress(m_path);
  return withinPatience(m_fd.get(), [&] {
    return connect(m_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  });
}

int CMesgClient::m_disconnect() {
  m_fd.reset();
  return 0;
}

bool CMesgClient::m_isConnected() const { return m_fd.valid(); }

bool CMesgClient::m_ensureConnected() { return m_isConnected() || m_connect() == 0; }
