#pragma once

#include <atomic>
#include <memory>

#include "base/Export.h"

class CMesgServer;

namespace tarn {

class FileLock;
class ManagementStores;
class RequestRecord;

// The process that owns the chunk management data: answers the managers' requests on
// /tmp/unix-sock-tarn-server from the native stores of the recorder's card. There is one of them on
// a machine, and nothing else may write the management files while it runs.
//
//   tarn::ManagementServer server;
//   if (server.start() != 0) return 1;
//   return server.run() == 0 ? 0 : 3;   // until requestStop()
//
// An object serves once. start(), run() and the destructor are for one thread.
class TARN_API ManagementServer {
 public:
  ManagementServer();
  // Ends without saving what run() has not saved; the socket is removed if start() made it, and the
  // clients are disconnected.
  ~ManagementServer();
  ManagementServer(const ManagementServer&) = delete;
  ManagementServer& operator=(const ManagementServer&) = delete;

  // Opens the stores and begins to listen; clients can connect when it returns 0. The socket is
  // for the process's user and group (mode 0660); one that a dead server left behind is replaced.
  // -1, reported in the system log and on standard error: another server answers on the path (it
  // is left alone), the lock file or the socket cannot be made, a database image that no start has
  // taken cannot be marked empty (what clients change now, it lacks), the card's geometry
  // contradicts itself or cannot be read, or none of the stores can be opened. One store that
  // cannot be opened (bad CRC) is no reason to fail: it is reported and its requests are refused.
  int start();

  // Serves until requestStop(), then closes the socket, saves all stores, removes the socket's path
  // and disconnects the clients. 0, or -1 when a store could not be saved (reported), start() has
  // not succeeded, or it was run before.
  int run();

  // Makes run() end, also one that has not begun yet. For any thread and for signal handlers, while
  // the object lives.
  void requestStop() noexcept;

 private:
  bool claimPath();
  static bool mayBeWritten();
  bool openStores();
  bool listen();
  void serveMarked();
  void answerPacket(RequestRecord* record, long length, long client);
  int shutDown();

  std::unique_ptr<FileLock> lock_;  // held to the end: the path is ours
  std::unique_ptr<ManagementStores> stores_;
  std::unique_ptr<CMesgServer> server_;
  std::atomic<CMesgServer*> waker_{nullptr};  // server_, for requestStop()
  std::atomic<bool> stop_{false};
  uint32_t vainRounds_ = 0;  // in which no client said anything
};

}  // namespace tarn
