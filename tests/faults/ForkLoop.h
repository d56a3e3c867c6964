#pragma once

#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "ForkServer.h"

// The program's side of ForkServer.h. Past all stand-ins: main() has not begun.
namespace faults {

// False when the rig is gone.
inline bool takeRequest(ForkRequest* request, int* fds) {
  alignas(cmsghdr) char room[CMSG_SPACE(sizeof(int) * kForkFds)] = {};
  iovec part = {request, sizeof *request};
  msghdr message = {};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = room;
  message.msg_controllen = sizeof room;
  if (syscall(SYS_recvmsg, kForkSocket, &message, 0) != sizeof *request) return false;
  const cmsghdr* head = CMSG_FIRSTHDR(&message);
  if (head == nullptr || head->cmsg_len != CMSG_LEN(sizeof(int) * kForkFds)) return false;
  memcpy(fds, CMSG_DATA(head), sizeof(int) * kForkFds);
  return fds[0] == STDERR_FILENO + 1;  // nothing else is open that a program would see
}

// In the fork: as after an exec by the rig.
inline void beginFork(const ForkRequest& request, const int* fds) {
  constexpr int kTo[kForkFds] = {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO, 3, kReadyFd};
  if (request.group != 0) setpgid(0, request.group);
  for (int i = 0; i < kForkFds; ++i) {
    if (fds[i] == kTo[i]) continue;
    if (i != kForkReady || request.ready != 0) syscall(SYS_dup3, fds[i], kTo[i], 0);
    syscall(SYS_close, fds[i]);
  }
  syscall(SYS_close, kForkSocket);
  unsetenv(kForkVariable);
}

// Returns in each fork, whose parent becomes the rig, as that takes in what its children leave.
inline void serveForks() {
  auto* pid = static_cast<int32_t*>(
      mmap(nullptr, sizeof(int32_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
  ForkRequest request = {};
  int fds[kForkFds] = {};
  while (takeRequest(&request, fds)) {
    *pid = -1;
    const pid_t between = fork();
    if (between == 0) {
      const pid_t fork2 = fork();
      if (fork2 == 0) return beginFork(request, fds);
      *pid = fork2;
      _exit(0);
    }
    for (const int fd : fds) syscall(SYS_close, fd);
    while (between > 0 && waitpid(between, nullptr, 0) < 0) {
    }
    syscall(SYS_sendto, kForkSocket, pid, sizeof *pid, 0, nullptr, 0);
  }
  _exit(0);
}

}  // namespace faults
