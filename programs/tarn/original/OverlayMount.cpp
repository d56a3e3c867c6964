#include "OverlayMount.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "OverlayServer.h"
#include "recorder/card/CardText.h"

namespace tarn {
namespace {

// The device that a file system of this kind is served through. It is mounted on this very place,
// which is there wherever it can be mounted at all, and which nobody misses in a private view.
constexpr char kDevice[] = "/dev/fuse";
constexpr int kStopTries = 300;
constexpr int kSaveTries = 12000;
constexpr useconds_t kStopPauseUs = 10000;

bool writeText(const char* path, const std::string& text) {
  const UniqueFd fd(open(path, O_WRONLY | O_CLOEXEC));
  return fd.valid() &&
         write(fd.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

// A user namespace in which everybody is who they were.
bool enterUserNamespace(uid_t user, gid_t group) {
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  const std::string users = std::to_string(user);
  const std::string groups = std::to_string(group);
  return writeText("/proc/self/uid_map", users + " " + users + " 1") &&
         writeText("/proc/self/setgroups", "deny") &&
         writeText("/proc/self/gid_map", groups + " " + groups + " 1");
}

// Mounts of its own for this process, and the file system on its place. The device belongs to the
// namespace in which it is opened.
bool mountOnDevice(UniqueFd* device) {
  const uid_t user = getuid();
  const gid_t group = getgid();
  if (unshare(CLONE_NEWNS) != 0 && !enterUserNamespace(user, group)) return false;
  if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
  device->reset(open(kDevice, O_RDWR | O_CLOEXEC));
  if (!device->valid()) return false;
  char options[96];
  snprintf(options, sizeof options, "fd=%d,rootmode=%o,user_id=%u,group_id=%u", device->get(),
           static_cast<unsigned>(S_IFREG), user, group);
  return mount("tarn-card", kDevice, "fuse.tarn", MS_NOSUID | MS_NODEV, options) == 0;
}

// Tried by a child first: a process that has gone half way has no way back.
bool canMountOnDevice() {
  const pid_t child = fork();
  if (child == 0) {
    UniqueFd device;
    _exit(mountOnDevice(&device) ? 0 : 1);
  }
  int status = -1;
  return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

}  // namespace

int OverlayMount::start(CardOriginal* original, const std::string& full, std::string* error) {
  if (!OverlayServer::isBuilt()) {
    *error = "this build cannot show a card without changing it: it lacks FUSE (libfuse3)";
    return -1;
  }
  UniqueFd device;
  path_ = kDevice;
  if (!canMountOnDevice() || !mountOnDevice(&device)) {
    device.reset();
    if (!makePlace(error)) return -1;
  }
  return serve(original, full, std::move(device), error) ? 0 : -1;
}

// A file for the helper to mount on.
bool OverlayMount::makePlace(std::string* error) {
  char place[] = "/tmp/tarn-card-XXXXXX";
  if (mkdtemp(place) == nullptr) {
    *error = errnoText("cannot make a directory in /tmp", errno);
    return false;
  }
  place_ = place;
  path_ = place_ + "/card";
  const UniqueFd file(open(path_.c_str(), O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC, 0600));
  if (file.valid()) return true;
  *error = errnoText("cannot make " + path_, errno);
  return false;
}

bool OverlayMount::serve(CardOriginal* original, const std::string& full, UniqueFd device,
                         std::string* error) {
  std::array<int, 2> ends;
  if (pipe2(ends.data(), O_CLOEXEC) != 0) {
    *error = "cannot make a pipe";
    return false;
  }
  const UniqueFd reading(ends[0]);
  UniqueFd writing(ends[1]);
  const pid_t parent = getpid();
  fflush(nullptr);
  server_ = fork();
  if (server_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    OverlayServer server(original, full);
    const std::string place = device.valid() ? "/dev/fd/" + std::to_string(device.get()) : path_;
    const bool served = server.run(place, writing.release()) == 0;
    _exit(served && (changes_.empty() || server.saveChanges(changes_)) ? 0 : 1);
  }
  writing.reset();
  char mark = 0;
  if (server_ > 0 && read(reading.get(), &mark, 1) == 1) return true;
  *error =
      "a card that must not change is shown through FUSE, which does not work here: it needs "
      "/dev/fuse, and namespaces for users or fusermount3 (of the package fuse3)";
  stop();
  return false;
}

// A stop between two questions of the kernel is seen at the next one, so it is sent again.
bool OverlayMount::stop() {
  const int most = changes_.empty() ? kStopTries : kSaveTries;
  int status = 0;
  for (int tried = 0; server_ > 0; ++tried) {
    kill(server_, tried < most ? SIGTERM : SIGKILL);
    if (waitpid(server_, &status, tried < most ? WNOHANG : 0) != 0) server_ = 0;
    if (server_ > 0) usleep(kStopPauseUs);
  }
  if (!place_.empty()) removePlace();
  return changes_.empty() || status == 0;
}

void OverlayMount::removePlace() {
  for (int tried = 0; tried < kStopTries && unlink(path_.c_str()) != 0 && errno == EBUSY; ++tried) {
    usleep(kStopPauseUs);
  }
  rmdir(place_.c_str());
  place_.clear();
}

}  // namespace tarn
