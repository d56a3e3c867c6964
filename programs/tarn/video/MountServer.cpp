#include "video/MountServer.h"

#ifdef TARN_WITH_FUSE

#include <fuse_lowlevel.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include "Console.h"

namespace tarn {
namespace {

// Names and sizes may be so old.
constexpr double kKnownSeconds = 1;
constexpr size_t kMostRead = size_t{1} << 20;
constexpr int kLookMs = 100;  // for a stop

// What an open folder lists: that of one moment, however long it takes.
struct Listing {
  std::shared_ptr<const MountTree> tree;
  const MountFolder* names = nullptr;
};

MountServer* serverOf(fuse_req_t request) {
  return static_cast<MountServer*>(fuse_req_userdata(request));
}

void answerError(fuse_req_t request, int error) {
  serverOf(request)->tell(error);
  fuse_reply_err(request, error);
}

fuse_entry_param entryOf(const MountServer& server, const MountAttributes& of) {
  fuse_entry_param entry = {};
  entry.ino = of.number;
  entry.attr = server.attributesOf(of);
  entry.attr_timeout = entry.entry_timeout = kKnownSeconds;
  return entry;
}

void onLookup(fuse_req_t request, fuse_ino_t parent, const char* name) {
  MountServer* server = serverOf(request);
  MountAttributes found;
  const int error = server->card()->find(parent, name, &found);
  if (error != 0) return answerError(request, error);
  const fuse_entry_param entry = entryOf(*server, found);
  fuse_reply_entry(request, &entry);
}

void onGetAttributes(fuse_req_t request, fuse_ino_t number, struct fuse_file_info*) {
  MountServer* server = serverOf(request);
  MountAttributes found;
  const int error = server->card()->attributes(number, &found);
  if (error != 0) return answerError(request, error);
  const struct stat attributes = server->attributesOf(found);
  fuse_reply_attr(request, &attributes, kKnownSeconds);
}

// Open folders by their handles.
std::map<uint64_t, Listing> g_listings;
uint64_t g_lastListing = 0;

void onOpenFolder(fuse_req_t request, fuse_ino_t number, struct fuse_file_info* file) {
  Listing listing;
  const int error = serverOf(request)->card()->list(number, &listing.tree, &listing.names);
  if (error != 0) return answerError(request, error);
  file->fh = ++g_lastListing;
  g_listings[file->fh] = std::move(listing);
  if (fuse_reply_open(request, file) != 0) g_listings.erase(file->fh);
}

void onCloseFolder(fuse_req_t request, fuse_ino_t, struct fuse_file_info* file) {
  g_listings.erase(file->fh);
  fuse_reply_err(request, 0);
}

// The name at a place of a listing: itself, what it is in, and what it holds.
MountName nameAt(const Listing& listing, fuse_ino_t number, size_t place) {
  if (place == 0) return {".", MountId::of(number)};
  if (place == 1) return {"..", listing.names->parent};
  return listing.names->names[place - 2];
}

// With attributes where the kernel wants them; of what they cannot be told of, the name alone.
size_t addName(fuse_req_t request, const MountName& name, bool attributes, size_t next, char* out,
               size_t room) {
  MountServer* server = serverOf(request);
  const auto offset = static_cast<off_t>(next);
  MountAttributes found;
  found.number = name.id.number();
  found.folder = name.id.isFolder();
  fuse_entry_param entry = entryOf(*server, found);
  if (!attributes)
    return fuse_add_direntry(request, out, room, name.name.c_str(), &entry.attr, offset);
  const bool own = name.name == "." || name.name == "..";
  if (!own && server->card()->attributes(found.number, &found) == 0) {
    entry = entryOf(*server, found);
  } else {
    entry.ino = 0;
  }
  return fuse_add_direntry_plus(request, out, room, name.name.c_str(), &entry, offset);
}

void listNames(fuse_req_t request, fuse_ino_t number, size_t size, off_t offset,
               const struct fuse_file_info* file, bool attributes) {
  const auto found = g_listings.find(file->fh);
  if (found == g_listings.end()) return answerError(request, EBADF);
  const Listing* listing = &found->second;
  std::vector<char> buffer(std::min(size, kMostRead));
  const size_t count = listing->names->names.size() + 2;
  size_t used = 0;
  for (auto place = static_cast<size_t>(offset); place < count; ++place) {
    const size_t room = buffer.size() - used;
    const size_t needed = addName(request, nameAt(*listing, number, place), attributes, place + 1,
                                  buffer.data() + used, room);
    if (needed > room) break;
    used += needed;
  }
  fuse_reply_buf(request, buffer.data(), used);
}

void onList(fuse_req_t request, fuse_ino_t number, size_t size, off_t offset,
            struct fuse_file_info* file) {
  listNames(request, number, size, offset, file, false);
}

void onListWithAttributes(fuse_req_t request, fuse_ino_t number, size_t size, off_t offset,
                          struct fuse_file_info* file) {
  listNames(request, number, size, offset, file, true);
}

void onOpen(fuse_req_t request, fuse_ino_t number, struct fuse_file_info* file) {
  MountServer* server = serverOf(request);
  bool same = false;
  const int error = server->card()->open(number, &same);
  if (error != 0) return answerError(request, error);
  // What the kernel has of it in memory needs no card.
  file->keep_cache = same ? 1 : 0;
  if (fuse_reply_open(request, file) != 0) server->card()->close(number);
}

void onClose(fuse_req_t request, fuse_ino_t number, struct fuse_file_info*) {
  serverOf(request)->card()->close(number);
  fuse_reply_err(request, 0);
}

void onRead(fuse_req_t request, fuse_ino_t number, size_t size, off_t offset,
            struct fuse_file_info*) {
  static std::vector<uint8_t> buffer(kMostRead);
  size_t done = 0;
  const int error = serverOf(request)->card()->read(
      number, static_cast<uint64_t>(offset), std::min(size, buffer.size()), buffer.data(), &done);
  if (error != 0) return answerError(request, error);
  fuse_reply_buf(request, reinterpret_cast<const char*>(buffer.data()), done);
}

fuse_lowlevel_ops operations() {
  fuse_lowlevel_ops calls = {};
  calls.lookup = onLookup;
  calls.getattr = onGetAttributes;
  calls.opendir = onOpenFolder;
  calls.readdir = onList;
  calls.readdirplus = onListWithAttributes;
  calls.releasedir = onCloseFolder;
  calls.open = onOpen;
  calls.read = onRead;
  calls.release = onClose;
  return calls;
}

// True at the end: it was unmounted, or cannot go on.
bool answerOne(struct fuse_session* session, struct fuse_buf* buffer) {
  const int got = fuse_session_receive_buf(session, buffer);
  if (got > 0) fuse_session_process_buf(session, buffer);
  const bool again = got > 0 || got == -EINTR || got == -EAGAIN;
  return !again || fuse_session_exited(session) != 0;
}

}  // namespace

bool MountServer::isBuilt() { return true; }

struct stat MountServer::attributesOf(const MountAttributes& of) const {
  struct stat file = {};
  file.st_ino = of.number;
  file.st_mode = of.folder ? S_IFDIR | 0555 : S_IFREG | 0444;
  file.st_nlink = of.folder ? 2 : 1;
  file.st_uid = getuid();
  file.st_gid = getgid();
  file.st_size = static_cast<off_t>(of.size);
  file.st_blksize = static_cast<blksize_t>(kMostRead);
  file.st_blocks = (file.st_size + 511) / 512;
  file.st_atim.tv_sec = file.st_mtim.tv_sec = file.st_ctim.tv_sec = static_cast<time_t>(of.changed);
  return file;
}

void MountServer::tell(int error) {
  if (error != EIO || card_->error() == told_) return;
  told_ = card_->error();
  warn(told_);
}

MountServer::End MountServer::serve(UniqueFd device) {
  char program[] = "tarn";
  char* words[] = {program, nullptr};
  struct fuse_args arguments = FUSE_ARGS_INIT(1, words);
  const fuse_lowlevel_ops calls = operations();
  const std::unique_ptr<struct fuse_session, void (*)(struct fuse_session*)> session(
      fuse_session_new(&arguments, &calls, sizeof calls, this), fuse_session_destroy);
  fuse_opt_free_args(&arguments);
  const std::string place = "/dev/fd/" + std::to_string(device.get());
  if (session == nullptr || fuse_session_mount(session.get(), place.c_str()) != 0)
    return End::kFailed;
  const int fd = device.release();  // the session's from now on
  struct fuse_buf buffer = {};
  bool ended = false;
  while (!ended && !stopRequested()) {
    struct pollfd asked = {fd, POLLIN, 0};
    if (poll(&asked, 1, kLookMs) > 0) ended = answerOne(session.get(), &buffer);
  }
  free(buffer.mem);
  return ended ? End::kUnmounted : End::kStopped;
}

}  // namespace tarn

#else

namespace tarn {

bool MountServer::isBuilt() { return false; }

struct stat MountServer::attributesOf(const MountAttributes&) const {
  return {};
}

void MountServer::tell(int) {}

MountServer::End MountServer::serve(UniqueFd) { return End::kFailed; }

}  // namespace tarn

#endif
