#include "CardView.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "ChildProcess.h"
#include "Console.h"
#include "VideoCommands.h"
#include "base/FolderNames.h"
#include "base/UniqueFd.h"
#include "fat/ChunkFiles.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

constexpr char kMsgOverlayFull[] =
    " is only read, and the memory for what is written meanwhile is used up: nothing more is taken";
constexpr char kTmp[] = "/tmp";
constexpr char kDev[] = "/dev";
constexpr char kTerminals[] = "/dev/pts";
constexpr char kSetupPlace[] = "/usr/local/bin/dbsetup";

bool isBelow(const fs::path& path, const char* directory) {
  return path.string().rfind(std::string(directory) + "/", 0) == 0;
}

bool isBelowTmp(const fs::path& path) { return isBelow(path, kTmp); }

// A word that is no path, or a path too long to be one, is none that exists.
bool isDirectory(const fs::path& path) {
  std::error_code none;
  return fs::is_directory(path, none);
}

// Whether the view has something else at that place. Devices are not for it to have, and terminals
// are its own.
bool isHidden(const fs::path& path) {
  std::error_code none;
  if (isBelowTmp(path)) return fs::exists(path, none);
  return isBelow(path, kDev) && path != kTerminals && !isBelow(path, kTerminals) &&
         (isDirectory(path) || fs::is_regular_file(path, none));
}

// Absolute, without links and dots; the last parts need not exist.
fs::path resolved(const std::string& path) {
  std::error_code error;
  const fs::path absolute = fs::absolute(path, error);
  const fs::path canonical = fs::weakly_canonical(absolute, error);
  return error ? absolute : canonical;
}

std::string ownPath() {
  std::error_code error;
  return fs::read_symlink("/proc/self/exe", error).string();
}

// Directories of the files that this process is made of: the program and its libraries.
std::set<std::string> ownDirectories() {
  std::set<std::string> directories;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    const size_t slash = line.find('/');
    if (slash != std::string::npos) {
      directories.insert(fs::path(line.substr(slash)).parent_path().string());
    }
  }
  return directories;
}

bool isExecutable(const std::string& path) {
  return access(path.c_str(), X_OK) == 0 && !isDirectory(path);
}

}  // namespace

std::string findCompanion(const std::string& name) {
  const fs::path own = fs::path(ownPath()).parent_path();
  if (own.empty()) return "";  // without /proc: not what lies in the user's folder
  for (const char* place :
       {".", "../sbin", "../bin", "../../bin", "../libexec", "../libexec/tarn"}) {
    std::string path = (own / place / name).lexically_normal().string();
    if (isExecutable(path)) return path;
  }
  return "";
}

std::string CardView::pathInside(const std::string& path) {
  if (path.empty() || path == "-") return path;
  const fs::path whole = resolved(path);
  if (whole == kTmp) return kOutsideTmp;
  if (!isBelowTmp(whole) || whole.string().rfind(kOutsideTmp, 0) == 0) return path;
  if (whole.parent_path() != kTmp && isDirectory(whole.parent_path())) return path;
  return kOutsideTmp + whole.string().substr(sizeof kTmp - 1);
}

int CardView::run(const std::string& card, const std::vector<std::string>& arguments,
                  const std::vector<std::string>& shown, std::string* error) {
  if (lock_.acquire(card, false, error) != 0) return -1;
  return runOn(lock_.isBlockDevice() ? "--dev-bind" : "--bind", resolved(card).string(), arguments,
               shown, error);
}

int CardView::runReadOnly(const std::string& card, CardOriginal* original,
                          const std::vector<std::string>& arguments,
                          const std::vector<std::string>& shown, std::string* error) {
  if (lock_.acquireToRead(card, error) != 0) return -1;
  if (overlay_.start(original, complaint(card + kMsgOverlayFull), error) != 0) return -1;
  const int exitCode = runOn("--bind", overlay_.path(), arguments, shown, error);
  if (overlay_.stop()) return exitCode;
  *error = "what it would change could not be saved";
  return -1;
}

