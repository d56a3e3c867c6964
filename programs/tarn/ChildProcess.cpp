#include "ChildProcess.h"

#include <errno.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "Console.h"

namespace tarn {
namespace {

constexpr int kCannotRun = 126;
constexpr int kNotFound = 127;
constexpr int kLongestStepMs = 10;

// Signals that wait() takes while it lives.
class SignalsHeld {
 public:
  SignalsHeld() {
    sigemptyset(&set_);
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&set_, number);
    sigprocmask(SIG_BLOCK, &set_, &before_);
  }
  ~SignalsHeld() { sigprocmask(SIG_SETMASK, &before_, nullptr); }
  SignalsHeld(const SignalsHeld&) = delete;
  SignalsHeld& operator=(const SignalsHeld&) = delete;

  // Waits for the next one. 0 for those that are not to go on: SIGCHLD, and a SIGINT that the
  // terminal has given to the child as well.
  int next() const {
    siginfo_t info = {};
    const int number = sigwaitinfo(&set_, &info);
    const bool fromTerminal = number == SIGINT && info.si_code != SI_USER;
    return number <= 0 || number == SIGCHLD || fromTerminal ? 0 : number;
  }

 private:
  sigset_t set_;
  sigset_t before_;
};

int exitCodeOf(int status) {
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

[[noreturn]] void runProgram(std::vector<char*> words, const std::function<void()>& prepare) {
  resetStopSignals();
  if (prepare) prepare();
  execvp(words[0], words.data());
  const int reason = errno;
  complain(std::string("cannot run ") + words[0] + ": " + strerror(reason));
  _exit(reason == ENOENT ? kNotFound : kCannotRun);
}

}  // namespace

bool ChildProcess::start(const std::vector<std::string>& arguments,
                         const std::function<void()>& prepare) {
  std::vector<char*> words;
  words.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments)
    words.push_back(const_cast<char*>(argument.c_str()));
  words.push_back(nullptr);
  fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) runProgram(std::move(words), prepare);
  return pid_ > 0;
}

bool ChildProcess::split(bool* inChild) {
  const pid_t parent = getpid();
  fflush(nullptr);
  pid_ = fork();
  *inChild = pid_ == 0;
  if (!*inChild) return pid_ > 0;
  prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (getppid() != parent) raise(SIGTERM);
  return true;
}

int ChildProcess::wait(const std::function<pid_t()>& target) {
  const SignalsHeld signals;
  int exitCode = 0;
  // A stop that came in between has been noted, not passed on.
  for (int number = stopRequested() ? SIGTERM : 0; !waitFor(0, &exitCode);
       number = signals.next()) {
    if (number == 0) continue;
    const pid_t to = target ? target() : 0;
    // A group's SIGINT has reached the tool inside already, and its second one would end it at
    // once.
    kill(to > 0 ? to : pid_, to > 0 ? SIGTERM : number);
  }
  return exitCode;
}

bool ChildProcess::stopped() const {
  siginfo_t info = {};
  constexpr int kLookOnly = WSTOPPED | WNOHANG | WNOWAIT;
  return pid_ > 0 && waitid(P_PID, static_cast<id_t>(pid_), &info, kLookOnly) == 0 &&
         info.si_pid == pid_;
}

// Looks often at first: a server that is told to stop has done so in a few milliseconds, and
// whoever lists a card waits for it.
bool ChildProcess::waitFor(int milliseconds, int* exitCode) {
  for (int step = 1;; milliseconds -= step, step = std::min(2 * step, kLongestStepMs)) {
    int status = 0;
    if (pid_ <= 0) return true;
    const pid_t ended = waitpid(pid_, &status, WNOHANG);
    if (ended == pid_ || (ended < 0 && errno == ECHILD)) {
      *exitCode = ended == pid_ ? exitCodeOf(status) : 0;
      pid_ = 0;
      return true;
    }
    if (milliseconds <= 0) return false;
    usleep(static_cast<useconds_t>(step) * 1000);
  }
}

}  // namespace tarn
