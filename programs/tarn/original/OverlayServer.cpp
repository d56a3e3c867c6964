#include "OverlayServer.h"

#ifdef TARN_WITH_FUSE

#include <fuse_lowlevel.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <vector>

namespace tarn {
namespace {

// Long enough for the kernel never to ask again: what changes, changes through it.
constexpr double kForEverSeconds = 86400;
constexpr size_t kMostRead = size_t{1} << 20;

struct fuse_session* g_session = nullptr;

void onTerm(int) { fuse_session_exit(g_session); }

OverlayServer* serverOf(fuse_req_t request) {
  return static_cast<OverlayServer*>(fuse_req_userdata(request));
}

struct stat attributes(OverlayServer* server) {
  struct stat file = {};
  file.st_ino = FUSE_ROOT_ID;
  file.st_mode = S_IFREG | 0600;
  file.st_nlink = 1;
  file.st_uid = getuid();
  file.st_gid = getgid();
  file.st_size = static_cast<off_t>(server->pages()->size());
  file.st_blksize = OverlayPages::kPageBytes;
  file.st_blocks = file.st_size / 512;
  return file;
}

void onGetAttributes(fuse_req_t request, fuse_ino_t, struct fuse_file_info*) {
  const struct stat file = attributes(serverOf(request));
  fuse_reply_attr(request, &file, kForEverSeconds);
}

// A card has its size, and no times that anybody asks for.
void onSetAttributes(fuse_req_t request, fuse_ino_t, struct stat* wanted, int which,
                     struct fuse_file_info*) {
  const struct stat file = attributes(serverOf(request));
  if ((which & FUSE_SET_ATTR_SIZE) != 0 && wanted->st_size != file.st_size) {
    fuse_reply_err(request, EPERM);
    return;
  }
  fuse_reply_attr(request, &file, kForEverSeconds);
}

// Past the kernel's cache: what a read finds before a refused place arrives, and no more.
void onOpen(fuse_req_t request, fuse_ino_t, struct fuse_file_info* file) {
  file->direct_io = 1;
  fuse_reply_open(request, file);
}

void onRead(fuse_req_t request, fuse_ino_t, size_t size, off_t offset, struct fuse_file_info*) {
  static std::vector<char> buffer(kMostRead);
  size = std::min(size, buffer.size());
  const ssize_t got =
      serverOf(request)->pages()->read(static_cast<uint64_t>(offset), buffer.data(), size);
  if (got < 0) {
    fuse_reply_err(request, static_cast<int>(-got));
  } else {
    fuse_reply_buf(request, buffer.data(), static_cast<size_t>(got));
  }
}

void onWrite(fuse_req_t request, fuse_ino_t, const char* data, size_t size, off_t offset,
             struct fuse_file_info*) {
  OverlayServer* server = serverOf(request);
  const ssize_t put = server->pages()->write(static_cast<uint64_t>(offset), data, size);
  if (put >= 0) {
    fuse_reply_write(request, static_cast<size_t>(put));
    return;
  }
  if (server->pages()->isFull()) server->complainFull();
  fuse_reply_err(request, static_cast<int>(-put));
}

void onSync(fuse_req_t request, fuse_ino_t, int, struct fuse_file_info*) {
  fuse_reply_err(request, 0);
}

fuse_lowlevel_ops operations() {
  fuse_lowlevel_ops calls = {};
  calls.getattr = onGetAttributes;
  calls.setattr = onSetAttributes;
  calls.open = onOpen;
  calls.read = onRead;
  calls.write = onWrite;
  calls.fsync = onSync;
  return calls;
}

// Stops of the terminal are for the programs that use the card; it must outlive them.
void takeSignals() {
  for (int number : {SIGINT, SIGHUP, SIGPIPE}) signal(number, SIG_IGN);
  struct sigaction action = {};
  action.sa_handler = onTerm;
  sigaction(SIGTERM, &action, nullptr);
}

}  // namespace

bool OverlayServer::isBuilt() { return true; }

int OverlayServer::run(const std::string& place, int readyFd) {
  char program[] = "tarn";
  char option[] = "-o";
  // Gone with this process, also where the helper mounted it.
  char helped[] = "fsname=tarn-card,subtype=tarn,auto_unmount";
  const bool mounted = place.rfind("/dev/fd/", 0) == 0;
  char* words[] = {program, option, helped, nullptr};
  struct fuse_args arguments = FUSE_ARGS_INIT(mounted ? 1 : 3, words);
  const fuse_lowlevel_ops calls = operations();
  const std::unique_ptr<struct fuse_session, void (*)(struct fuse_session*)> session(
      fuse_session_new(&arguments, &calls, sizeof calls, this), fuse_session_destroy);
  fuse_opt_free_args(&arguments);
  if (session == nullptr || fuse_session_mount(session.get(), place.c_str()) != 0) return -1;
  g_session = session.get();
  takeSignals();
  const bool told = write(readyFd, "", 1) == 1;
  close(readyFd);
  const int ended = told ? fuse_session_loop(session.get()) : -1;
  signal(SIGTERM, SIG_IGN);  // it may come again, and the session goes now
  fuse_session_unmount(session.get());
  return ended < 0 ? -1 : 0;
}

bool OverlayServer::saveChanges(const std::string& file) {
  UndoFile changes;
  pages_.collect(&changes);
  std::string error;
  return changes.pieces.empty() || changes.save(file, &error) == 0;
}

void OverlayServer::complainFull() {
  fputs(full_.c_str(), stderr);
  full_.clear();
}

}  // namespace tarn

#else

namespace tarn {

bool OverlayServer::isBuilt() { return false; }

int OverlayServer::run(const std::string&, int) { return -1; }

bool OverlayServer::saveChanges(const std::string&) { return false; }

void OverlayServer::complainFull() {}

}  // namespace tarn

#endif
