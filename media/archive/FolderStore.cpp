#include "media/archive/FolderStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/FileSync.h"
#include "base/FolderNames.h"

namespace tarn {
namespace {

constexpr char kErrFolderFull[] = "the archive is full";

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// A directory can be of the network, where a signal that asks this program to stop interrupts
// calls.
UniqueFd openPath(const std::string& path, int flags) {
  return UniqueFd(
      static_cast<int>(TEMP_FAILURE_RETRY(::open(path.c_str(), flags | O_CLOEXEC, 0666))));
}

}  // namespace

bool FolderStore::exists(std::string* error) const {
  struct stat status = {};
  if (stat(root_.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) return true;
  // Made by itself it would fill the machine's own disk where another one is not mounted.
  *error = "there is no directory " + root_ + "; make it first, or name a remote as REMOTE:PATH";
  return false;
}

bool FolderStore::failWith(const std::string& what, const std::string& path, int code) {
  const std::string text = "cannot " + what + " " + path + ": " + strerror(code);
  return fail(code == ENOSPC || code == EDQUOT ? std::string(kErrFolderFull) + ": " + text : text);
}

bool FolderStore::list(const std::string& folder, std::vector<Object>* objects) {
  std::vector<std::string> paths;
  const int listing = pathsBelow(pathOf(folder), &paths);
  if (listing == ENOENT) return true;
  if (listing != 0) return failWith("list", pathOf(folder), listing);
  for (const std::string& path : paths) {
    struct stat status = {};
    Object object;
    object.name = folder.empty() ? path : inFolder(folder, path);
    if (lstat(pathOf(object.name).c_str(), &status) != 0 && errno != ENOENT)
      return failWith("list", pathOf(object.name), errno);
    if (!S_ISREG(status.st_mode)) continue;
    object.bytes = static_cast<int64_t>(status.st_size);
    objects->push_back(object);
  }
  return true;
}

bool FolderStore::get(const std::string& name, const ByteSink& take) {
  const std::string path = pathOf(name);
  const UniqueFd file = openPath(path, O_RDONLY | O_NOFOLLOW);
  if (!file.valid()) return failWith("read", path, errno);
  std::array<uint8_t, 64 * 1024> piece;
  for (;;) {
    const ssize_t got = TEMP_FAILURE_RETRY(read(file.get(), piece.data(), piece.size()));
    if (got == 0) return true;
    if (got < 0) return failWith("read", path, errno);
    if (!take(piece.data(), static_cast<size_t>(got))) return false;
  }
}

bool FolderStore::look(const std::string& name, Object* object) {
  struct stat status = {};
  if (lstat(pathOf(name).c_str(), &status) != 0) return failWith("find", pathOf(name), errno);
  object->name = name;
  object->bytes = static_cast<int64_t>(status.st_size);
  return true;
}

bool FolderStore::holds(const std::string& name, bool* there) {
  struct stat status = {};
  *there = lstat(pathOf(name).c_str(), &status) == 0;
  return *there || errno == ENOENT || failWith("find", pathOf(name), errno);
}

bool FolderStore::flushFolder(const std::string& path) {
  const UniqueFd folder = openPath(path, O_RDONLY | O_DIRECTORY);
  return (folder.valid() && syncFile(folder.get()) == 0) || failWith("flush", path, errno);
}

// Each new one is flushed into the one above it, or a power loss takes all that is in it.
bool FolderStore::makeFolders(const std::string& path) {
  if (path.size() <= root_.size() || access(path.c_str(), F_OK) == 0) return true;
  const std::string above = folderOf(path);
  if (!makeFolders(above)) return false;
  if (mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) return failWith("make", path, errno);
  return flushFolder(above);
}

bool FolderStore::begin(const std::string& name) {
  path_ = pathOf(name);
  if (!makeFolders(folderOf(path_))) return false;
  file_ = openPath(path_, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
  return file_.valid() || failWith("write", path_, errno);
}

bool FolderStore::add(const uint8_t* data, size_t size) {
  while (size > 0) {
    const ssize_t written = TEMP_FAILURE_RETRY(write(file_.get(), data, size));
    if (written < 0) return failWith("write", path_, errno);
    data += written;
    size -= static_cast<size_t>(written);
  }
  return true;
}

bool FolderStore::finish() {
  const bool flushed = syncFile(file_.get()) == 0;
  const int reason = errno;
  if (!flushed) {
    file_.reset();
    return failWith("flush", path_, reason);
  }
  // Flushed it is already, and closed by a call that a signal interrupts, too.
  return file_.close() == 0 || errno == EINTR || failWith("close", path_, errno);
}

bool FolderStore::rename(const std::string& from, const std::string& to) {
  const std::string path = pathOf(to);
  if (::rename(pathOf(from).c_str(), path.c_str()) != 0) return failWith("name", path, errno);
  return flushFolder(folderOf(path));
}

bool FolderStore::remove(const std::string& name) {
  return unlink(pathOf(name).c_str()) == 0 || errno == ENOENT ||
         failWith("remove", pathOf(name), errno);
}

}  // namespace tarn
