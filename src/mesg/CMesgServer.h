#pragma once

#include <pthread.h>
#include <sys/select.h>
#include <sys/types.h>
#include <sys/un.h>

#include <atomic>
#include <list>

#include "base/Export.h"
#include "base/Mutex.h"
#include "base/UniqueFd.h"

// Server end of the local message channel: a sequenced-packet Unix-domain socket, one packet a
// message, no framing of its own. A thread of the object accepts clients; one other thread, the
// owner's, waits in select(), reads with readMesg() or readReady() and answers with writeMesg().
// Only interrupt() may be called from any thread or from a signal handler.
//
//   CMesgServer server("/tmp/some-socket", 1, 0);
//   server.startAcceptNewConnectionThread();
//   for (;;) {
//     const int marked = server.select();
//     if (marked < 0) server.waitForClient(1000);  // nobody is connected
//     if (marked <= 0) continue;
//     while ((got = server.readReady(buffer, sizeof buffer, &client)) != 0)
//       if (got > 0) server.writeMesg(buffer, got, client);
//   }
//
// Operations log to the system log at LOG_ERR; a new client at LOG_INFO. The lines of readReady()
// carry the name readMesg.
class TARN_API CMesgServer {
 public:
  // Longest socket path, in characters; a longer one is cut.
  static constexpr int kPathRoom = 32;

  // Opens nothing yet. The time-out is that of one select(). The process ignores SIGPIPE from here
  // on.
  CMesgServer(const char* path, unsigned long timeoutSec, unsigned long timeoutUsec);
  // Stops the accept thread if it runs and removes the socket's path, whoever made it. Client
  // handles stay open: see closeClients().
  ~CMesgServer();
  CMesgServer(const CMesgServer&) = delete;
  CMesgServer& operator=(const CMesgServer&) = delete;

  // Starts the thread, which makes the socket (removing any file at the path) and takes clients.
  // 0, also when making the socket fails later, see waitUntilListening(); -1: no thread, or one
  // runs already. One that could not make its socket does not run: it is started anew.
  int startAcceptNewConnectionThread();
  // Wakes the thread, waits for its end and so closes the listening socket; clients stay. 0, or -1
  // when there was no thread to wait for.
  int stopAcceptNewConnectionThread();

  // Waits until a client has a message and marks those that have one. -1 at once without clients
  // (errno ENOTCONN), else what the system's select says: how many are marked, 0 on time-out, -1
  // with errno. A client that joins meanwhile is waited for within the same time-out.
  int select();

  // Reads one message of at most `size` bytes (the rest of a longer one is lost) from the next
  // client, in turn, that the last select() marked; without a mark from the next client, which is
  // dropped when it has nothing to say: so call it only after select() > 0.
  // Bytes read; 0 without clients; -1 when the client has gone and was dropped, or for a read error
  // (nothing dropped). *clientFd is the client to answer; it means nothing when the result is -1.
  long readMesg(void* buf, long size, long* clientFd);

  // Sends one message to a client. Never blocks and never raises SIGPIPE. Bytes sent, or -1: the
  // connection is then shut down, and readMesg() drops the client; until then no other file of this
  // process gets its number.
  long writeMesg(const void* buf, long size, long clientFd);

  // ---- Operations beyond the channel's basic ones ----

  // As readMesg(), but reads each client that the last select() marked just once and returns 0 when
  // all were read: one select() may so serve many clients.
  long readReady(void* buf, long size, long* clientFd);

  // Sleeps until there is a client: 1 when there is one, 0 after `timeoutMs` (-1: no limit) or
  // after interrupt().
  int waitForClient(int timeoutMs);

  // Makes the running or else the next select() or waitForClient() return 0 at once. For any thread
  // and for signal handlers.
  void interrupt();

  // File mode of the socket, set before anybody can connect; call it before the thread starts.
  // Without it the process's umask decides.
  void setSocketMode(mode_t mode);

  // Keeps this many of the process's handles free for other files: a client that would take one of
  // them is closed at once. None unless set; call it before the thread starts.
  void setHandleReserve(int handles);

  // Waits until the started thread has made its socket: 0 when clients can connect, -1 when making
  // it failed or no thread was started.
  int waitUntilListening();

  // Closes and forgets all clients; for the owner's thread.
  void closeClients();

 private:
  enum class Setup { kNone, kRunning, kListening, kFailed };

  int m_listen();
  int m_bind();
  int m_accept();
  int m_setupSelect();
  void m_takeJoined();
  static void* m_runThread(void* self);
  void m_acceptNewConnectionFunc();

  int m_openWakeFds(const char* operation);
  void m_joinFailedThread();
  int m_handleLimit() const;
  void m_reportSetup(Setup setup);
  int m_waitForConnection(int timeoutMs);
  void m_addClient(int fd);
  bool m_findMarked();
  long m_readAtPosition(void* buf, long size, long* clientFd);
  void m_dropAtPosition();
  bool m_drainWake();

  char m_path[kPathRoom + 1];
  tarn::UniqueFd m_listenFd;  // the accept thread's, while it runs
  sockaddr_un m_address;
  pthread_t m_thread{};
  bool m_joinable = false;             // owner's: a thread was started and not yet joined
  std::atomic<bool> m_running{false};  // cleared to end the accept thread
  // Clients are the owner's, so that a request takes no lock; the accept thread hands new ones
  // over.
  std::list<long> m_clients;             // in order of acceptance
  fd_set m_masterSet;                    // all clients
  fd_set m_resultSet;                    // those marked by the last select()
  long m_highest = 0;                    // highest client handle, 0 when none
  std::list<long>::iterator m_position;  // next client to be read
  tarn::Mutex m_mutex;
  std::list<long> m_joined TARN_GUARDED_BY(m_mutex);  // not yet among m_clients
  std::atomic<bool> m_hasJoined{false};               // so the lock is taken only when there is one
  unsigned long m_timeoutSec;
  unsigned long m_timeoutUsec;

  int m_unread = 0;  // owner's: how many marked clients readReady() has still to read
  mode_t m_mode = 0;
  bool m_modeGiven = false;
  int m_handleReserve = 0;
  tarn::UniqueFd m_wakeFd;  // eventfd in the owner's select: a client has joined, or interrupt()
  tarn::UniqueFd m_stopFd;  // eventfd that ends the accept thread's waiting
  std::atomic<bool> m_interrupted{false};
  tarn::Mutex m_setupMutex;
  tarn::CondVar m_setupChanged;
  Setup m_setup TARN_GUARDED_BY(m_setupMutex) = Setup::kNone;
};
