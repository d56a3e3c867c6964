#include "ViewSession.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <syslog.h>
#include <unistd.h>

#include "CardView.h"
#include "Console.h"
#include "RecoveryLine.h"
#include "StandardOutputMuted.h"
#include "base/UniqueFd.h"
#include "fat/ChunkFiles.h"
#include "original/OriginalCard.h"
#include "recorder/recovery/Recovery.h"

namespace tarn {
namespace {

constexpr int kServerStartMs = 20000;
constexpr int kServerStopMs = 60000;  // its last flush waits for a slow card
constexpr int kLookMs = 100;

// In the child: nothing of the terminal reaches the server, and it stops in order when we die.
void prepareServer(int readyFd, int parent) {
  setpgid(0, 0);
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) _exit(0);
  StandardOutputMuted::pointAtNull();
  dup2(STDOUT_FILENO, STDIN_FILENO);
  fcntl(readyFd, F_SETFD, 0);
}

}  // namespace

int ViewSession::open(bool server, std::string* error) {
  RecoveryReport report;
  {
    const StandardOutputMuted muted;
    const RecoveryLine line;
    report = Recovery(readOnly_ ? FusePolicy::kGuard : FusePolicy::kStop).run();
  }
  for (const std::string& problem : report.problems) warn(problem);
  if (!report.ok()) {
    *error = "the recorder could not be started up on this card: " + report.error;
    const std::string other = OriginalCard::otherContent(deviceName(kRecorderPartition));
    if (!other.empty()) *error += "; it holds " + other;
    return -1;
  }
  served_ = server;
  return server ? startServer(error) : 0;
}

int ViewSession::startServer(std::string* error) {
  const std::string program = findCompanion("tarn-server");
  if (program.empty()) {
    *error = "tarn-server is missing: it belongs beside this tool";
    return -1;
  }
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    *error = "cannot make a pipe";
    return -1;
  }
  const UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  const int parent = getpid();
  const bool started = server_.start({program, "--ready-fd", std::to_string(writing.get())},
                                     [&writing, parent] { prepareServer(writing.get(), parent); });
  writing.reset();
  struct pollfd ready = {reading.get(), POLLIN, 0};
  char mark = 0;
  // A server that ends before it is ready closes the pipe without a mark.
  if (started && poll(&ready, 1, kServerStartMs) > 0 && read(reading.get(), &mark, 1) == 1)
    return 0;
  *error = "the management server did not start";
  std::string ignored;
  if (started) close(&ignored);
  return -1;
}

// One that somebody stopped (SIGSTOP) takes no SIGTERM until it is told to go on. Only that one is
// told: a SIGCONT takes away the stop by which a tracer, or a leak checker at the end, takes hold
// of a process, and that would wait for ever.
bool ViewSession::waitForServer(int* exitCode) {
  for (int waited = 0; waited < kServerStopMs; waited += kLookMs) {
    if (server_.stopped()) kill(server_.pid(), SIGCONT);
    if (server_.waitFor(kLookMs, exitCode)) return true;
  }
  return false;
}

int ViewSession::close(std::string* error) {
  const pid_t pid = server_.pid();
  int exitCode = 0;
  if (!server_.waitFor(0, &exitCode)) {
    kill(pid, SIGTERM);
    if (!waitForServer(&exitCode)) {
      kill(pid, SIGKILL);
      server_.waitFor(kServerStopMs, &exitCode);
      *error = "the management server did not stop and was killed";
      return -1;
    }
  }
  if (exitCode == 0) {
    if (!readOnly_) saveImage();
    return 0;
  }
  *error = "the management server ended with code " + std::to_string(exitCode) +
           "; what it had not saved is rebuilt from the card at the next start";
  return -1;
}

// Without an image the next start reads the journal instead, so that is no failure.
void ViewSession::saveImage() const {
  const StandardOutputMuted muted;
  const RecoveryLine line;
  std::string reason;
  Recovery recovery;
  if ((served_ ? recovery.saveImage(&reason) : recovery.keepImage(&reason)) != 0)
    syslog(LOG_NOTICE, "no database image: %s", reason.c_str());
}

}  // namespace tarn
