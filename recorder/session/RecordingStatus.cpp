#include "recorder/session/RecordingStatus.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <sstream>

#include "base/UniqueFd.h"
#include "recorder/card/NoThrow.h"
#include "recorder/rows/ServerRetry.h"
#include "recorder/session/StatusTeller.h"
#include "recorder/session/WearCauses.h"

namespace tarn {
namespace {

constexpr char kFolder[] = "/tmp";
constexpr char kName[] = "tarn-status-";
constexpr char kNewName[] = ".tarn-status-";
constexpr char kMark[] = "tarn-status";
constexpr int kVersion = 1;
constexpr int64_t kEachMs = 1000;
constexpr int64_t kOldMs = 10000;
constexpr size_t kMostBytes = 4096;
constexpr size_t kMostCauses = 16;
constexpr size_t kMostTold = 16;  // processes

std::string pathOf(const char* name, int32_t process) {
  return std::string(kFolder) + "/" + name + std::to_string(process);
}

std::string fileText(const std::string& path) {
  const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
  char text[kMostBytes];
  const ssize_t size = file.valid() ? read(file.get(), text, sizeof text) : -1;
  return size > 0 ? std::string(text, static_cast<size_t>(size)) : "";
}

// Nobody else's file is written to, whatever lies there.
bool writeWhole(const std::string& path, const std::string& text) {
  unlink(path.c_str());
  const UniqueFd file(open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  return file.valid() &&
         write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

RecordingStatus ownStatus(uint32_t failed) {
  RecordingStatus status;
  status.process = getpid();
  for (const WearCause& cause : wearCauses(cardWear()))
    status.causes.push_back({cause.name, cause.share.bytes, cause.share.flushes});
  status.flushes = cardFlushTimes();
  status.failed = failed;
  return status;
}

}  // namespace

std::string statusText(const RecordingStatus& status, int64_t nowMs) {
  std::ostringstream out;
  out << kMark << ' ' << kVersion << '\n' << nowMs << '\n' << status.process << '\n';
  out << status.failed << '\n' << status.causes.size() << '\n';
  for (const RecordingStatus::Cause& cause : status.causes)
    out << cause.name << ' ' << cause.bytes << ' ' << cause.flushes << '\n';
  for (const uint64_t count : status.flushes.counts) out << count << ' ';
  out << status.flushes.allUs << "\nend\n";
  return out.str();
}

namespace {

bool parseStatus(const std::string& text, int64_t nowMs, RecordingStatus* status) {
  std::istringstream in(text);
  std::string mark, end;
  int version = 0;
  int64_t toldMs = 0;
  size_t causes = 0;
  *status = RecordingStatus();
  in >> mark >> version >> toldMs >> status->process >> status->failed >> causes;
  if (!in || mark != kMark || version != kVersion || causes > kMostCauses || status->process <= 0)
    return false;
  for (size_t i = 0; i < causes; ++i) {
    RecordingStatus::Cause cause;
    in >> cause.name >> cause.bytes >> cause.flushes;
    status->causes.push_back(cause);
  }
  for (uint64_t& count : status->flushes.counts) in >> count;
  in >> status->flushes.allUs >> end;
  return in && end == "end" && toldMs <= nowMs && nowMs - toldMs <= kOldMs;
}

}  // namespace

bool readStatus(const std::string& text, int64_t nowMs, RecordingStatus* status) {
  return orNoMemory(
      "RecordingStatus", [&] { return parseStatus(text, nowMs, status); }, [] { return false; });
}

// Without memory of its own: a destructor has nobody to tell that there is none.
StatusTeller::~StatusTeller() {
  char path[64];
  snprintf(path, sizeof path, "%s/%s%d", kFolder, kName, static_cast<int>(getpid()));
  if (toldMs_ >= 0) unlink(path);
}

void StatusTeller::tell(uint32_t failed) {
  const int64_t nowMs = monotonicMs();
  if (toldMs_ >= 0 && nowMs - toldMs_ < kEachMs) return;
  toldMs_ = nowMs;
  orNoMemory(
      "StatusTeller",
      [&] {
        const std::string path = pathOf(kNewName, getpid());
        if (writeWhole(path, statusText(ownStatus(failed), nowMs)))
          return rename(path.c_str(), pathOf(kName, getpid()).c_str());
        return -1;
      },
      [] { return -1; });
}

std::vector<RecordingStatus> toldStatuses() {
  std::vector<RecordingStatus> all;
  const std::unique_ptr<DIR, int (*)(DIR*)> folder(opendir(kFolder), closedir);
  if (folder == nullptr) return all;
  while (const dirent* entry = readdir(folder.get())) {
    RecordingStatus status;
    if (strncmp(entry->d_name, kName, strlen(kName)) != 0 || all.size() >= kMostTold) continue;
    if (readStatus(fileText(std::string(kFolder) + "/" + entry->d_name), monotonicMs(), &status))
      all.push_back(status);
  }
  return all;
}

}  // namespace tarn
