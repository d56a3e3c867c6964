#include "media/serve/Downloads.h"

#include <sys/random.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <utility>
#include <vector>

#include "media/serve/QueryReader.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr int64_t kDayUs = int64_t{86400} * 1000000;
// Whoever waits for one asks a second later at the latest; a telephone may sleep a little.
constexpr int64_t kForgottenUs = int64_t{60} * 1000000;
constexpr auto kLook = std::chrono::seconds(1);
constexpr char kNone[] = "this server makes no downloads";
constexpr char kNoSuch[] = "there is no such download: it was taken, or nobody asked for it";
constexpr char kTooMany[] = "another download is being made: try again in a moment";
constexpr char kNotReady[] = "it is not ready";

std::string newId() {
  uint8_t bytes[8] = {};
  if (getrandom(bytes, sizeof bytes, 0) != sizeof bytes) return "";
  std::string text;
  for (const uint8_t byte : bytes) {
    char digits[3];
    snprintf(digits, sizeof digits, "%02x", unsigned{byte});
    text += digits;
  }
  return text;
}

bool endsIn(const std::string& name, const std::string& ending) {
  return name.size() > ending.size() &&
         name.compare(name.size() - ending.size(), ending.size(), ending) == 0;
}

const char* typeOf(const std::string& name) {
  if (endsIn(name, ".zip")) return "application/zip";
  return endsIn(name, ".mov") ? "video/quicktime" : "video/mp4";
}

HttpResponse told(const DownloadJob& job, int status) {
  JsonText json;
  job.addTo(&json);
  HttpResponse response;
  response.status = status;
  response.body = json.take();
  return response;
}

}  // namespace

std::string downloadName(const std::string& beginning, int64_t us) {
  const auto seconds = static_cast<time_t>(us / 1000000);
  struct tm local = {};
  char text[32];
  strftime(text, sizeof text, "-%Y%m%d-%H%M%S", localtime_r(&seconds, &local));
  return beginning + text;
}

Downloads::Downloads(std::string place, DownloadMaker maker, ExportAnswers* exports,
                     WritersFirst* writers)
    : place_(std::move(place)), maker_(std::move(maker)), exports_(exports), writers_(writers) {}

void Downloads::stop() {
  std::map<std::string, Job> ended;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    ended.swap(jobs_);
    wake_.notify_all();
  }
  for (const auto& one : ended) one.second->stop();
  if (thread_.joinable()) thread_.join();
}

Downloads::Job Downloads::find(const std::string& id) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = jobs_.find(id);
  return found != jobs_.end() ? found->second : nullptr;
}

bool Downloads::isOver(const DownloadJob& job) const {
  return job.state() == DownloadJob::State::kTaken || job.unaskedUs() > kForgottenUs;
}

// A taken one is kept by what sends it.
void Downloads::removeOver() {
  std::vector<Job> over;  // their threads are waited for without the lock
  const std::lock_guard<std::mutex> lock(mutex_);
  for (auto at = jobs_.begin(); at != jobs_.end();) {
    if (!isOver(*at->second)) {
      ++at;
      continue;
    }
    at->second->stop();
    over.push_back(std::move(at->second));
    at = jobs_.erase(at);
  }
}

void Downloads::run() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (wake_.wait_for(lock, kLook, [this] { return stopped_; })) return;
    }
    // What has no place in a list now has one at the next look.
    orNoMemory(
        "Downloads", [this] { return removeOver(), 0; }, [] { return -1; });
  }
}

// One that failed or was taken is nothing that anybody waits for.
bool Downloads::hasRoom() const {
  size_t ready = 0;
  for (const auto& one : jobs_) {
    const DownloadJob::State state = one.second->state();
    if (state == DownloadJob::State::kMaking) return false;
    if (state == DownloadJob::State::kReady) ++ready;
  }
  return ready < kMostReady;
}

HttpResponse Downloads::begin(const HttpRequest& request) {
  QueryReader query(request, {"kind", "channel", "from", "to"});
  DownloadRequest wanted;
  const std::string kind = query.text("kind");
  wanted.evidence = kind == "evidence";
  if (!wanted.evidence && kind != "movie") query.fail("kind is movie or evidence");
  wanted.channel = wanted.evidence ? query.channel() : query.channelNeeded();
  wanted.fromUs = query.timeUsNeeded("from");
  wanted.toUs = query.timeUsNeeded("to");
  if (wanted.toUs <= wanted.fromUs || wanted.toUs - wanted.fromUs > kDayUs)
    query.fail("the period is up to a day long");
  if (!query.ok()) return errorResponse(400, query.error());
  if (!maker_) return errorResponse(409, kNone);
  wanted.name = downloadName(
      wanted.evidence ? "evidence" : "channel" + std::to_string(*wanted.channel), wanted.fromUs);
  wanted.quickTime =
      !wanted.evidence && exports_->needsQuickTime(*wanted.channel, wanted.fromUs, wanted.toUs);
  const std::lock_guard<std::mutex> lock(mutex_);
  if (stopped_ || !hasRoom()) return errorResponse(503, kTooMany);
  // First: nobody would know of a job, or take it away, that this fails behind.
  if (!thread_.joinable()) thread_ = std::thread([this] { run(); });
  const auto job = std::make_shared<DownloadJob>(newId(), place_, wanted, maker_, writers_);
  std::string error;
  if (job->id().empty() || !job->begin(&error)) return errorResponse(503, error);
  jobs_[job->id()] = job;
  return told(*job, 202);
}

HttpResponse Downloads::state(const HttpRequest& request) {
  const QueryReader query(request, {"id"});
  if (!query.ok()) return errorResponse(400, query.error());
  const Job job = find(query.text("id"));
  if (job == nullptr) return errorResponse(404, kNoSuch);
  job->noteAsked();
  return told(*job, 200);
}

HttpResponse Downloads::giveUp(const HttpRequest& request) {
  const QueryReader query(request, {"id"});
  if (!query.ok()) return errorResponse(400, query.error());
  const Job job = find(query.text("id"));
  if (job == nullptr) return errorResponse(404, kNoSuch);
  job->stop();
  const std::lock_guard<std::mutex> lock(mutex_);
  jobs_.erase(job->id());
  return told(*job, 200);
}

HttpResponse Downloads::take(const HttpRequest& request) {
  const QueryReader query(request, {"id"});
  if (!query.ok()) return errorResponse(400, query.error());
  const Job job = find(query.text("id"));
  if (job == nullptr) return errorResponse(404, kNoSuch);
  std::string name;
  int64_t length = 0;
  const std::shared_ptr<BodyStream> stream = job->take(job, &name, &length);
  if (stream == nullptr) return errorResponse(409, kNotReady);
  HttpResponse response;
  response.type = typeOf(name);
  response.headers.emplace_back("Content-Disposition", "attachment; filename=\"" + name + "\"");
  response.length = length;
  response.stream = stream;
  return response;
}

}  // namespace tarn
