// tarn-server: owns the chunk management data of the card and answers the recorder's processes.

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "programs/ServiceNotice.h"
#include "base/StandardStreams.h"
#include "base/UniqueFd.h"
#include "programs/OutOfMemory.h"
#include "recorder/server/ManagementServer.h"

namespace {

enum ExitStatus { kExitOk = 0, kExitCannotStart = 1, kExitUsage = 2, kExitNotSaved = 3 };

constexpr char kHelp[] =
    "Usage: tarn-server [--ready-fd N]\n"
    "Owns the chunk management data of the card /dev/sdblk0p1 and answers the recorder's\n"
    "processes on /tmp/unix-sock-tarn-server until it gets SIGTERM, SIGINT or SIGHUP.\n"
    "\n"
    "  --ready-fd N  write a newline to file descriptor N when clients can connect, and close it\n"
    "  --help        print this text and exit\n"
    "  --version     print the version and exit\n"
    "\n"
    "Exit status: 0 stopped, all saved; 1 cannot start; 2 wrong usage; 3 stopped, not all saved.\n";

struct Options {
  bool help = false;
  bool version = false;
  int readyFd = -1;
};

std::atomic<tarn::ManagementServer*> g_server{nullptr};

void onStopSignal(int) {
  const int savedErrno = errno;
  tarn::ManagementServer* server = g_server;
  if (server != nullptr) server->requestStop();
  errno = savedErrno;
}

void installStopSignals() {
  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_handler = onStopSignal;
  sigemptyset(&action.sa_mask);
  action.sa_flags = SA_RESTART;  // the loop is woken by other means; a card access goes on
  for (const int number : {SIGTERM, SIGINT, SIGHUP}) sigaction(number, &action, nullptr);
}

// An open descriptor of this process, or -1.
int parseDescriptor(const char* text) {
  char* end = nullptr;
  errno = 0;
  const long number = strtol(text, &end, 10);
  if (end == text || *end != '\0' || errno != 0 || number < 0 || number > INT_MAX) return -1;
  const int fd = static_cast<int>(number);
  return fcntl(fd, F_GETFD) < 0 ? -1 : fd;
}

bool parseReadyFd(const char* text, Options* options) {
  options->readyFd = parseDescriptor(text);
  if (options->readyFd >= 0) return true;
  fprintf(stderr, "tarn-server: --ready-fd needs an open file descriptor, not '%s'\n", text);
  return false;
}

bool parseOptions(int argc, char** argv, Options* options) {
  constexpr char kReadyFd[] = "--ready-fd";
  constexpr size_t kReadyFdLength = sizeof kReadyFd - 1;
  for (int i = 1; i < argc; ++i) {
    const char* arg = argv[i];
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      options->help = true;
    } else if (strcmp(arg, "--version") == 0) {
      options->version = true;
    } else if (strcmp(arg, kReadyFd) == 0) {
      if (!parseReadyFd(++i < argc ? argv[i] : "", options)) return false;
    } else if (strncmp(arg, kReadyFd, kReadyFdLength) == 0 && arg[kReadyFdLength] == '=') {
      if (!parseReadyFd(arg + kReadyFdLength + 1, options)) return false;
    } else {
      fprintf(stderr, "tarn-server: unknown argument '%s'; see tarn-server --help\n", arg);
      return false;
    }
  }
  return true;
}

// The descriptor is closed either way, so that a launcher that waits sees an end. Standard streams
// stay open. A pipe that nobody empties must not keep the clients waiting.
void tellReady(int fd, bool ready) {
  constexpr int kPatienceMs = 200;
  if (fd < 0) return;
  pollfd room = {fd, POLLOUT, 0};
  if (ready && poll(&room, 1, kPatienceMs) <= 0) {
    syslog(LOG_WARNING, "nobody takes the mark of --ready-fd from descriptor %d", fd);
  } else if (ready) {
    [[maybe_unused]] const ssize_t written = write(fd, "\n", 1);  // a launcher that left is its own
  }
  if (fd > STDERR_FILENO) close(fd);
}

// What was asked for is done only when all of it was written.
int print(const char* text) {
  return fputs(text, stdout) >= 0 && fflush(stdout) == 0 ? kExitOk : kExitCannotStart;
}

// The stores print notices there, and a pipe that is full and nobody reads would stop the server.
// The end for --ready-fd is kept. Not made non-blocking: the stream may be shared with a shell.
int muteStandardOutput(int readyFd) {
  fflush(stdout);
  if (readyFd == STDOUT_FILENO) readyFd = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
  const tarn::UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
  if (null.valid()) dup2(null.get(), STDOUT_FILENO);
  return readyFd;
}

// Clients take one each; select() has room for FD_SETSIZE of them, and the server has other files.
void raiseHandleLimit() {
  constexpr rlim_t kWanted = FD_SETSIZE + 256;
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= kWanted) return;
  limit.rlim_cur = std::min(limit.rlim_max, kWanted);
  setrlimit(RLIMIT_NOFILE, &limit);  // with less of them there is room for fewer clients
}

int serve(int readyFd) {
  raiseHandleLimit();
  readyFd = muteStandardOutput(readyFd);
  tarn::ManagementServer server;
  g_server = &server;
  installStopSignals();
  const bool started = server.start() == 0;
  tellReady(readyFd, started);
  int status = kExitCannotStart;
  if (started) {
    notifyServiceManager("READY=1");
    status = server.run() == 0 ? kExitOk : kExitNotSaved;
  }
  g_server = nullptr;
  return status;
}

}  // namespace

TARN_ENDS_WHEN_OUT_OF_MEMORY("tarn-server")

int main(int argc, char** argv) {
  if (!tarn::openStandardStreams()) return kExitCannotStart;
  Options options;
  if (!parseOptions(argc, argv, &options)) return kExitUsage;
  if (options.help) return print(kHelp);
  if (options.version) return print("tarn-server " TARN_VERSION "\n");
  openlog("tarn-server", LOG_PID, LOG_DAEMON);
  return tarn::endingWhenOutOfMemory("tarn-server", [&] { return serve(options.readyFd); });
}
