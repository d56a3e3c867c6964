#include "recorder/card/CardLock.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

#include "base/UniqueFd.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/CardText.h"
#include "recorder/card/ServerLock.h"

namespace tarn {
namespace {

constexpr char kInUse[] = " is in use by another program of the recorder";
constexpr char kBusy[] = " is busy: something else is using it";

constexpr int kLockTries = 10;
constexpr unsigned kLockPauseUs = 50000;

int fail(std::string* error, std::string text) {
  *error = std::move(text);
  return -1;
}

// Whether a file system may be written to, by the last word of its line in mountinfo: its own
// options, which hold for all its mounts.
bool isWritable(const std::string& line) {
  const std::string options = line.substr(line.find_last_of(' ') + 1);
  return options != "ro" && options.rfind("ro,", 0) != 0;
}

enum class Mounts : uint8_t { kAll, kWritable };

// Where a device is mounted, or "".
std::string mountPointOf(dev_t device, Mounts which) {
  char wanted[32];
  snprintf(wanted, sizeof wanted, "%u:%u", major(device), minor(device));
  std::ifstream mounts("/proc/self/mountinfo");
  std::string id, parent, number, root, point, rest;
  while (mounts >> id >> parent >> number >> root >> point && std::getline(mounts, rest)) {
    if (number == wanted && (which == Mounts::kAll || isWritable(rest))) return point;
  }
  return "";
}

// The loop device that a file is attached to, or "".
std::string loopDeviceOf(const struct stat& file) {
  DIR* dir = opendir("/sys/block");
  if (dir == nullptr) return "";
  std::string found;
  while (const struct dirent* entry = readdir(dir)) {
    const std::string name = entry->d_name;
    if (name.rfind("loop", 0) != 0) continue;
    std::ifstream in("/sys/block/" + name + "/loop/backing_file");
    std::string backing;
    struct stat other;
    if (std::getline(in, backing) && stat(backing.c_str(), &other) == 0 &&
        other.st_dev == file.st_dev && other.st_ino == file.st_ino) {
      found = "/dev/" + name;
      break;
    }
  }
  closedir(dir);
  return found;
}

bool isReadOnlyDevice(const std::string& device) {
  std::ifstream in("/sys/block/" + device.substr(device.find_last_of('/') + 1) + "/ro");
  char answer = '0';
  return in >> answer && answer == '1';
}

// Whether this is the card that a recorder on this machine uses, under whatever name.
bool isOwnCard(const struct stat& card) {
  struct stat own;
  if (stat(deviceName(kRecorderPartition), &own) != 0) return false;
  if (S_ISBLK(card.st_mode) || S_ISBLK(own.st_mode)) {
    return S_ISBLK(card.st_mode) && S_ISBLK(own.st_mode) && card.st_rdev == own.st_rdev;
  }
  return card.st_dev == own.st_dev && card.st_ino == own.st_ino;
}

// The machine's device manager takes short locks of its own on devices that have just changed.
bool lockSoon(int fd, int how) {
  for (int i = 0; i < kLockTries; ++i) {
    if (flock(fd, how | LOCK_NB) == 0) return true;
    if (errno != EWOULDBLOCK && errno != EINTR) return false;
    usleep(kLockPauseUs);
  }
  return false;
}

}  // namespace

int CardLock::acquire(const std::string& path, bool create, std::string* error) {
  release();
  struct stat before;
  const bool exists = stat(path.c_str(), &before) == 0;
  if (!exists && (errno != ENOENT || !create)) {
    return fail(error, errnoText("cannot open " + path, errno));
  }
  if (exists && !S_ISBLK(before.st_mode) && !S_ISREG(before.st_mode)) {
    return fail(error, path + " is neither a block device nor an image file");
  }
  isBlockDevice_ = exists && S_ISBLK(before.st_mode);
  if (isBlockDevice_) {
    const std::string point = mountPointOf(before.st_rdev, Mounts::kAll);
    if (!point.empty()) return fail(error, path + " is mounted on " + point);
  }
  // Exclusive opening of a device meets every mount, swap area and volume manager on it.
  const int flags = O_RDWR | O_CLOEXEC | (isBlockDevice_ ? O_EXCL : (exists ? 0 : O_CREAT));
  UniqueFd fd(::open(path.c_str(), flags, 0644));
  if (!fd.valid()) {
    if (errno == EBUSY) return fail(error, path + kBusy);
    return fail(error, errnoText("cannot write to " + path, errno));
  }
  if (!lockSoon(fd.get(), LOCK_EX)) {
    return fail(error, path + kInUse);
  }
  fd_ = fd.get();
  if (!checkIdle(path, error) || (exists && !keepServerOut(path, before, LOCK_EX, error))) {
    fd_ = -1;
    return -1;
  }
  fd.release();
  return 0;
}

int CardLock::acquireToRead(const std::string& path, std::string* error) {
  release();
  struct stat card;
  if (stat(path.c_str(), &card) != 0) return fail(error, errnoText("cannot open " + path, errno));
  isBlockDevice_ = S_ISBLK(card.st_mode);
  if (!isBlockDevice_ && !S_ISREG(card.st_mode) && !S_ISDIR(card.st_mode)) {
    return fail(error, path + " is neither a block device nor an image file nor a folder");
  }
  bool mounted = false;
  if (isBlockDevice_) {
    const std::string point = mountPointOf(card.st_rdev, Mounts::kWritable);
    if (!point.empty()) return fail(error, path + " is mounted on " + point + ", for writing");
    mounted = !mountPointOf(card.st_rdev, Mounts::kAll).empty();
  }
  UniqueFd fd(
      ::open(path.c_str(), O_RDONLY | O_CLOEXEC | (isBlockDevice_ && !mounted ? O_EXCL : 0)));
  if (!fd.valid()) {
    if (errno == EBUSY) return fail(error, path + kBusy);
    return fail(error, errnoText("cannot open " + path, errno));
  }
  if (!lockSoon(fd.get(), LOCK_SH)) return fail(error, path + kInUse);
  const std::string loop = S_ISREG(card.st_mode) ? loopDeviceOf(card) : "";
  if (!loop.empty() && !isReadOnlyDevice(loop)) {
    return fail(error, path + " is busy: it is attached to " + loop + ", for writing");
  }
  if (!keepServerOut(path, card, LOCK_SH, error)) return -1;
  fd_ = fd.release();
  return 0;
}

// The server opens the card as everybody does and does not lock it; its own lock tells of it. A
// private view has a /tmp of its own: whoever starts one asks here, before.
bool CardLock::keepServerOut(const std::string& path, const struct stat& card, int how,
                             std::string* error) {
  if (!isOwnCard(card)) return true;
  UniqueFd lock(::open(kServerLockPath, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  if (!lock.valid() && errno == ENOENT) return true;  // no server since the machine's start
  if (!lock.valid()) {
    *error = errnoText(std::string("cannot open ") + kServerLockPath, errno);
    return false;
  }
  if (!lockSoon(lock.get(), how)) {
    *error = path + " is in use: the recorder's management server runs";
    return false;
  }
  serverLock_ = lock.release();
  return true;
}

bool CardLock::checkIdle(const std::string& path, std::string* error) const {
  if (isBlockDevice_) return true;
  struct stat file;
  if (fstat(fd_, &file) != 0) {
    *error = errnoText("cannot read " + path, errno);
    return false;
  }
  const std::string loop = loopDeviceOf(file);
  if (!loop.empty()) {
    *error = path + " is busy: it is attached to " + loop;
    return false;
  }
  return true;
}

void CardLock::release() {
  for (int* fd : {&fd_, &serverLock_}) {
    if (*fd >= 0) ::close(*fd);
    *fd = -1;
  }
}

}  // namespace tarn
