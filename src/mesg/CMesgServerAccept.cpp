// The accept thread of CMesgServer and its control.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>

#include "mesg/CMesgServer.h"
#include "mesg/MesgMessages.h"
#include "mesg/WakeEvent.h"

using tarn::clearEvent;
using tarn::kMesgServerName;
using tarn::MutexLock;
using tarn::raiseEvent;

namespace {

constexpr int kBacklog = 5;
// Its lines carry the name that programs which read the log know, whichever helper writes them.
constexpr char kListening[] = "m_listen";
// Pauses of the accept thread after a failed accept (no free handles, say), doubled up to the
// limit.
constexpr int kFirstPauseMs = 10;
constexpr int kLongestPauseMs = 1000;

}  // namespace

int CMesgServer::startAcceptNewConnectionThread() {
  m_joinFailedThread();
  if (m_joinable || m_openWakeFds(__func__) != 0) {
    syslog(LOG_ERR, tarn::kMesgThreadCreateError, __func__, __LINE__, kMesgServerName);
    return -1;
  }
  clearEvent(m_stopFd.get());
  m_reportSetup(Setup::kRunning);
  m_running = true;
  if (pthread_create(&m_thread, nullptr, &CMesgServer::m_runThread, this) != 0) {
    m_running = false;
    m_reportSetup(Setup::kFailed);
    syslog(LOG_ERR, tarn::kMesgThreadCreateError, __func__, __LINE__, kMesgServerName);
    return -1;
  }
  m_joinable = true;
  return 0;
}

// A thread that could not make its socket has ended, or is about to.
void CMesgServer::m_joinFailedThread() {
  {
    MutexLock lock(m_setupMutex);
    if (m_setup != Setup::kFailed) return;
  }
  if (m_joinable && pthread_join(m_thread, nullptr) == 0) m_joinable = false;
}

int CMesgServer::stopAcceptNewConnectionThread() {
  m_running = false;
  if (m_stopFd.valid()) raiseEvent(m_stopFd.get());
  if (!m_joinable || pthread_join(m_thread, nullptr) != 0) {
    syslog(LOG_ERR, tarn::kMesgThreadJoinError, __func__, __LINE__, kMesgServerName);
    return -1;
  }
  m_joinable = false;
  return 0;
}

void CMesgServer::setSocketMode(mode_t mode) {
  m_mode = mode;
  m_modeGiven = true;
}

void CMesgServer::setHandleReserve(int handles) { m_handleReserve = handles; }

int CMesgServer::waitUntilListening() {
  MutexLock lock(m_setupMutex);
  while (m_setup == Setup::kRunning) m_setupChanged.wait(m_setupMutex);
  return m_setup == Setup::kListening ? 0 : -1;
}

void CMesgServer::m_reportSetup(Setup setup) {
  MutexLock lock(m_setupMutex);
  m_setup = setup;
  m_setupChanged.broadcast();
}

// The event handle takes part in select(), so its number is bounded like a client's.
int CMesgServer::m_openWakeFds(const char* operation) {
  if (!m_wakeFd.valid()) m_wakeFd.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (!m_stopFd.valid()) m_stopFd.reset(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
  if (m_wakeFd.get() >= FD_SETSIZE) m_wakeFd.reset();
  if (m_wakeFd.valid() && m_stopFd.valid()) return 0;
  syslog(LOG_ERR, tarn::kMesgWakeError, operation, __LINE__, kMesgServerName);
  return -1;
}

// Signals are for the other threads: what they wait for must be interrupted, not this.
void* CMesgServer::m_runThread(void* self) {
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, nullptr);
  static_cast<CMesgServer*>(self)->m_acceptNewConnectionFunc();
  return nullptr;
}

