#include "video/Record.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cmath>
#include <cstdlib>
#include <ctime>

#include "Console.h"
#include "dblog/CDbLog.h"
#include "media/MediaInput.h"
#include "recorder/session/RecordingSession.h"

namespace tarn::tool {
namespace {

int64_t monotonicUs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

PictureTime wallClock() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return PictureTime::fromMicros(int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000);
}

constexpr int64_t kTellUs = 50000;

// An event on its way: waiting for its moment, running, or over.
struct EventState {
  int64_t startUs;
  int64_t endUs;
  uint16_t trigger;
  uint32_t eventID = 0;
  bool over = false;
};

class Recorder {
 public:
  explicit Recorder(const RecordRequest& request) : request_(request) {
    for (const EventRequest& event : request.events) {
      const auto at = static_cast<int64_t>(std::llround(event.atSeconds * 1e6));
      events_.push_back({at, at + int64_t{request.eventSeconds} * 1000000, event.trigger});
    }
  }

  int run();

 private:
  bool recordOnce(MediaInput* input);
  bool recordPicture(const MediaPicture& picture);
  bool openSession(const MediaInput& input);
  bool moveEvents(int64_t nowUs);
  void pace(int64_t decodeUs);
  bool fail(const std::string& text);
  void progress();
  void tellProgress();
  void report() const;
  PictureTime clockTime(int64_t timeUs) const {
    return PictureTime::fromMicros(start_.totalMicros() + timeUs);
  }

