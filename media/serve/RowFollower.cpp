#include "media/serve/RowFollower.h"

#include <algorithm>
#include <chrono>

#include "media/MonotonicTime.h"
#include "media/serve/RowJson.h"
#include "media/serve/RowReader.h"
#include "recorder/card/NoThrow.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

constexpr int kLookMs = 250;
// How long a question keeps running recordings looked after.
constexpr int64_t kWantedMs = 30000;
// Newest events that a watcher is told of at once; it asks for the list anyhow when there are more.
constexpr size_t kMostTold = 50;
constexpr uint64_t kNewestPictures = 1500;  // a minute at 25 a second

int64_t nowMs() { return monotonicUs() / 1000; }

std::string jsonOf(const ServedRecording& recording) {
  JsonText json;
  addRecording(&json, recording);
  return json.take();
}

std::string jsonOf(const DB_EVENT& event) {
  JsonText json;
  addEvent(&json, event);
  return json.take();
}

std::string jsonOf(int channel, const SafePictures& safe) {
  JsonText json;
  json.beginObject().key("channel").number(channel).key("recording").number(safe.streamID);
  json.key("pictures").number(safe.pictures).key("timeMs").thousandths(safe.lastUs).end();
  return json.take();
}

// The latest of the last pictures: they lie in the order of decoding.
int64_t latestUs(RecordingReader* reader) {
  constexpr uint32_t kMostReordered = 16;
  const uint32_t count = reader->pictureCount();
  int64_t latest = 0;
  PictureEntry entry;
  for (uint32_t i = count > kMostReordered ? count - kMostReordered : 0; i < count; ++i) {
    if (reader->picture(i, &entry)) latest = std::max(latest, entry.presentation.totalMicros());
  }
  return latest;
}

}  // namespace

RowFollower::RowFollower(EventFeed* feed) : feed_(feed), reader_(std::make_unique<RowReader>()) {}

RowFollower::~RowFollower() { stop(); }

bool RowFollower::start(std::string* error) {
  std::shared_ptr<const ServedRows> rows;
  if (!reader_->refresh(&rows)) {
    *error = reader_->error();
    return false;
  }
  rows_ = rows;
  thread_ = std::thread([this] { run(); });
  return true;
}

void RowFollower::stop() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    stopped_ = true;
    wake_.notify_all();
  }
  if (thread_.joinable()) thread_.join();
}

std::shared_ptr<const ServedRows> RowFollower::rows() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return rows_;
}

SafePictures RowFollower::safe(uint32_t streamID) {
  const std::lock_guard<std::mutex> lock(mutex_);
  askedMs_ = nowMs();
  const auto found = safe_.find(streamID);
  return found != safe_.end() ? found->second : SafePictures();
}

bool RowFollower::isNewest(uint32_t streamID, uint32_t picture) {
  const std::shared_ptr<const ServedRows> all = rows();
  const ServedRecording* recording = all->find(streamID);
  return recording != nullptr && recording->isRunning() &&
         uint64_t{picture} + kNewestPictures >= safe(streamID).pictures;
}

std::string RowFollower::problem() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return problem_;
}

bool RowFollower::isWanted() const {
  if (feed_->listeners() > 0) return true;
  const std::lock_guard<std::mutex> lock(mutex_);
  return askedMs_ >= 0 && nowMs() - askedMs_ < kWantedMs;
}

void RowFollower::run() {
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (wake_.wait_for(lock, std::chrono::milliseconds(kLookMs), [this] { return stopped_; }))
        return;
    }
    // Where memory is short now it may not be at the next look.
    orNoMemory(
        "RowFollower", [this] { return look(), 0; }, [] { return -1; });
  }
}

void RowFollower::look() {
  const std::shared_ptr<const ServedRows> before = rows();
  std::shared_ptr<const ServedRows> now = before;
  const bool good = reader_->refresh(&now);
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    problem_ = good ? "" : reader_->error();
    rows_ = now;
  }
  if (now != before) tellOfRows(*before, *now);
  if (isWanted()) {
    followSafe(*now);
  } else {
    readers_.clear();
  }
}

void RowFollower::followSafe(const ServedRows& rows) {
  std::map<uint32_t, std::unique_ptr<RecordingReader>> readers;
  std::map<uint32_t, SafePictures> all;
  for (const ServedRecording& one : rows.recordings) {
    const uint32_t key = one.row.streamID;
    if (!one.isRunning() || isSound(one.row)) continue;
    std::unique_ptr<RecordingReader>& reader = readers[key];
    reader = std::move(readers_[key]);
    const bool known = reader != nullptr;
    if (!known) reader = std::make_unique<RecordingReader>();
    const uint32_t counted = known ? reader->pictureCount() : 0;
    if (!known && reader->open(one.row) != 0) {
      readers.erase(key);  // its header is not on the card yet, or the card refuses it
      continue;
    }
    const uint32_t count = known ? reader->refresh() : reader->pictureCount();
    const SafePictures safe = {key, count, latestUs(reader.get())};
    all[key] = safe;
    if (count != counted) feed_->tell("safe", jsonOf(one.channel, safe));
  }
  readers_.swap(readers);
  const std::lock_guard<std::mutex> lock(mutex_);
  safe_.swap(all);
}

void RowFollower::tellOfRows(const ServedRows& before, const ServedRows& now) {
  for (const ServedRecording& one : now.recordings) {
    const ServedRecording* known = before.find(one.row.streamID);
    if (known == nullptr || known->isRunning() != one.isRunning())
      feed_->tell("recording", jsonOf(one));
  }
  const uint32_t last = before.events->empty() ? 0 : before.events->back().eventID;
  size_t told = 0;
  for (auto event = now.events->rbegin(); event != now.events->rend() && told < kMostTold;
       ++event) {
    const bool fresh = event->eventID > last;
    const auto known =
        std::lower_bound(before.events->begin(), before.events->end(), event->eventID,
                         [](const DB_EVENT& one, uint32_t key) { return one.eventID < key; });
    const bool ended = !fresh && event->endDate != 0 && known != before.events->end() &&
                       known->eventID == event->eventID && known->endDate == 0;
    if (!fresh && !ended && event->eventID + kMostTold < last) break;
    if (!fresh && !ended) continue;
    feed_->tell("event", jsonOf(*event));
    ++told;
  }
  const bool went = !before.recordings.empty() && !now.recordings.empty() &&
                    before.recordings.front().row.streamID < now.recordings.front().row.streamID;
  if (!went) return;
  JsonText json;
  json.beginObject().key("oldestMs").thousandths(now.recordings.front().startUs()).end();
  feed_->tell("card", json.take());
}

}  // namespace tarn