void CMesgServer::m_acceptNewConnectionFunc() {
  if (m_listen() != 0) {
    syslog(LOG_ERR, tarn::kMesgSetupError, __func__, __LINE__, kMesgServerName);
    m_running = false;
    m_listenFd.reset();
    m_reportSetup(Setup::kFailed);
    return;
  }
  m_reportSetup(Setup::kListening);
  int pauseMs = kFirstPauseMs;
  while (m_running) {
    if (m_waitForConnection(-1) == 0) continue;
    const int fd = m_accept();
    if (fd >= 0) {
      pauseMs = kFirstPauseMs;
      m_addClient(fd);
    } else if (errno != EAGAIN) {
      // Without a free handle the waiting connection stays, and accepting would fail at once again.
      pollfd stop{m_stopFd.get(), POLLIN, 0};
      poll(&stop, 1, pauseMs);
      pauseMs = std::min(2 * pauseMs, kLongestPauseMs);
    }
  }
  m_listenFd.reset();
  m_reportSetup(Setup::kNone);
}

int CMesgServer::m_listen() {
  m_listenFd.reset(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!m_listenFd.valid()) {
    syslog(LOG_ERR, tarn::kMesgSocketError, __func__, __LINE__, kMesgServerName);
    return -1;
  }
  unlink(m_path);
  if (m_bind() != 0) return -1;
  if (listen(m_listenFd.get(), kBacklog) != 0) {
    syslog(LOG_ERR, tarn::kMesgListenError, __func__, __LINE__, kMesgServerName);
    return -1;
  }
  return 0;
}

// The mode is set between bind and listen: until listen every connection attempt is refused.
int CMesgServer::m_bind() {
  const auto* address = reinterpret_cast<const sockaddr*>(&m_address);
  if (bind(m_listenFd.get(), address, sizeof m_address) != 0) {
    syslog(LOG_ERR, tarn::kMesgBindError, kListening, __LINE__, kMesgServerName);
    return -1;
  }
  if (m_modeGiven && chmod(m_path, m_mode) != 0) {
    const int error = errno;
    syslog(LOG_ERR, tarn::kMesgChmodError, kListening, __LINE__, kMesgServerName, m_path, error);
    return -1;
  }
  return 0;
}

// 0 when woken to stop or disturbed, else there may be a connection to accept.
int CMesgServer::m_waitForConnection(int timeoutMs) {
  pollfd entries[2] = {{m_listenFd.get(), POLLIN, 0}, {m_stopFd.get(), POLLIN, 0}};
  if (poll(entries, 2, timeoutMs) <= 0) return 0;
  return entries[0].revents != 0 && entries[1].revents == 0 ? 1 : 0;
}

// Handles are given out from the lowest, so the number tells how many are left.
int CMesgServer::m_handleLimit() const {
  rlimit limit;
  if (m_handleReserve == 0 || getrlimit(RLIMIT_NOFILE, &limit) != 0) return FD_SETSIZE;
  const auto reserve = static_cast<rlim_t>(m_handleReserve);
  const rlim_t usable = limit.rlim_cur > reserve ? limit.rlim_cur - reserve : 0;
  return static_cast<int>(std::min<rlim_t>(usable, FD_SETSIZE));
}

// The new handle, or -1; errno is EAGAIN when there is no reason to pause before the next attempt.
int CMesgServer::m_accept() {
  int fd = accept4(m_listenFd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd < 0) {
    const int error = errno;
    if (error != EAGAIN) {
      syslog(LOG_ERR, tarn::kMesgAcceptError, __func__, __LINE__, kMesgServerName);
    }
    errno = error;
    return -1;
  }
  if (fd == 0) {
    // A highest handle of 0 means "no client", so a client cannot have it.
    fd = fcntl(0, F_DUPFD_CLOEXEC, 1);
    close(0);
  }
  if (fd >= 0 && fd < m_handleLimit()) return fd;
  syslog(LOG_ERR, tarn::kMesgClientRefused, __func__, __LINE__, kMesgServerName, fd);
  if (fd >= 0) close(fd);
  errno = EAGAIN;
  return -1;
}

void CMesgServer::m_addClient(int fd) {
  {
    MutexLock lock(m_mutex);
    m_joined.push_back(fd);
    m_hasJoined = true;
    // Last: who sees the line can rely on the owner's knowing the client from its next call on.
    syslog(LOG_INFO, tarn::kMesgAcceptNotice, fd);
  }
  raiseEvent(m_wakeFd.get());
}
