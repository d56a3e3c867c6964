#include "media/record/ChannelRecorder.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <exception>

#include "media/MonotonicTime.h"
#include "recorder/rows/ServerProbe.h"

namespace tarn {
namespace {

constexpr int64_t kIdleUs = 100000;
constexpr char kErrNoServer[] = "stopped before there was a management server";
// How long a camera that does not answer is left alone: twice as long each time.
constexpr int64_t kFirstPauseUs = 1000000;
constexpr int64_t kLongestPauseUs = 30000000;

int64_t wallUs() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return int64_t{now.tv_sec} * 1000000 + now.tv_nsec / 1000;
}

}  // namespace

ChannelRecorder::ChannelRecorder(const RecordRequest& request, const InputRequest& input,
                                 RecordListener* listener)
    : request_(request),
      input_(input),
      listener_(listener),
      early_(&session_, PictureQueue::kDefaultLimit / std::max<size_t>(request.inputs.size(), 1)) {
  if (&input != &request.inputs.front()) return;
  for (const EventRequest& event : request.events) events_.add(event, request.eventSeconds);
}

// The first failure is the one that counts.
bool ChannelRecorder::fail(const std::string& text) {
  if (good_) warn(text);
  good_ = false;
  return false;
}

bool ChannelRecorder::openSession(const MediaInput& input) {
  RecordingOptions options;
  options.channel = static_cast<int8_t>(input_.channel);
  options.segmentSeconds = request_.segmentSeconds;
  options.flushIntervalMs = request_.flushMs;
  options.bitrate = static_cast<uint32_t>(std::min<int64_t>(input.bitRate(), UINT32_MAX));
  // Bit 7 of the frame setting would make the row an audio one.
  options.frameSet = static_cast<uint16_t>(std::clamp(std::lround(input.frameRate()), 0L, 127L));
  if (live_) {
    early_.open(options);
    return true;
  }
  if (!awaitServer(stopped_)) return fail(kErrNoServer);
  return session_.open(options) == 0 || fail(session_.errorText());
}

// Once the session is open it gets what was received until then. With `wait` nothing more is.
bool ChannelRecorder::finishOpening(bool wait) {
  if (!early_.isOpening()) return true;
  if (stopAsked()) early_.stop();
  const EarlyPictures::Outcome outcome = early_.finish(wait);
  if (outcome == EarlyPictures::Outcome::kOpening) return true;
  if (outcome == EarlyPictures::Outcome::kFailed) {
    if (session_.error() != RecordingError::kNone) return fail(session_.errorText());
    return early_.waiting() != 0 && fail(kErrNoServer);
  }
  if (live_) writeLiveSound();
  const PictureQueue::Dropped dropped = early_.dropped();
  if (dropped.pictures > 0)
    warn(std::to_string(dropped.pictures) +
         " pictures that came before the recorder was ready were dropped: they took more memory "
         "than there is for them");
  return true;
}

void ChannelRecorder::markDiscontinuity() {
  if (early_.isOpening()) {
    early_.markDiscontinuity();
  } else {
    session_.markDiscontinuity();
  }
}

uint64_t ChannelRecorder::picturesSoFar() const {
  return early_.isOpening() ? early_.waiting() : session_.statistics().pictures;
}

std::unique_ptr<MediaInput> ChannelRecorder::openInput(std::string* error) {
  return MediaInput::open(
      input_.input, request_.frameRate, [this] { return isIdle(); }, error);
}

// What goes on while pictures are waited for. True when nothing more is to be waited for.
bool ChannelRecorder::isIdle() {
  lastIdleUs_ = monotonicUs();
  watchClock();
  finishOpening(false);
  if (live_ && good_) {
    live_->idle(lastIdleUs_);
    writeLive();
  }
  if (sessionIsOpen() && session_.tick() != 0) fail(session_.errorText());
  if (soundSession_.isOpen() && soundSession_.tick() != 0) failSound(soundSession_.errorText());
  if (opened_) tellProgress();
  return stopAsked() || !good_;
}

void ChannelRecorder::watchClock() {
  if (!clock_) return;
  const ClockWatch::Verdict verdict = clockWatch_->look(ClockWatch::read());
  if (verdict == ClockWatch::Verdict::kSame) return;
  const int64_t step = clockWatch_->stepUs();
  clock_->setWallOffset(clockWatch_->offsetUs());
  start_ = PictureTime::fromMicros(start_.totalMicros() + step);
  if (early_.isOpening()) return early_.clockChanged(verdict, step);
  if (!session_.isOpen()) return;
  const bool known = verdict == ClockWatch::Verdict::kBecameKnown;
  if ((known ? session_.clockBecameKnown(step) : session_.clockStepped(step)) != 0)
    fail(session_.errorText());
  if (!soundSession_.isOpen()) return;
  if ((known ? soundSession_.clockBecameKnown(step) : soundSession_.clockStepped(step)) != 0)
    failSound(soundSession_.errorText());
}

