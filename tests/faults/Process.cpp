#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "Plan.h"

namespace faults {
namespace {

constexpr int kPromiseFd = 3;

void redirect(const std::string& path, int flags, int to) {
  const int fd = open(path.empty() ? "/dev/null" : path.c_str(), flags, 0600);
  if (fd < 0 || dup2(fd, to) < 0) _exit(126);
  if (fd != to) close(fd);
}

std::string interposer() {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  const std::string self(path, length > 0 ? static_cast<size_t>(length) : 0);
  return self.substr(0, self.rfind('/')) + "/libfaults.so";
}

[[noreturn]] void become(const Launch& how) {
  constexpr int kAppend = O_WRONLY | O_CREAT | O_APPEND;
  redirect(how.input, O_RDONLY, STDIN_FILENO);
  redirect(how.output, kAppend, STDOUT_FILENO);
  redirect(how.errors, kAppend, STDERR_FILENO);
  if (how.readyFd != kPromiseFd) redirect(how.promises, kAppend, kPromiseFd);
  if (!how.plan.empty()) {
    setenv(kPlanVariable, how.plan.c_str(), 1);
    setenv(kLogVariable, how.log.c_str(), 1);
    setenv("LD_PRELOAD", interposer().c_str(), 1);
  }
  std::vector<char*> arguments;
  for (const std::string& each : how.arguments)
    arguments.push_back(const_cast<char*>(each.c_str()));
  arguments.push_back(nullptr);
  execv(arguments[0], arguments.data());
  _exit(127);
}

}  // namespace

pid_t newGroup() {
  const pid_t pid = fork();
  if (pid == 0) {
    for (;;) pause();
  }
  if (pid > 0) setpgid(pid, pid);
  return pid;
}

pid_t launch(const Launch& how, pid_t group) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (group != 0) setpgid(0, group);
    become(how);
  }
  return pid;
}

namespace {

// Of all other processes of this view: what they have used of the processors, and whether one of
// them would go on if it got one, or waits for a device.
struct Load {
  uint64_t ticks = 0;
  bool busy = false;
};

Load loadOfOthers() {
  Load load;
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
    const pid_t pid = atoi(entry.path().filename().c_str());
    if (pid <= 1 || pid == getpid()) continue;
    const std::string stat = readFile(entry.path().string() + "/stat");
    const size_t name = stat.rfind(')');
    char state = 0;
    unsigned long user = 0, system = 0;
    if (name == std::string::npos ||
        sscanf(stat.c_str() + name + 1, " %c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu",
               &state, &user, &system) != 3)
      continue;
    load.ticks += user + system;
    load.busy = load.busy || state == 'R' || state == 'D';
  }
  return load;
}

// False when it does not end: all of the view has idled for the limit, or it spins. On a machine
// that is busy a program that only waits for its turn is no program that hangs.
bool endsInTime(int pidfd, int limitMs) {
  constexpr int kLookMs = 250;
  const auto mostTicks =
      static_cast<uint64_t>(limitMs) * static_cast<uint64_t>(sysconf(_SC_CLK_TCK)) / 1000;
  pollfd entry = {pidfd, POLLIN, 0};
  const uint64_t before = loadOfOthers().ticks;
  uint64_t last = before;
  for (int idleMs = 0; idleMs < limitMs && last - before <= mostTicks;) {
    const int ready = poll(&entry, 1, kLookMs);
    if (ready > 0) return true;
    const Load now = loadOfOthers();
    if (!now.busy && now.ticks <= last) idleMs += kLookMs;
    last = std::max(last, now.ticks);
  }
  return false;
}

}  // namespace

Ending await(pid_t pid, int limitMs) {
  Ending ending;
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  const bool ended = endsInTime(fd, limitMs);
  close(fd);
  if (!ended) {
    ending.hung = true;
    kill(pid, SIGKILL);
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  ending.signalled = WIFSIGNALED(status);
  ending.code = ending.signalled ? WTERMSIG(status) : WEXITSTATUS(status);
  return ending;
}

void endGroup(pid_t group) {
  if (group > 0) kill(-group, SIGKILL);
  while (waitpid(-1, nullptr, 0) > 0 || errno == EINTR) {
  }
}

std::string readFile(const std::string& path) {
  std::string text;
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  struct stat status = {};
  fstat(fd, &status);
  // Files of /proc say that they are empty.
  size_t room = static_cast<size_t>(status.st_size) + 1024;
  for (ssize_t got = 1; got > 0; room = 64 * 1024) {
    const size_t length = text.size();
    text.resize(length + room);
    got = read(fd, text.data() + length, room);
    text.resize(length + static_cast<size_t>(got > 0 ? got : 0));
  }
  close(fd);
  return text;
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

}  // namespace faults
