#include "media/serve/CheckJob.h"

#include <utility>

#include "fat/ChunkFiles.h"
#include "media/serve/RowAnswers.h"
#include "recorder/card/NoThrow.h"

namespace tarn {
namespace {

constexpr size_t kMostFindings = 500;

void addTime(JsonText* json, const char* name, int64_t us) {
  json->key(name);
  us == 0 ? json->null() : json->thousandths(us);
}

void addFinding(JsonText* json, const CardFinding& finding) {
  json->beginObject().key("kind").text(findingKindName(finding.kind));
  json->key("text").text(finding.text).key("meaning").text(finding.meaning);
  json->key("consequence").text(consequenceName(finding.consequence)).key("recording");
  finding.streamID == 0 ? json->null() : json->number(finding.streamID);
  json->key("channel");
  finding.channel < 0 ? json->null() : json->number(finding.channel);
  addTime(json, "fromMs", int64_t{finding.from} * 1000000);
  addTime(json, "toMs", int64_t{finding.to} * 1000000);
  json->end();
}

}  // namespace

const char* CheckJob::nameOf(State state) {
  switch (state) {
    case State::kRunning:
      return "running";
    case State::kDone:
      return "done";
    case State::kFailed:
      return "failed";
    case State::kNone:
      break;
  }
  return "none";
}

bool CheckJob::begin() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (state_ == State::kRunning || stopped_) return false;
  if (thread_.joinable()) thread_.join();  // it has ended
  // First: where there is no thread for it, it is not under way.
  thread_ = std::thread([this] { run(); });
  state_ = State::kRunning;
  done_ = total_ = 0;
  startedUs_ = wallClockUs();
  endedUs_ = 0;
  meaning_.clear();
  findings_ = CardFindings();
  return true;
}

void CheckJob::stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
  }
  if (thread_.joinable()) thread_.join();
}

// What was found may be more than there is memory for, which must not end the server.
void CheckJob::run() {
  orNoMemory(
      "CheckJob", [this] { return look(), 0; },
      [this] { return end(State::kFailed, kErrMemoryOut, {}), -1; });
}

void CheckJob::look() {
  CardCheck check;
  CardCheckOptions options;
  options.progress = [this](uint64_t done, uint64_t total) {
    const std::lock_guard<std::mutex> lock(mutex_);
    done_ = done;
    total_ = total;
    return !stopped_;
  };
  std::string error;
  const bool done = check.run(deviceName(kRecorderPartition), options, &error) == 0;
  end(done ? State::kDone : State::kFailed, done ? check.meaning() : error, check.findings());
}

void CheckJob::end(State state, std::string meaning, CardFindings findings) {
  const std::lock_guard<std::mutex> lock(mutex_);
  state_ = state;
  endedUs_ = wallClockUs();
  meaning_ = std::move(meaning);
  findings_ = std::move(findings);
}

void CheckJob::addTo(JsonText* json) const {
  const std::lock_guard<std::mutex> lock(mutex_);
  json->beginObject().key("state").text(nameOf(state_));
  json->key("done").number(static_cast<int64_t>(done_));
  json->key("total").number(static_cast<int64_t>(total_));
  addTime(json, "startedMs", startedUs_);
  addTime(json, "endedMs", endedUs_);
  json->key("meaning").text(meaning_).key("findings").beginArray();
  size_t told = 0;
  for (const CardFinding& finding : findings_.list()) {
    if (told++ == kMostFindings) break;
    addFinding(json, finding);
  }
  json->end().key("findingCount").number(static_cast<int64_t>(findings_.total())).end();
}

}  // namespace tarn
