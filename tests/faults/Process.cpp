#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "ForkServer.h"
#include "Plan.h"

namespace faults {
namespace {

std::string interposer() {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
  const std::string self(path, length > 0 ? static_cast<size_t>(length) : 0);
  return self.substr(0, self.rfind('/')) + "/libfaults.so";
}

[[noreturn]] void execute(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  for (const std::string& each : arguments) pointers.push_back(const_cast<char*>(each.c_str()));
  pointers.push_back(nullptr);
  execv(pointers[0], pointers.data());
  _exit(127);
}

[[noreturn]] void become(const Launch& how, int requests) {
  setenv(kPlanVariable, how.plan.c_str(), 1);
  setenv(kLogVariable, how.log.c_str(), 1);
  setenv(kForkVariable, "1", 1);
  setenv("LD_PRELOAD", interposer().c_str(), 1);
  const int nothing = open("/dev/null", O_RDWR);
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) dup2(nothing, fd);
  dup2(requests, kForkSocket);
  close_range(STDERR_FILENO + 1, kForkSocket - 1, 0);
  execute(how.arguments);
}

// A program that waits in front of its main(), to be forked; the rig's end of its socket.
int waitingProgram(const Launch& how) {
  static std::map<std::vector<std::string>, int> waiting;
  std::vector<std::string> key = how.arguments;
  key.push_back(how.plan);
  const auto known = waiting.find(key);
  if (known != waiting.end()) return known->second;
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) return -1;
  if (fork() == 0) become(how, ends[1]);
  close(ends[1]);
  waiting[key] = ends[0];
  return ends[0];
}

int openOr(const std::string& path, int flags) {
  return open(path.empty() ? "/dev/null" : path.c_str(), flags | O_CLOEXEC, 0600);
}

bool sendRequest(int to, const ForkRequest& request, const int* fds) {
  alignas(cmsghdr) char room[CMSG_SPACE(sizeof(int) * kForkFds)] = {};
  iovec part = {const_cast<ForkRequest*>(&request), sizeof request};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = room;
  message.msg_controllen = sizeof room;
  cmsghdr* head = CMSG_FIRSTHDR(&message);
  head->cmsg_level = SOL_SOCKET;
  head->cmsg_type = SCM_RIGHTS;
  head->cmsg_len = CMSG_LEN(sizeof(int) * kForkFds);
  memcpy(CMSG_DATA(head), fds, sizeof(int) * kForkFds);
  return sendmsg(to, &message, MSG_NOSIGNAL) == sizeof request;
}

// The group's first: in the rig's own memory, as it does nothing but be there.
int waitForNothing(void*) {
  for (;;) syscall(SYS_pause);
}

}  // namespace

pid_t newGroup() {
  static std::array<char, 4096> stack;
  const pid_t pid = clone(waitForNothing, stack.data() + stack.size(), CLONE_VM | SIGCHLD, nullptr);
  if (pid > 0) setpgid(pid, pid);
  return pid;
}

pid_t launchForeign(const std::vector<std::string>& arguments) {
  const pid_t pid = fork();
  if (pid == 0) execute(arguments);
  return pid;
}

pid_t launch(const Launch& how, pid_t group) {
  constexpr int kAppend = O_WRONLY | O_CREAT | O_APPEND;
  const int requests = waitingProgram(how);
  const int fds[kForkFds] = {openOr(how.input, O_RDONLY), openOr(how.output, kAppend),
                             openOr(how.errors, kAppend), openOr(how.promises, kAppend),
                             how.readyFd < 0 ? openOr("", O_RDONLY) : dup(how.readyFd)};
  int32_t pid = -1;
  if (!sendRequest(requests, {group, how.readyFd < 0 ? 0 : 1}, fds) ||
      recv(requests, &pid, sizeof pid, 0) != sizeof pid)
    pid = -1;
  for (const int fd : fds) close(fd);
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
  if (poll(&entry, 1, kLookMs) > 0) return true;
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
  if (group <= 0) return;
  kill(-group, SIGKILL);
  while (waitpid(-group, nullptr, 0) > 0 || errno == EINTR) {
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
