#include "mesg/CMesgServer.h"

#include <poll.h>
#include <sys/socket.h>
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
#include "mesg/WakeEvent.h"

using tarn::clearEvent;
using tarn::kMesgServerName;
using tarn::MutexLock;
using tarn::raiseEvent;

namespace {

// Whichever operation reads, its lines carry the name that programs which read the log know.
constexpr char kReading[] = "readMesg";

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

// For the owner's thread, wherever it is to know of all that have joined.
void CMesgServer::m_takeJoined() {
  if (!m_hasJoined) return;
  MutexLock lock(m_mutex);
  m_hasJoined = false;
  m_clients.splice(m_clients.end(), m_joined);
  m_setupSelect();
}

// Wakes for a new client and takes it into the set, so that its first request need not wait until
// another client speaks; Linux leaves in `timeout` what is left of it.
int CMesgServer::select() {
  timeval timeout = selectTimeout(m_timeoutSec, m_timeoutUsec);
  m_unread = 0;
  const int wakeFd = m_wakeFd.get();
  for (;;) {
    m_takeJoined();
    if (m_highest == 0) {
      errno = ENOTCONN;
      return -1;
    }
    m_resultSet = m_masterSet;
    if (wakeFd >= 0) FD_SET(wakeFd, &m_resultSet);
    int marked = ::select(std::max(static_cast<int>(m_highest), wakeFd) + 1, &m_resultSet, nullptr,
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
  m_takeJoined();
  if (m_highest != 0) return 1;
  pollfd wake{m_wakeFd.get(), POLLIN, 0};
  if (poll(&wake, 1, timeoutMs) > 0 && m_drainWake()) return 0;
  m_takeJoined();
  return m_highest != 0 ? 1 : 0;
}

void CMesgServer::interrupt() {
  m_interrupted = true;
  raiseEvent(m_wakeFd.get());
}

long CMesgServer::readMesg(void* buf, long size, long* clientFd) {
  m_takeJoined();
  if (m_highest == 0) return 0;
  m_findMarked();
  return m_readAtPosition(buf, size, clientFd);
}

long CMesgServer::readReady(void* buf, long size, long* clientFd) {
  if (m_unread <= 0 || m_highest == 0) return 0;
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
  m_takeJoined();
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
  m_takeJoined();
  for (const long fd : m_clients) close(static_cast<int>(fd));
  m_clients.clear();
  m_position = m_clients.end();
  FD_ZERO(&m_masterSet);
  FD_ZERO(&m_resultSet);
  m_highest = 0;
  m_unread = 0;
}
