#include "Process.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <iterator>

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

Ending await(pid_t pid, int limitMs) {
  Ending ending;
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  pollfd entry = {fd, POLLIN, 0};
  int ready = 0;
  while ((ready = poll(&entry, 1, limitMs)) < 0 && errno == EINTR) {
  }
  close(fd);
  if (ready <= 0) {
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
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void writeFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

}  // namespace faults