// What an input is like is known once it is open.
void ChannelRecorder::prepare(MediaInput* input) {
  if (request_.sound) input->wantSound();
  if (!leftOutTold_) {
    for (const std::string& sentence : input->leftOut()) warn(input_.input + ": " + sentence);
  }
  leftOutTold_ = true;
  const bool counted = request_.times == TimesFrom::kStream || request_.start.has_value();
  const bool arrival = request_.times == TimesFrom::kArrival || input->isLive();
  if (clock_ || counted || !arrival) return;
  clock_.emplace(
      input->hasTimes() ? PictureClock::Stamps::kOfSource : PictureClock::Stamps::kCounted,
      clockWatch_.emplace(ClockWatch::read()).offsetUs());
  live_.emplace(&*clock_);
}

// Pictures go on without their sound.
void ChannelRecorder::failSound(const char* text) {
  warn(std::string("no more of its sound is recorded: ") + text);
  soundGood_ = false;
  soundSession_.close();
}

bool ChannelRecorder::openSound(const SoundFormat& format) {
  if (soundSession_.isOpen() && soundSession_.close() != 0) return false;
  SoundOptions options;
  options.format = soundFormat_ = format;
  options.channel = static_cast<int8_t>(input_.channel);
  options.segmentSeconds = request_.segmentSeconds;
  options.flushIntervalMs = request_.flushMs;
  hasSound_ = true;
  return soundSession_.open(options) == 0;
}

// Behind the pictures' session, which is to have a chunk in any case.
void ChannelRecorder::writeSound(const MediaSound& sound, const SoundFormat& format,
                                 PictureTime time) {
  if (!soundGood_ || !sessionIsOpen()) return;
  const bool open = soundSession_.isOpen() && format == soundFormat_;
  if (!open && !openSound(format)) return failSound(soundSession_.errorText());
  if (soundSession_.writeFrame(sound.frame.data(), sound.frame.size(), time, sound.samples) != 0)
    failSound(soundSession_.errorText());
}

void ChannelRecorder::writeLiveSound() {
  MediaSound sound;
  SoundFormat format;
  PictureTime time;
  // It waits where it is, as long as the pictures have room to.
  if (early_.isOpening() && early_.dropped().pictures == 0) return;
  while (live_->nextSound(&sound, &format, &time)) writeSound(sound, format, time);
}

void ChannelRecorder::takeSound(MediaInput* input) {
  MediaSound sound = input->takeSound();
  if (!live_) {
    const PictureTime time = clockTime(originUs_ + sound.timeUs);
    return writeSound(sound, input->soundFormat(), time);
  }
  live_->addSound(std::move(sound), input->soundFormat());
  writeLiveSound();
}

// Without it an endless source that produces faster than the clock would be recorded at its speed.
// The first picture is due at once, however far ahead of its presentation it is decoded.
void ChannelRecorder::pace(int64_t decodeUs) {
  if (!request_.realtime) return;
  const int64_t due = beganUs_ + originUs_ + decodeUs - firstDecodeUs_;
  for (int64_t wait = due - monotonicUs(); wait > 0 && !stopAsked(); wait = due - monotonicUs())
    usleep(static_cast<useconds_t>(std::min<int64_t>(wait, 500000)));
}

bool ChannelRecorder::write(const MediaPicture& picture, PictureTime presentation, int64_t atUs) {
  if (!events_.move(atUs, start_)) return fail(session_.errorText());
  const auto decodeOffset = static_cast<int32_t>(
      std::clamp<int64_t>(picture.decodeUs - picture.presentationUs, INT32_MIN, 0));
  if (session_.writePicture(picture.annexB.data(), picture.annexB.size(), presentation,
                            decodeOffset, picture.key) != 0)
    return fail(session_.errorText());
  endUs_ = std::max(endUs_, atUs + picture.durationUs);
  tellProgress();
  return true;
}

bool ChannelRecorder::recordPicture(const MediaPicture& picture) {
  pace(picture.decodeUs);
  const int64_t atUs = originUs_ + picture.presentationUs;
  return write(picture, clockTime(atUs), atUs);
}

bool ChannelRecorder::recordLive(MediaPicture picture) {
  // An input that never lets us wait does not ask us either.
  if (monotonicUs() - lastIdleUs_ > kIdleUs && isIdle()) return good_;
  live_->add(std::move(picture));
  return writeLive();
}