int CardView::runOn(const char* option, const std::string& shownCard,
                    const std::vector<std::string>& arguments,
                    const std::vector<std::string>& shown, std::string* error) {
  int pidPipe[2];
  if (pipe(pidPipe) != 0) {
    *error = "cannot make a pipe";
    return -1;
  }
  const UniqueFd reading(pidPipe[0]);
  UniqueFd writing(pidPipe[1]);
  fcntl(reading.get(), F_SETFD, FD_CLOEXEC);
  fcntl(reading.get(), F_SETFL, O_NONBLOCK);

  words_ = {"bwrap", "--bind", "/", "/", "--dev", "/dev", "--unshare-ipc", "--die-with-parent"};
  addCard(option, shownCard);
  addTmp(shown);
  addSetupCommand();
  words_.insert(words_.end(), {"--", ownPath(), "--inside-view", std::to_string(writing.get())});
  words_.insert(words_.end(), arguments.begin(), arguments.end());

  ChildProcess view;
  const bool started = view.start(words_, [this] {
    // What holds the view together must outlive a Ctrl-C; the tool inside takes signals itself.
    for (int number : {SIGINT, SIGTERM, SIGHUP}) signal(number, SIG_IGN);
    // The lock lasts as long as anything in the view does.
    fcntl(lock_.fd(), F_SETFD, 0);
  });
  if (!started) {
    *error = "cannot start bwrap";
    return -1;
  }
  writing.reset();
  return view.wait([&reading, pid = pid_t{0}]() mutable {
    if (pid == 0 && read(reading.get(), &pid, sizeof pid) != sizeof pid) pid = 0;
    return pid;
  });
}

void CardView::addCard(const char* option, const std::string& card) {
  words_.insert(words_.end(), {option, card, deviceName(kRecorderPartition)});
  // The system log stays in reach.
  words_.insert(words_.end(), {"--bind-try", "/dev/log", "/dev/log"});
}

void CardView::bind(const std::string& from, const std::string& to) {
  words_.insert(words_.end(), {"--bind", from, to});
}

void CardView::showHidden(const std::string& path) {
  const fs::path whole = resolved(path);
  if (isHidden(whole)) bind(whole.string(), whole.string());
}

void CardView::addTmp(const std::vector<std::string>& shown) {
  words_.insert(words_.end(), {"--tmpfs", kTmp});
  bind(kTmp, kOutsideTmp);
  for (const std::string& directory : ownDirectories()) showHidden(directory);
  for (const char* program : {"tarn", "tarn-server", "dbsetup", kVideoProgram}) {
    const std::string path = findCompanion(program);
    if (!path.empty()) showHidden(fs::path(path).parent_path().string());
  }
  for (const std::string& path : shown) showHidden(path);
  std::error_code ignored;
  const std::string directory = fs::current_path(ignored).string();
  showHidden(directory);
  words_.insert(words_.end(), {"--chdir", directory == kTmp ? kOutsideTmp : directory});
}

// The set-up command at its fixed place. The nearest directory that exists is covered by one of the
// view's own that shows the same entries, so that the real one is never written to. Ours is linked,
// not bound: a program finds the libraries beside it by the place where it really lies.
void CardView::addSetupCommand() {
  const std::string ours = findCompanion("dbsetup");
  if (ours.empty() || ours == kSetupPlace) return;
  fs::path cover = fs::path(kSetupPlace).parent_path();
  while (!isDirectory(cover)) cover = cover.parent_path();
  words_.insert(words_.end(), {"--tmpfs", cover.string()});
  std::vector<std::string> names;
  folderNames(cover.c_str(), &names);  // of a folder that cannot be read nothing is shown
  for (const std::string& name : names) {
    const std::string path = (cover / name).string();
    std::error_code ignored;
    if (path == kSetupPlace) continue;
    if (fs::is_symlink(path, ignored)) {
      words_.insert(words_.end(), {"--symlink", fs::read_symlink(path, ignored).string(), path});
    } else {
      words_.insert(words_.end(), {"--bind-try", path, path});
    }
  }
  words_.insert(words_.end(), {"--symlink", ours, kSetupPlace});
}

}  // namespace tarn
