#include "video/MountPoint.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "ChildProcess.h"
#include "recorder/card/CardText.h"

namespace tarn {
namespace {

constexpr char kDevice[] = "/dev/fuse";
constexpr char kHelper[] = "fusermount3";
constexpr char kHelperSocket[] = "_FUSE_COMMFD";
// Words between whoever serves and the process outside.
constexpr char kMount = 'm';
constexpr char kUnmount = 'u';
constexpr char kGone = 'g';
constexpr char kGood = '+';

bool sendWord(int socket, const std::string& text, int fd) {
  struct iovec piece = {const_cast<char*>(text.data()), text.size()};
  alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof fd)] = {};
  struct msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  if (fd >= 0) {
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    struct cmsghdr* part = CMSG_FIRSTHDR(&message);
    part->cmsg_level = SOL_SOCKET;
    part->cmsg_type = SCM_RIGHTS;
    part->cmsg_len = CMSG_LEN(sizeof fd);
    memcpy(CMSG_DATA(part), &fd, sizeof fd);
  }
  return sendmsg(socket, &message, MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// "" at the end of the socket.
std::string receiveWord(int socket, UniqueFd* fd) {
  char text[1024];
  struct iovec piece = {text, sizeof text};
  alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  struct msghdr message = {};
  message.msg_iov = &piece;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  ssize_t got = 0;
  do {
    got = recvmsg(socket, &message, MSG_CMSG_CLOEXEC);
  } while (got < 0 && errno == EINTR);
  const struct cmsghdr* part = got > 0 ? CMSG_FIRSTHDR(&message) : nullptr;
  if (part != nullptr && part->cmsg_type == SCM_RIGHTS) {
    int sent = -1;
    memcpy(&sent, CMSG_DATA(part), sizeof sent);
    fd->reset(sent);
  }
  return {text, static_cast<size_t>(got > 0 ? got : 0)};
}

bool socketPair(UniqueFd* one, UniqueFd* other) {
  std::array<int, 2> ends;
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) return false;
  one->reset(ends[0]);
  other->reset(ends[1]);
  return true;
}

// Where the kernel lets this process mount. The device must be opened by it.
UniqueFd mountDirectly(const std::string& directory) {
  UniqueFd device(open(kDevice, O_RDWR | O_CLOEXEC));
  char options[96];
  snprintf(options, sizeof options, "fd=%d,rootmode=%o,user_id=%u,group_id=%u", device.get(),
           static_cast<unsigned>(S_IFDIR), getuid(), getgid());
  const unsigned long flags = MS_RDONLY | MS_NOSUID | MS_NODEV;
  if (device.valid() && ::mount("tarn", directory.c_str(), "fuse.tarn", flags, options) != 0)
    device.reset();
  return device;
}

bool runHelper(const std::vector<std::string>& words, int socket) {
  ChildProcess helper;
  int exitCode = -1;
  const bool started = helper.start(words, [socket] {
    if (socket < 0) return;
    fcntl(socket, F_SETFD, 0);
    setenv(kHelperSocket, std::to_string(socket).c_str(), 1);
  });
  while (started && !helper.waitFor(INT_MAX, &exitCode)) {
  }
  return exitCode == 0;
}

// The file system's own helper mounts it for users.
UniqueFd mountByHelper(const std::string& directory) {
  UniqueFd ours, theirs, device;
  std::array<int, 2> ends;
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return device;
  ours.reset(ends[0]);
  theirs.reset(ends[1]);
  const bool mounted = runHelper(
      {kHelper, "-o", "ro,nosuid,nodev,fsname=tarn,subtype=tarn", "--", directory}, theirs.get());
  theirs.reset();
  if (mounted) receiveWord(ours.get(), &device);
  return device;
}

// The process outside: mounts when it is told to, and leaves nothing mounted behind.
void standOutside(int socket, const std::string& directory, int readyFd) {
  for (int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(number, SIG_IGN);
  UniqueFd none;
  if (receiveWord(socket, &none) != std::string(1, kMount)) return;
  std::string error;
  UniqueFd device = MountPoint::mount(directory, &error);
  const bool mounted = device.valid();
  sendWord(socket, mounted ? std::string(1, kGood) : error, device.get());
  device.reset();
  if (!mounted) return;
  if (readyFd >= 0 && write(readyFd, "", 1) != 1) MountPoint::unmount(directory);
  if (readyFd >= 0) close(readyFd);
  if (receiveWord(socket, &none) == std::string(1, kGone)) return;
  MountPoint::unmount(directory);
  sendWord(socket, std::string(1, kGood), -1);
}

void pointAtNull(int fd, int flags) {
  const UniqueFd null(open("/dev/null", flags | O_CLOEXEC));
  dup2(null.get(), fd);
}

// False when a pipe or file did not take it.
bool print(const std::string& text) {
  return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

// Shows what comes through `told` until a byte comes through `ready` or the process ends.
int waitForBackground(pid_t process, int told, int ready, const std::string& result) {
  char bytes[4096];
  for (;;) {
    struct pollfd ends[] = {{told, POLLIN, 0}, {ready, POLLIN, 0}};
    if (poll(ends, 2, -1) < 0) continue;
    ssize_t got = 0;
    if (ends[0].revents != 0 && (got = read(told, bytes, sizeof bytes)) > 0) {
      if (write(STDERR_FILENO, bytes, static_cast<size_t>(got)) != got) continue;
    } else if (ends[1].revents != 0) {
      if (read(ready, bytes, 1) == 1) return print(result) ? 0 : 1;
      int status = 0;
      while (waitpid(process, &status, 0) < 0 && errno == EINTR) {
      }
      return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    } else if (ends[0].revents != 0) {
      told = -1;  // poll passes over it
    }
  }
}

}  // namespace

UniqueFd MountPoint::mount(const std::string& directory, std::string* error) {
  UniqueFd device = mountDirectly(directory);
  if (!device.valid()) device = mountByHelper(directory);
  if (!device.valid()) {
    *error = "cannot mount at " + directory +
             ": that needs /dev/fuse, and the right to mount or fusermount3 (of the package fuse3)";
  }
  return device;
}

void MountPoint::unmount(const std::string& directory) {
  if (umount2(directory.c_str(), MNT_DETACH) != 0)
    runHelper({kHelper, "-u", "-z", "-q", "--", directory}, -1);
}

bool MountPoint::isUsable(const std::string& directory, std::string* error) {
  struct stat place = {};
  if (stat(directory.c_str(), &place) != 0) {
    *error = errnoText("cannot mount at " + directory, errno);
  } else if (!S_ISDIR(place.st_mode)) {
    *error = directory + " is no directory to mount at";
  } else {
    return true;
  }
  return false;
}

UniqueFd MountPoint::startOutside(const std::string& directory, int readyFd, std::string* error) {
  UniqueFd ours, theirs;
  const pid_t process = socketPair(&ours, &theirs) ? fork() : -1;
  if (process < 0) *error = "cannot make a process that mounts";
  if (process < 0) return {};
  if (process == 0) {
    theirs.reset();
    standOutside(ours.get(), directory, readyFd);
    _exit(0);
  }
  fcntl(theirs.get(), F_SETFD, 0);
  return theirs;
}

UniqueFd MountPoint::mountOutside(int socket, std::string* error) {
  UniqueFd device;
  *error = "the process that mounts has gone";
  if (!sendWord(socket, std::string(1, kMount), -1)) return device;
  const std::string word = receiveWord(socket, &device);
  if (!device.valid() && !word.empty()) *error = word;
  return device;
}

void MountPoint::endOutside(int socket, bool mounted) {
  UniqueFd none;
  if (sendWord(socket, std::string(1, mounted ? kUnmount : kGone), -1) && mounted)
    receiveWord(socket, &none);
}

int continueInBackground(const std::string& result, std::string* error) {
  std::array<int, 2> told, ready;
  *error = "cannot go on in the background";
  if (pipe2(told.data(), O_CLOEXEC) != 0 || pipe2(ready.data(), O_CLOEXEC) != 0) return -1;
  fflush(nullptr);
  const pid_t process = fork();
  if (process < 0) return -1;
  if (process > 0) {
    close(told[1]);
    close(ready[1]);
    _exit(waitForBackground(process, told[0], ready[0], result));
  }
  close(told[0]);
  close(ready[0]);
  setsid();
  signal(SIGPIPE, SIG_IGN);
  pointAtNull(STDIN_FILENO, O_RDONLY);
  pointAtNull(STDOUT_FILENO, O_WRONLY);
  dup2(told[1], STDERR_FILENO);
  close(told[1]);
  return ready[1];
}

}  // namespace tarn
