#include "recorder/server/ManagementServer.h"

#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

#include "manager/RequestFormat.h"
#include "mesg/CMesgServer.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recovery/DatabaseImage.h"
#include "recorder/rows/FileLock.h"
#include "recorder/rows/ServerProbe.h"
#include "recorder/server/ManagementStores.h"
#include "recorder/server/ServerMessages.h"
#include "recorder/server/ServerReport.h"

namespace tarn {
namespace {

constexpr mode_t kSocketMode = 0660;
// Of one select(). Everything that matters wakes it, so its length does not.
constexpr unsigned long kSelectSeconds = 60;
constexpr useconds_t kPauseUs = 10000;
// Rounds in which nothing could be read: clients that left are a few, and take no pause.
constexpr uint32_t kVainRounds = 8;
constexpr uint32_t kMostDoublings = 5;
// Files that clients must leave to the card, the database and the system log.
constexpr int kHandleReserve = 32;

}  // namespace

ManagementServer::ManagementServer() = default;

// Clients of a server that started and never ran would wait for their answers.
ManagementServer::~ManagementServer() {
  m_waker = nullptr;
  if (m_server != nullptr && m_stores != nullptr) {
    m_server->stopAcceptNewConnectionThread();
    m_server->closeClients();
  }
  m_server.reset();
}

int ManagementServer::start() {
  return orNoMemory(
      "ManagementServer",
      [&]() -> int {
        if (m_server != nullptr || !claimPath()) return -1;
        if (!mayBeWritten()) {
          m_lock->unlock();
          return -1;
        }
        if (!dropDatabaseImage()) {
          reportServer(LOG_ERR, kMsgServerImage);
          m_lock->unlock();
          return -1;
        }
        if (openStores() && listen()) return 0;
        m_stores.reset();
        m_server.reset();
        m_lock->unlock();
        return -1;
      },
      [&]() -> int { return -1; });
}

// A server without any is none: who waits for it to be ready must hear that the card is not.
bool ManagementServer::openStores() {
  m_stores = std::make_unique<ManagementStores>(&m_stop);
  if (m_stores->open() > 0) return true;
  reportServer(LOG_ERR, kMsgServerCard);
  return false;
}

// A card that is not what it says it is gets no server, nor does one that is there and cannot be
// read. Without a card there is nothing to write to.
bool ManagementServer::mayBeWritten() {
  const GeometryReport geometry = CardGeometry::verifyRecorder();
  if (geometry.ok() || !geometry.opened) return true;
  reportServer(LOG_ERR, "%s", geometry.text.c_str());
  return false;
}

bool ManagementServer::claimPath() {
  m_lock = std::make_unique<FileLock>();
  // Two servers that start at once both find nobody answering; the lock lets one of them through.
  if (!m_lock->lock(kServerLockPath, false)) {
    if (errno == EWOULDBLOCK) {
      reportServer(LOG_ERR, kMsgServerRuns, kServerSocketPath);
    } else {
      reportServer(LOG_ERR, kMsgServerLock, kServerLockPath, strerror(errno));
    }
    return false;
  }
  const ServerProbe probe = probeServer();
  if (probe == ServerProbe::kUnknown) {
    reportServer(LOG_ERR, kMsgServerProbe, kServerSocketPath, strerror(errno));
  } else if (probe == ServerProbe::kAnswered) {
    reportServer(LOG_ERR, kMsgServerRuns, kServerSocketPath);
  }
  if (probe != ServerProbe::kFree) m_lock->unlock();
  return probe == ServerProbe::kFree;
}

bool ManagementServer::listen() {
  m_server = std::make_unique<CMesgServer>(kServerSocketPath, kSelectSeconds, 0);
  m_server->setSocketMode(kSocketMode);
  m_server->setHandleReserve(kHandleReserve);
  if (m_server->startAcceptNewConnectionThread() != 0 || m_server->waitUntilListening() != 0) {
    reportServer(LOG_ERR, kMsgServerListen, kServerSocketPath);
    return false;
  }
  m_waker = m_server.get();
  syslog(LOG_INFO, kMsgServerReady, kServerSocketPath);
  return true;
}

int ManagementServer::run() {
  return orNoMemory(
      "ManagementServer",
      [&]() -> int {
        if (m_server == nullptr || m_stores == nullptr) return -1;
        while (!m_stop) {
          const int marked = m_server->select();
          if (marked > 0) {
            serveMarked();
          } else if (marked < 0 && errno == ENOTCONN) {
            m_server->waitForClient(-1);
          } else if (marked < 0 && errno != EINTR) {
            usleep(kPauseUs);  // out of memory, say: not the moment to spin
          }
        }
        return shutDown();
      },
      [&]() -> int { return -1; });
}

void ManagementServer::serveMarked() {
  uint8_t packet[kRequestSize + 1];  // one more, so that a longer packet shows
  long client = -1;
  long length;
  ++m_vainRounds;
  while ((length = m_server->readReady(packet, sizeof packet, &client)) != 0) {
    if (length < 0) continue;
    m_vainRounds = 0;
    answerPacket(packet, length, client);
  }
  // A client whose reads the system refuses stays marked, and would be asked without an end.
  if (m_vainRounds < kVainRounds) return;
  usleep(kPauseUs << std::min(m_vainRounds - kVainRounds, kMostDoublings));
}

// A packet of the wrong length is no request: its sender gets an empty refusal, so that it does not
// wait for ever. A client that does not take its answer is the messaging server's to drop.
void ManagementServer::answerPacket(const void* packet, long length, long client) {
  RequestRecord record;
  if (length == long{kRequestSize}) {
    memcpy(record.bytes(), packet, kRequestSize);
    m_stores->answer(record);
  } else {
    record.setResult(kResultRefused);
  }
  m_server->writeMesg(record.bytes(), kRequestSize, client);
}

// Clients are let go last: one that finds its connection closed also finds its data saved. The
// object of the socket lives on, for requestStop() may still use it; its path stays locked.
int ManagementServer::shutDown() {
  m_server->stopAcceptNewConnectionThread();
  const int saved = m_stores->save();
  unlink(kServerSocketPath);
  m_server->closeClients();
  m_stores.reset();
  syslog(LOG_INFO, kMsgServerStopped);
  return saved;
}

void ManagementServer::requestStop() noexcept {
  m_stop = true;
  CMesgServer* waker = m_waker;
  if (waker != nullptr) waker->interrupt();
}

}  // namespace tarn
