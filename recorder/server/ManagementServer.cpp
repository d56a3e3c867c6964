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
  waker_ = nullptr;
  if (server_ != nullptr && stores_ != nullptr) {
    server_->stopAcceptNewConnectionThread();
    server_->closeClients();
  }
  server_.reset();
}

int ManagementServer::start() {
  return orNoMemory(
      "ManagementServer",
      [&]() -> int {
        if (server_ != nullptr || !claimPath()) return -1;
        if (!mayBeWritten()) {
          lock_->unlock();
          return -1;
        }
        if (!dropDatabaseImage()) {
          reportServer(LOG_ERR, kMsgServerImage);
          lock_->unlock();
          return -1;
        }
        if (openStores() && listen()) return 0;
        stores_.reset();
        server_.reset();
        lock_->unlock();
        return -1;
      },
      [&]() -> int { return -1; });
}

// A server without any is none: who waits for it to be ready must hear that the card is not.
bool ManagementServer::openStores() {
  stores_ = std::make_unique<ManagementStores>(&stop_);
  if (stores_->open() > 0) return true;
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
  lock_ = std::make_unique<FileLock>();
  // Two servers that start at once both find nobody answering; the lock lets one of them through.
  if (!lock_->lock(kServerLockPath, false)) {
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
  if (probe != ServerProbe::kFree) lock_->unlock();
  return probe == ServerProbe::kFree;
}

bool ManagementServer::listen() {
  server_ = std::make_unique<CMesgServer>(kServerSocketPath, kSelectSeconds, 0);
  server_->setSocketMode(kSocketMode);
  server_->setHandleReserve(kHandleReserve);
  if (server_->startAcceptNewConnectionThread() != 0 || server_->waitUntilListening() != 0) {
    reportServer(LOG_ERR, kMsgServerListen, kServerSocketPath);
    return false;
  }
  waker_ = server_.get();
  syslog(LOG_INFO, kMsgServerReady, kServerSocketPath);
  return true;
}

int ManagementServer::run() {
  return orNoMemory(
      "ManagementServer",
      [&]() -> int {
        if (server_ == nullptr || stores_ == nullptr) return -1;
        while (!stop_) {
          const int marked = server_->select();
          if (marked > 0) {
            serveMarked();
          } else if (marked < 0 && errno == ENOTCONN) {
            server_->waitForClient(-1);
          } else if (marked < 0 && errno != EINTR) {
            usleep(kPauseUs);  // out of memory, say: not the moment to spin
          }
        }
        return shutDown();
      },
      [&]() -> int { return -1; });
}

void ManagementServer::serveMarked() {
  // Read where it is answered: a copy would be a fiftieth of what a request costs here.
  struct {
    RequestRecord record;
    uint8_t more;  // so that a longer packet shows
  } packet;
  long client = -1;
  long length;
  ++vainRounds_;
  while ((length = server_->readReady(&packet, sizeof packet, &client)) != 0) {
    if (length < 0) continue;
    vainRounds_ = 0;
    answerPacket(&packet.record, length, client);
  }
  // A client whose reads the system refuses stays marked, and would be asked without an end.
  if (vainRounds_ < kVainRounds) return;
  usleep(kPauseUs << std::min(vainRounds_ - kVainRounds, kMostDoublings));
}

// A packet of the wrong length is no request: its sender gets an empty refusal, so that it does not
// wait for ever. A client that does not take its answer is the messaging server's to drop.
void ManagementServer::answerPacket(RequestRecord* record, long length, long client) {
  if (length == long{kRequestSize}) {
    stores_->answer(*record);
  } else {
    *record = RequestRecord();
    record->setResult(kResultRefused);
  }
  server_->writeMesg(record->bytes(), kRequestSize, client);
}

// Clients are let go last: one that finds its connection closed also finds its data saved. The
// object of the socket lives on, for requestStop() may still use it; its path stays locked.
int ManagementServer::shutDown() {
  server_->stopAcceptNewConnectionThread();
  const int saved = stores_->save();
  unlink(kServerSocketPath);
  server_->closeClients();
  stores_.reset();
  syslog(LOG_INFO, kMsgServerStopped);
  return saved;
}

void ManagementServer::requestStop() noexcept {
  stop_ = true;
  CMesgServer* waker = waker_;
  if (waker != nullptr) waker->interrupt();
}

}  // namespace tarn