bool ChannelRecorder::writeLive() {
  MediaPicture picture;
  PictureTime time;
  while (live_->next(&picture, &time)) {
    if (!started_) start_ = time;
    started_ = true;
    const int64_t atUs = time.totalMicros() - start_.totalMicros();
    if (early_.isOpening()) {
      endUs_ = std::max(endUs_, atUs + picture.durationUs);
      early_.add(std::move(picture), time);
    } else if (!write(picture, time, atUs)) {
      return false;
    }
  }
  writeLiveSound();
  return true;
}

// Up to the input's end (true) or a failure of the input or the session.
bool ChannelRecorder::recordInput(MediaInput* input) {
  bool first = true;
  while (!stopAsked()) {
    MediaPicture picture;
    const MediaInput::Result result = input->next(&picture);
    // A stop interrupts the read of a live stream; that is no failure.
    if (result == MediaInput::Result::kError && !stopAsked()) return false;
    if (result == MediaInput::Result::kSound) {
      takeSound(input);
      continue;
    }
    if (result != MediaInput::Result::kPicture) return true;
    if (!early_.isOpening() && !session_.isOpen() && !openSession(*input)) return false;
    opened_ = true;
    if (first) firstDecodeUs_ = picture.decodeUs;
    first = false;
    if (!(live_ ? recordLive(std::move(picture)) : recordPicture(picture))) return false;
  }
  return true;
}

bool ChannelRecorder::recordPasses() {
  for (uint32_t pass = 0; pass < request_.loop && !stopAsked(); ++pass) {
    std::string error;
    const auto input = openInput(&error);
    if (input == nullptr) return stopAsked() || fail(error);
    prepare(input.get());
    if (pass == 0) {
      start_ = request_.start.value_or(PictureTime::fromMicros(wallUs()));
      beganUs_ = monotonicUs();
    }
    originUs_ = endUs_;
    const bool ended = recordInput(input.get());
    if (!good_) return false;
    if (live_) {
      live_->end();
      if (!writeLive() || !finishOpening(true)) return false;
    }
    if (!ended) return fail(input->error());
    if (!stopAsked() && session_.statistics().pictures == 0)
      return fail(input_.input + " holds no picture that a recording can begin with");
  }
  return true;
}

bool ChannelRecorder::pauseFor(int64_t pauseUs) {
  const int64_t end = monotonicUs() + pauseUs;
  while (!isIdle() && monotonicUs() < end) usleep(static_cast<useconds_t>(kIdleUs));
  return !stopAsked() && good_;
}

// A camera may be away, now and later; what was received is safe, and it is asked again and again.
bool ChannelRecorder::recordAddress() {
  int64_t pause = kFirstPauseUs;
  bool told = false;
  for (;;) {
    std::string error;
    const auto input = openInput(&error);
    if (input != nullptr) {
      prepare(input.get());
      const uint64_t before = picturesSoFar();
      if (told) warn(input_.input + " is there again");
      told = false;
      const bool ended = recordInput(input.get());
      if (live_) live_->end();
      if (!good_ || (live_ && !writeLive())) return false;
      error = input_.input + ": " + (ended ? "the stream has ended" : input->error());
      if (picturesSoFar() > before) pause = kFirstPauseUs;
      markDiscontinuity();
      if (soundSession_.isOpen() && soundSession_.markDiscontinuity() != 0)
        failSound(soundSession_.errorText());
    }
    if (stopAsked()) return true;
    if (!told) warn(error + "; trying again");
    told = true;
    if (!pauseFor(pause)) return good_;
    pause = std::min(2 * pause, kLongestPauseUs);
  }
}

void ChannelRecorder::endEvents() {
  if (good_ && !events_.end(endUs_, start_)) fail(session_.errorText());
  for (const std::string& sentence : events_.missed()) warn(sentence);
}

void ChannelRecorder::record() {
  if (MediaInput::isAddress(input_.input)) {
    recordAddress();
  } else {
    recordPasses();
  }
  finishOpening(true);
  endEvents();
  if (session_.isOpen() && session_.close() != 0) fail(session_.errorText());
  if (soundSession_.isOpen() && soundSession_.close() != 0) failSound(soundSession_.errorText());
  tellProgress();
}

bool ChannelRecorder::run() noexcept {
  try {
    record();
  } catch (const std::exception& error) {
    fail(error.what());
    early_.stop();
    early_.finish(true);
    session_.close();
    soundSession_.close();
  }
  return good_ && soundGood_;
}

ChannelRecording ChannelRecorder::recording() const {
  return {input_.channel,
          opened_,
          endUs_,
          events_.begun(),
          early_.isOpening() ? RecordingStatistics() : session_.statistics(),
          hasSound_,
          soundSession_.statistics()};
}

void ChannelRecorder::tellProgress() {
  const ChannelRecording now = recording();
  safePictures_ = now.statistics.confirmed + early_.received();
  listener_->progressed(now);
}

}  // namespace tarn
