#include "media/evidence/EvidenceFolder.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "base/FileSync.h"
#include "base/FolderNames.h"
#include "media/OutputFile.h"
#include "media/RemoveTree.h"
#include "media/evidence/FinishedParts.h"
#include "recorder/card/CardText.h"

namespace tarn {
namespace {

namespace fs = std::filesystem;

// Stands in a folder that is being made, and is no file of the case.
constexpr char kMark[] = ".unfinished";
constexpr char kVideo[] = "video";

bool isThere(const std::string& path) {
  struct stat found = {};
  return lstat(path.c_str(), &found) == 0;
}

bool isEvidence(const std::string& folder) {
  std::ifstream manifest(folder + "/manifest.json");
  std::string head(200, '\0');
  manifest.read(head.data(), static_cast<std::streamsize>(head.size()));
  return head.find(EvidenceFolder::kKind) != std::string::npos;
}

bool isOfARun(const std::string& folder) {
  std::vector<std::string> names;
  return isThere(folder + "/" + kMark) || isEvidence(folder) ||
         (folderNames(folder.c_str(), &names) == 0 && names.empty());
}

bool syncOne(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  return file.valid() && syncFile(file.get()) == 0;
}

std::string withoutSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

}  // namespace

EvidenceFolder::EvidenceFolder(const std::string& path)
    : path_(withoutSlashes(path)), part_(path_ + ".part") {}

EvidenceFolder::~EvidenceFolder() { abandon(); }

void EvidenceFolder::abandon() {
  if (begun_) removeTree(part_);
  begun_ = false;
}

void EvidenceFolder::leave() {
  begun_ = false;
  mark_.reset();
}

bool EvidenceFolder::fail(const std::string& text) {
  error_ = text;
  return false;
}

bool EvidenceFolder::failFor(const std::string& what, int code) {
  return fail(errnoText("cannot " + what, code));
}

bool EvidenceFolder::mayReplace(bool overwrite) {
  replaces_ = isThere(path_);
  if (!replaces_) return true;
  if (!overwrite) return fail(path_ + " exists already; --force replaces it");
  return isEvidence(path_) || fail(path_ + " exists and is no evidence folder: it stays as it is");
}

// Nobody else makes the same folder meanwhile.
bool EvidenceFolder::mark() {
  mark_.reset(open(pathOf(kMark).c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666));
  if (!mark_.valid()) return failFor("create " + pathOf(kMark), errno);
  return flock(mark_.get(), LOCK_EX | LOCK_NB) == 0 ||
         fail(part_ + " is being made by another run right now");
}

bool EvidenceFolder::clear() {
  std::vector<std::string> names;
  const int reading = folderNames(part_.c_str(), &names);
  if (reading != 0) return failFor("read " + part_, reading);
  for (const std::string& name : names) {
    const std::string path = pathOf(name);
    struct stat status = {};
    if (lstat(path.c_str(), &status) != 0) return failFor("read " + path, errno);
    if (name == kMark || name == FinishedParts::kName ||
        (name == kVideo && S_ISDIR(status.st_mode)))
      continue;
    const int removing = tryRemoveTree(path);
    if (removing != 0) return failFor("remove " + path, removing);
  }
  return true;
}

bool EvidenceFolder::begin(bool overwrite) {
  if (!mayReplace(overwrite)) return false;
  if (mkdir(part_.c_str(), 0777) != 0) {
    if (errno != EEXIST) return failFor("create " + part_, errno);
    std::error_code ignored;
    if (!fs::is_directory(fs::symlink_status(part_, ignored)) || !isOfARun(part_))
      return fail(part_ + " exists and is not what an interrupted run left: it stays as it is");
    foundLeft_ = true;
  }
  if (!mark() || !clear()) return false;
  begun_ = true;
  for (const char* name : {kVideo, "original"}) {
    if (mkdir(pathOf(name).c_str(), 0777) != 0 && errno != EEXIST)
      return failFor("create " + pathOf(name), errno);
  }
  return true;
}

bool EvidenceFolder::write(const std::string& name, const std::string& text) {
  OutputFile file;
  return (file.open(pathOf(name)) &&
          file.write(reinterpret_cast<const uint8_t*>(text.data()), text.size()) && file.close()) ||
         fail(file.error());
}

// Folders behind what is in them.
bool EvidenceFolder::syncAll() {
  std::vector<std::string> paths;
  const int reading = pathsBelow(part_, &paths);
  if (reading != 0) return failFor("read " + part_, reading);
  for (auto path = paths.rbegin(); path != paths.rend(); ++path) {
    if (!syncOne(pathOf(*path))) return failFor("write " + pathOf(*path), errno);
  }
  return syncOne(part_) || failFor("write " + part_, errno);
}

// One that is replaced is there until the new one is, and then lies where that was made.
bool EvidenceFolder::rename() {
  const unsigned how = replaces_ ? RENAME_EXCHANGE : RENAME_NOREPLACE;
  if (renameat2(AT_FDCWD, part_.c_str(), AT_FDCWD, path_.c_str(), how) != 0) {
    const bool plain = errno == EINVAL && !replaces_ && !isThere(path_);
    if (!plain || ::rename(part_.c_str(), path_.c_str()) != 0)
      return failFor("rename " + part_ + " to " + path_, errno);
  }
  begun_ = replaces_;
  std::error_code ignored;
  const fs::path parent = fs::absolute(path_, ignored).parent_path();
  return syncOne(parent.string()) || failFor("write " + parent.string(), errno);
}

bool EvidenceFolder::finish() {
  if (!syncAll()) return false;
  for (const char* name : {FinishedParts::kName, kMark}) {
    if (unlink(pathOf(name).c_str()) != 0 && errno != ENOENT)
      return failFor("remove " + pathOf(name), errno);
  }
  return (syncOne(part_) || failFor("write " + part_, errno)) && rename();
}

}  // namespace tarn