  const RecordRequest& request_;
  RecordingSession session_;
  std::vector<EventState> events_;
  PictureTime start_;
  int64_t firstDecodeUs_ = 0;  // of the present pass, may be negative
  int64_t originUs_ = 0;       // where on the recording's time line the present pass begins
  int64_t endUs_ = 0;          // end of the last picture so far
  int64_t beganUs_ = 0;        // monotonic
  int64_t lastProgressUs_ = 0;
  int64_t lastToldUs_ = 0;
  uint64_t safe_ = 0;  // pictures, as last told
  unsigned eventsInserted_ = 0;
  std::optional<ProgressLine> progress_;
};

bool Recorder::fail(const std::string& text) {
  complain(text);
  return false;
}

bool Recorder::openSession(const MediaInput& input) {
  RecordingOptions options;
  options.channel = static_cast<int8_t>(request_.channel);
  options.segmentSeconds = request_.segmentSeconds;
  options.flushIntervalMs = request_.flushMs;
  options.bitrate = static_cast<uint32_t>(std::min<int64_t>(input.bitRate(), UINT32_MAX));
  // Bit 7 of the frame setting would make the row an audio one.
  options.frameSet = static_cast<uint16_t>(std::clamp(std::lround(input.frameRate()), 0L, 127L));
  return session_.open(options) == 0 || fail(session_.errorText());
}

// Without it an endless source that produces faster than the clock would be recorded at its speed.
// The first picture is due at once, however far ahead of its presentation it is decoded.
void Recorder::pace(int64_t decodeUs) {
  if (!request_.realtime) return;
  const int64_t due = beganUs_ + originUs_ + decodeUs - firstDecodeUs_;
  for (int64_t wait = due - monotonicUs(); wait > 0 && !stopRequested(); wait = due - monotonicUs())
    usleep(static_cast<useconds_t>(std::min<int64_t>(wait, 500000)));
}

bool Recorder::moveEvents(int64_t nowUs) {
  for (EventState& event : events_) {
    if (event.over) continue;
    if (event.eventID == 0 && nowUs >= event.startUs) {
      event.eventID = session_.beginEvent(event.trigger, clockTime(event.startUs), 0);
      if (event.eventID == 0) return fail(session_.errorText());
      ++eventsInserted_;
    }
    if (event.eventID != 0 && nowUs >= event.endUs) {
      event.over = true;
      if (session_.endEvent(event.eventID, clockTime(event.endUs)) != 0)
        return fail(session_.errorText());
    }
  }
  return true;
}

bool Recorder::recordPicture(const MediaPicture& picture) {
  pace(picture.decodeUs);
  const int64_t atUs = originUs_ + picture.presentationUs;
  if (!moveEvents(atUs)) return false;
  const auto decodeOffset = static_cast<int32_t>(
      std::clamp<int64_t>(picture.decodeUs - picture.presentationUs, INT32_MIN, 0));
  if (session_.writePicture(picture.annexB.data(), picture.annexB.size(), clockTime(atUs),
                            decodeOffset, picture.key) != 0)
    return fail(session_.errorText());
  endUs_ = std::max(endUs_, atUs + picture.durationUs);
  progress();
  tellProgress();
  return true;
}

bool Recorder::recordOnce(MediaInput* input) {
  MediaPicture picture;
  bool first = true;
  while (!stopRequested()) {
    const MediaInput::Result result = input->next(&picture);
    if (result == MediaInput::Result::kEnd) return true;
    // A stop interrupts the read of a live stream; that is no failure.
    if (result == MediaInput::Result::kError) return stopRequested() || fail(input->error());
    if (!session_.isOpen() && !openSession(*input)) return false;
    if (first) firstDecodeUs_ = picture.decodeUs;
    first = false;
    if (!recordPicture(picture)) return false;
  }
  return true;
}

// Whoever watches may kill us at any moment, so each line goes out at once. That nobody reads them
// any more is no reason to stop recording.
void Recorder::tellProgress() {
  const RecordingStatistics statistics = session_.statistics();
  const int64_t now = monotonicUs();
  if (!request_.progress || (statistics.confirmed == safe_ && now - lastToldUs_ < kTellUs)) return;
  safe_ = statistics.confirmed;
  lastToldUs_ = now;
  fmt::print("{} pictures written, {} safe\n", statistics.pictures, safe_);
  fflush(stdout);
}

void Recorder::progress() {
  const int64_t now = monotonicUs();
  if (now - lastProgressUs_ < 250000) return;
  lastProgressUs_ = now;
  const RecordingStatistics statistics = session_.statistics();
  progress_->show(fmt::format("{} pictures, {:.1f} s, {:.1f} MB", statistics.pictures,
                              static_cast<double>(endUs_) / 1e6,
                              static_cast<double>(statistics.bytes) / 1e6));
}

void Recorder::report() const {
  const RecordingStatistics s = session_.statistics();
  fmt::print(
      "recorded {} pictures ({:.1f} s, {:.1f} MB) in {} recordings on {} chunks, {} events\n",
      s.confirmed, static_cast<double>(endUs_) / 1e6, static_cast<double>(s.bytes) / 1e6,
      s.segments, s.chunks, eventsInserted_);
  if (s.pictures > s.confirmed)
    fmt::print("not on the card: {} pictures\n", s.pictures - s.confirmed);
  fmt::print("made room: {} oldest recordings and {} events deleted, ring ends passed {} times\n",
             s.recordingsDeleted, s.eventsDeleted, s.streamWraps);
}

int Recorder::run() {
  std::string error;
  bool good = true;
  progress_.emplace();
  for (uint32_t pass = 0; pass < request_.loop && good && !stopRequested(); ++pass) {
    const auto input = MediaInput::open(request_.input, request_.frameRate, stopRequested, &error);
    if (input == nullptr) {
      good = fail(error);
      break;
    }
    if (pass == 0) {
      start_ = request_.start.value_or(wallClock());
      beganUs_ = monotonicUs();
    }
    originUs_ = endUs_;
    good = recordOnce(input.get());
    if (good && !stopRequested() && session_.statistics().pictures == 0)
      good = fail(request_.input + " holds no picture that a recording can begin with");
  }
  const bool opened = session_.statistics().segments > 0 || session_.isOpen();
  for (EventState& event : events_) {
    if (event.eventID != 0 && !event.over && good)
      good = session_.endEvent(event.eventID, clockTime(std::min(event.endUs, endUs_))) == 0 ||
             fail(session_.errorText());
    else if (event.eventID == 0)
      complain(fmt::format("the recording ended before the event {}@{:g}", event.trigger,
                           static_cast<double>(event.startUs) / 1e6));
  }
  if (session_.isOpen() && session_.close() != 0 && good) good = fail(session_.errorText());
  CDbLog::getInstance()->finish();
  progress_.reset();
  tellProgress();
  if (opened) report();
  return good ? 0 : 1;
}

}  // namespace

std::optional<EventRequest> parseEvent(const std::string& text) {
  const size_t at = text.find('@');
  if (at == 0 || at == std::string::npos || at + 1 == text.size()) return std::nullopt;
  if (text.find_first_not_of("0123456789") != at) return std::nullopt;
  errno = 0;
  const unsigned long trigger = std::strtoul(text.c_str(), nullptr, 10);
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str() + at + 1, &end);
  if (errno != 0 || trigger > UINT16_MAX || *end != '\0' || !(seconds >= 0) || seconds > 1e9)
    return std::nullopt;
  return EventRequest{static_cast<uint16_t>(trigger), seconds};
}

int recordMedia(const RecordRequest& request) { return Recorder(request).run(); }

}  // namespace tarn::tool
