#include "media/serve/DownloadJob.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <utility>

#include "base/Crc32.h"
#include "base/UniqueFd.h"
#include "media/MonotonicTime.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr uint64_t kLookAtRoom = 64;  // pictures between two looks at how much room there is
constexpr size_t kBlock = 256 * 1024;
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
                         DownloadMaker maker)
    : id_(std::move(id)),
      place_(std::move(place)),
      request_(std::move(request)),
      maker_(std::move(maker)) {
  noteAsked();
}

DownloadJob::~DownloadJob() {
  stop();
  if (thread_.joinable()) thread_.join();
  std::error_code ignored;
  if (!folder_.empty()) std::filesystem::remove_all(folder_, ignored);
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
  return stopped_ || noRoom_;
}

void DownloadJob::make() {
  DownloadOutcome outcome = maker_(request_, [this] { return asksToStop(); });
  std::string error = outcome.error;
  if (outcome.made && !packFiles(&error)) outcome.made = false;
  const std::lock_guard<std::mutex> lock(mutex_);
  missing_ = std::move(outcome.missing);
  error_ = noRoom_ ? kNoRoom : error;
  state_ = outcome.made ? State::kReady : State::kFailed;
}

bool DownloadJob::sumFile(const std::string& path, uint32_t* crc) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
  std::vector<char> block(kBlock);
  ssize_t got = 0;
  while ((got = read(file.get(), block.data(), block.size())) > 0 && !stopped_)
    *crc = crc32(block.data(), static_cast<size_t>(got), *crc);
  return got == 0;
}

// What there is, in the order of the names.
bool DownloadJob::packFiles(std::string* error) {
  std::vector<std::string> paths;
  std::error_code code;
  for (std::filesystem::recursive_directory_iterator at(folder_, code), last; !code && at != last;
       at.increment(code)) {
    if (at->is_regular_file(code)) paths.push_back(at->path().string());
  }
  std::sort(paths.begin(), paths.end());
  std::vector<ZipEntry> entries;
  uint64_t offset = 0;
  for (const std::string& path : paths) {
    struct stat told = {};
    ZipEntry entry;
    const bool good = !code && stat(path.c_str(), &told) == 0 && sumFile(path, &entry.crc);
    if (!good) {
      *error = kUnread;
      return false;
    }
    entry.name = path.substr(folder_.size() + 1);
    entry.size = static_cast<uint64_t>(told.st_size);
    entry.time = told.st_mtime;
    entry.offset = offset;
    offset += zipHeader(entry).size() + entry.size;
    entries.push_back(entry);
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  paths_.swap(paths);
  entries_.swap(entries);
  return !paths_.empty();
}

std::vector<FileStream::Part> DownloadJob::zipParts() const {
  std::vector<FileStream::Part> parts;
  std::string list;
  uint64_t offset = 0;
  for (size_t i = 0; i < entries_.size(); ++i) {
    parts.push_back({zipHeader(entries_[i]), "", 0});
    parts.push_back({"", paths_[i], entries_[i].size});
    offset = entries_[i].offset + parts[parts.size() - 2].text.size() + entries_[i].size;
    list += zipListed(entries_[i]);
  }
  parts.push_back({list + zipEnd(entries_.size(), offset, list.size()), "", 0});
  return parts;
}

std::shared_ptr<FileStream> DownloadJob::take(const std::shared_ptr<DownloadJob>& self,
                                              std::string* name) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ != State::kReady) return nullptr;
  state_ = State::kTaken;
  // A movie goes as it is, unless its format changes and there are several.
  if (paths_.size() == 1 && !request_.evidence) {
    *name = entries_[0].name;
    return std::make_shared<FileStream>(
        std::vector<FileStream::Part>{{"", paths_[0], entries_[0].size}}, self);
  }
  *name = request_.name + ".zip";
  return std::make_shared<FileStream>(zipParts(), self);
}

void DownloadJob::addTo(JsonText* json) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  uint64_t bytes = 0;
  for (const ZipEntry& entry : entries_) bytes += entry.size;
  json->beginObject().key("id").text(id_).key("state").text(nameOf(state_));
  json->key("pieces").number(static_cast<int64_t>(pieces_.load()));
  json->key("bytes").number(static_cast<int64_t>(bytes)).key("error");
  error_.empty() ? json->null() : json->text(error_);
  json->key("missing").beginArray();
  for (const std::string& text : missing_) json->text(text);
  json->end().end();
}

}  // namespace tarn
