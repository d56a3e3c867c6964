#include "mesg/CMesgServer.h"

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
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>

#include "base/Wrap.h"
#include "mesg/MesgMessages.h"

using tarn::kMesgServerName;
using tarn::MutexLock;

namespace {

constexpr int kBacklog = 5;
// Whichever operation reads or listens, its lines carry the name that programs which read the log
// know.
constexpr char kReading[] = "readMesg";
constexpr char kListening[] = "m_listen";
// Pauses of the accept thread after a failed accept (no free handles, say), doubled up to the
// limit.
constexpr int kFirstPauseMs = 10;
constexpr int kLongestPauseMs = 1000;

// A time-out as the system's select takes it on both word sizes.
timeval selectTimeout(unsigned long seconds, unsigned long microseconds) {
  constexpr uint32_t kUsecPerSec = 1000000;
  const uint32_t usec = tarn::low32(microseconds);
  const uint64_t whole = uint64_t{tarn::low32(seconds)} + usec / kUsecPerSec;
  timeval timeout{};
  timeout.tv_sec = static_cast<time_t>(std::min<uint64_t>(whole, INT32_MAX));
  timeout.tv_usec = static_cast<suseconds_t>(usec % kUsecPerSec);
  return timeout;
}

// Only write() and errno: also called from signal handlers.
void raiseEvent(int eventFd) {
  const int savedErrno = errno;
  const uint64_t one = 1;
  // It fails only when the counter is full, and then the reader will wake anyway.
  [[maybe_unused]] const ssize_t written = write(eventFd, &one, sizeof one);
  errno = savedErrno;
}

void clearEvent(int eventFd) {
  uint64_t count;
  [[maybe_unused]] const ssize_t got = read(eventFd, &count, sizeof count);
}

}  // namespace

CMesgServer::CMesgServer(const char* path, unsigned long timeoutSec, unsigned long timeoutUsec)
    : m_timeoutSec(timeoutSec), m_timeoutUsec(timeoutUsec) {
  memset(m_path, 0, sizeof m_path);
  strncat(m_path, path, kPathRoom);
  memset(&m_address, 0, sizeof m_address);
  m_address.sun_family = AF_UNIX;
  static_assert(sizeof m_path <= sizeof m_address.sun_path);
  memcpy(m_address.sun_path, m_path, sizeof m_path);
  FD_ZERO(&m_masterSet);
  FD_ZERO(&m_resultSet);
  m_position = m_clients.begin();
  signal(SIGPIPE, SIG_IGN);
  // Early, so that interrupt() works from the beginning; tried again by the start.
  m_openWakeFds(__func__);
}

// Kept on purpose: the clients' handles stay open, for they may outlive the server; an owner who
// wants them closed calls closeClients() first. Test: DestroyingTheServerLeavesClientsConnected.
CMesgServer::~CMesgServer() {
  if (m_joinable) stopAcceptNewConnectionThread();
  unlink(m_path);
}

// ---- The accept thread and its control ----

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
    m_clients.push_back(fd);
    m_setupSelect();
    // Last: who sees the line can rely on the client's being in the set.
    syslog(LOG_INFO, tarn::kMesgAcceptNotice, fd);
  }
  raiseEvent(m_wakeFd.get());
}

int CMesgServer::m_setupSelect() {
  FD_ZERO(&m_masterSet);
  long highest = 0;
  for (const long fd : m_clients) {
    FD_SET(static_cast<int>(fd), &m_masterSet);
    highest = std::max(highest, fd);
  }
  m_highest = highest;
  if (!m_clients.empty()) return 0;
  syslog(LOG_ERR, tarn::kMesgNotConnected, __func__, __LINE__, kMesgServerName);
  return -1;
}

// ---- The owner's thread ----

// Wakes for a new client and takes it into the set, so that its first request need not wait until
// another client speaks; Linux leaves in `timeout` what is left of it.
int CMesgServer::select() {
  timeval timeout = selectTimeout(m_timeoutSec, m_timeoutUsec);
  m_unread = 0;
  const int wakeFd = m_wakeFd.get();
  for (;;) {
    if (m_highest == 0) {
      errno = ENOTCONN;
      return -1;
    }
    long highest;
    {
      // Together: the system leaves bits above `highest` as they are, so a client that joined
      // between the two would look marked.
      MutexLock lock(m_mutex);
      m_resultSet = m_masterSet;
      highest = m_highest;
    }
    if (wakeFd >= 0) FD_SET(wakeFd, &m_resultSet);
    int marked = ::select(std::max(static_cast<int>(highest), wakeFd) + 1, &m_resultSet, nullptr,
                          nullptr, &timeout);
    if (marked <= 0) {
      FD_ZERO(&m_resultSet);
      return marked;
    }
    if (wakeFd >= 0 && FD_ISSET(wakeFd, &m_resultSet)) {
      FD_CLR(wakeFd, &m_resultSet);
      --marked;
      if (m_drainWake()) {
        FD_ZERO(&m_resultSet);
        return 0;
      }
    }
    m_unread = marked;
    if (marked > 0) return marked;
  }
}

