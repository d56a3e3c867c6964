#include "media/serve/DownloadJob.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "base/FolderNames.h"
#include "media/MonotonicTime.h"
#include "media/RemoveTree.h"
#include "media/serve/FileStream.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr uint64_t kLookAtRoom = 64;  // pictures between two looks at how much room there is
constexpr int64_t kWaitMs = 200;      // for the card; whoever stops it waits no longer
constexpr int kMostWaits = 50;
constexpr char kNoFolder[] = "this server has no place to make it in";
constexpr char kNoRoom[] = "there is no room to make it in: choose a shorter time";
constexpr char kUnread[] = "what was made cannot be read again";
constexpr char kNoMemory[] = "out of memory";

uint64_t freeBytes(const std::string& folder) {
  struct statvfs told = {};
  if (statvfs(folder.c_str(), &told) != 0) return 0;
  return uint64_t{told.f_bavail} * told.f_frsize;
}

const char* nameOf(DownloadJob::State state) {
  switch (state) {
    case DownloadJob::State::kReady:
      return "ready";
    case DownloadJob::State::kTaken:
      return "taken";
    case DownloadJob::State::kFailed:
      return "failed";
    case DownloadJob::State::kMaking:
      break;
  }
  return "making";
}

}  // namespace

DownloadJob::DownloadJob(std::string id, std::string place, DownloadRequest request,
                         DownloadMaker maker, WritersFirst* writers)
    : writers_(writers),
      id_(std::move(id)),
      place_(std::move(place)),
      request_(std::move(request)),
      maker_(std::move(maker)) {
  noteAsked();
}

DownloadJob::~DownloadJob() {
  stop();
  if (thread_.joinable()) thread_.join();
  if (!folder_.empty()) removeTree(folder_);
}

bool DownloadJob::begin(std::string* error) {
  std::string folder = place_ + "/tarn-download-XXXXXX";
  if (mkdtemp(folder.data()) == nullptr) {
    *error = kNoFolder;
    return false;
  }
  request_.folder = folder_ = folder;
  freeAtFirst_ = freeBytes(folder_);
  thread_ = std::thread([this] { run(); });
  return true;
}

DownloadJob::State DownloadJob::state() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return state_;
}

void DownloadJob::noteAsked() { askedUs_ = monotonicUs(); }
int64_t DownloadJob::unaskedUs() const { return monotonicUs() - askedUs_; }

void DownloadJob::run() {
  orNoMemory(
      "DownloadJob", [this] { return make(), 0; },
      [this] { return end(State::kFailed, kNoMemory), -1; });
}

void DownloadJob::end(State state, const std::string& error) {
  const std::lock_guard<std::mutex> lock(mutex_);
  error_ = error;
  state_ = state;
}

// Others need the place, too: on a recorder it is memory.
bool DownloadJob::hasRoom() const { return freeBytes(folder_) >= freeAtFirst_ / 2; }

bool DownloadJob::asksToStop() {
  if (++pieces_ % kLookAtRoom == 0 && !hasRoom()) noRoom_ = true;
  // When its turn does not come it goes on all the same: somebody waits for it.
  reading_.reset();
  for (int i = 0; i < kMostWaits && !stopped_ && !writers_->wait(kWaitMs); ++i) continue;
  reading_.emplace(writers_);
  return stopped_ || noRoom_;
}

void DownloadJob::make() {
  DownloadOutcome outcome = maker_(request_, [this] { return asksToStop(); });
  reading_.reset();
  std::string error = outcome.error;
  if (outcome.made && !lookAtFiles(&error)) outcome.made = false;
  const std::lock_guard<std::mutex> lock(mutex_);
  missing_ = std::move(outcome.missing);
  error_ = noRoom_ ? kNoRoom : error;
  state_ = outcome.made ? State::kReady : State::kFailed;
}

// What there is, in the order of the names.
bool DownloadJob::listFiles(std::vector<ZipStream::File>* files) const {
  std::vector<std::string> names;
  if (pathsBelow(folder_, &names) != 0) return false;
  for (const std::string& name : names) {
    struct stat told = {};
    ZipStream::File one;
    one.path = inFolder(folder_, name);
    if (lstat(one.path.c_str(), &told) != 0) return false;
    if (!S_ISREG(told.st_mode)) continue;
    one.name = name;
    one.size = static_cast<uint64_t>(told.st_size);
    one.time = told.st_mtime;
    files->push_back(one);
  }
  std::sort(files->begin(), files->end(),
            [](const auto& a, const auto& b) { return a.name < b.name; });
  return !files->empty();
}

// A movie goes as it is, unless its format changes and there are several.
bool DownloadJob::isZip(const std::vector<ZipStream::File>& files) const {
  return request_.evidence || files.size() != 1;
}

// Before it is told as ready: a browser wants to know how long a download is.
bool DownloadJob::lookAtFiles(std::string* error) {
  std::vector<ZipStream::File> files;
  int64_t length = -1;
  if (listFiles(&files)) {
    length = isZip(files) ? ZipStream::lengthOf(files, [this] { return stopped_.load(); })
                          : static_cast<int64_t>(files[0].size);
  }
  if (length < 0) *error = kUnread;
  const std::lock_guard<std::mutex> lock(mutex_);
  files_.swap(files);
  length_ = length;
  return length >= 0;
}

std::shared_ptr<BodyStream> DownloadJob::take(const std::shared_ptr<DownloadJob>& self,
                                              std::string* name, int64_t* length) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kReady) return nullptr;
  state_ = State::kTaken;
  *length = length_;
  const bool zip = isZip(files_);
  *name = zip ? request_.name + ".zip" : files_[0].name;
  if (zip) return std::make_shared<ZipStream>(files_, self);
  return std::make_shared<FileStream>(files_[0].path, files_[0].size, self);
}

void DownloadJob::addTo(JsonText* json) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  uint64_t bytes = 0;
  for (const ZipStream::File& file : files_) bytes += file.size;
  json->beginObject().key("id").text(id_).key("state").text(nameOf(state_));
  json->key("pieces").number(static_cast<int64_t>(pieces_.load()));
  json->key("bytes").number(static_cast<int64_t>(bytes)).key("error");
  error_.empty() ? json->null() : json->text(error_);
  json->key("missing").beginArray();
  for (const std::string& text : missing_) json->text(text);
  json->end().end();
}

}  // namespace tarn