// True when interrupt() was called since the last time.
bool CMesgServer::m_drainWake() {
  clearEvent(m_wakeFd.get());
  return m_interrupted.exchange(false);
}

int CMesgServer::waitForClient(int timeoutMs) {
  if (m_highest != 0) return 1;
  pollfd wake{m_wakeFd.get(), POLLIN, 0};
  if (poll(&wake, 1, timeoutMs) > 0 && m_drainWake()) return 0;
  return m_highest != 0 ? 1 : 0;
}

void CMesgServer::interrupt() {
  m_interrupted = true;
  raiseEvent(m_wakeFd.get());
}

long CMesgServer::readMesg(void* buf, long size, long* clientFd) {
  if (m_highest == 0) return 0;
  MutexLock lock(m_mutex);
  m_findMarked();
  return m_readAtPosition(buf, size, clientFd);
}

long CMesgServer::readReady(void* buf, long size, long* clientFd) {
  if (m_unread <= 0 || m_highest == 0) return 0;
  MutexLock lock(m_mutex);
  if (!m_findMarked()) {
    m_unread = 0;
    return 0;
  }
  --m_unread;
  FD_CLR(static_cast<int>(*m_position), &m_resultSet);
  return m_readAtPosition(buf, size, clientFd);
}

// Moves the position to the next marked client, in turn. Without one it is where it was.
bool CMesgServer::m_findMarked() {
  if (m_position == m_clients.end()) m_position = m_clients.begin();
  for (size_t scanned = 0; scanned < m_clients.size(); ++scanned) {
    if (FD_ISSET(static_cast<int>(*m_position), &m_resultSet)) return true;
    if (++m_position == m_clients.end()) m_position = m_clients.begin();
  }
  return false;
}

// Kept on purpose: the client behind a dropped one loses its turn, and a client that has nothing
// to say when it is read counts as gone. Tests: AfterADropTheNextRoundStartsOneFurtherOn,
// ReadingASilentClientDropsIt.
long CMesgServer::m_readAtPosition(void* buf, long size, long* clientFd) {
  const long fd = *m_position;
  long got = read(static_cast<int>(fd), buf, static_cast<size_t>(size));
  const int error = errno;
  if (got == 0 || (got < 0 && error == EAGAIN)) {
    syslog(LOG_ERR, tarn::kMesgSocketClosed, kReading, __LINE__, kMesgServerName, fd);
    m_dropAtPosition();
    got = -1;
  } else if (got < 0) {
    syslog(LOG_ERR, tarn::kMesgReadErrno, kReading, __LINE__, kMesgServerName, error);
    got = -1;
  }
  const bool atEnd = m_position == m_clients.end();
  *clientFd = atEnd ? -1 : *m_position;
  if (!atEnd) ++m_position;
  return got;
}

// The number may be given to the next client at once, so its old mark goes with it.
void CMesgServer::m_dropAtPosition() {
  const int fd = static_cast<int>(*m_position);
  FD_CLR(fd, &m_resultSet);
  m_position = m_clients.erase(m_position);
  m_setupSelect();
  close(fd);
}

// The handle stays open, shut down: were it closed here, its number could become a new client's,
// the database's or a device's while the list still holds it. readMesg() finds the end and drops
// it.
long CMesgServer::writeMesg(const void* buf, long size, long clientFd) {
  const int fd = static_cast<int>(clientFd);
  const ssize_t sent = send(fd, buf, static_cast<size_t>(size), MSG_NOSIGNAL);
  if (sent >= 0) return sent;
  const int error = errno;
  shutdown(fd, SHUT_RDWR);
  syslog(LOG_ERR, tarn::kMesgWriteError, __func__, __LINE__, kMesgServerName, fd,
         static_cast<int>(size), error);
  return -1;
}

void CMesgServer::closeClients() {
  MutexLock lock(m_mutex);
  for (const long fd : m_clients) close(static_cast<int>(fd));
  m_clients.clear();
  m_position = m_clients.end();
  FD_ZERO(&m_masterSet);
  FD_ZERO(&m_resultSet);
  m_highest = 0;
  m_unread = 0;
}
