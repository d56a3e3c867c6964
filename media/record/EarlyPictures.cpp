#include "media/record/EarlyPictures.h"

#include <algorithm>
#include <utility>

#include "recorder/rows/ServerProbe.h"

namespace tarn {

EarlyPictures::~EarlyPictures() {
  stopped_ = true;
  if (thread_.joinable()) thread_.join();
}

void EarlyPictures::work(const RecordingOptions& options) {
  opened_ = awaitServer(stopped_) && !stopped_ && session_->open(options) == 0;
  over_ = true;
}

void EarlyPictures::open(const RecordingOptions& options) {
  over_ = opened_ = false;
  thread_ = std::thread([this, options] { work(options); });
}

void EarlyPictures::add(MediaPicture picture, PictureTime presentation) {
  const int64_t offset =
      std::clamp<int64_t>(picture.decodeUs - picture.presentationUs, INT32_MIN, 0);
  PictureQueue::Picture queued;
  queued.annexB = std::move(picture.annexB);
  queued.presentation = presentation;
  queued.decodeOffsetUs = static_cast<int32_t>(offset);
  queued.key = picture.key;
  ++received_;
  queue_.add(std::move(queued));
}

// What waits was timed by the clock of before, too: a correction of it is its own.
void EarlyPictures::clockChanged(ClockWatch::Verdict verdict, int64_t stepUs) {
  if (verdict == ClockWatch::Verdict::kSame) return;
  clock_ = verdict;
  clockStepUs_ = stepUs;
  if (verdict == ClockWatch::Verdict::kBecameKnown) queue_.moveTimes(stepUs);
}

bool EarlyPictures::handOver() {
  if (clock_ == ClockWatch::Verdict::kBecameKnown && session_->clockBecameKnown(clockStepUs_) != 0)
    return false;
  if (clock_ == ClockWatch::Verdict::kStepped && session_->clockStepped(clockStepUs_) != 0)
    return false;
  clock_ = ClockWatch::Verdict::kSame;
  return queue_.handOver(session_) == 0;
}

EarlyPictures::Outcome EarlyPictures::finish(bool wait) {
  if (!isOpening()) return Outcome::kDone;
  if (!over_ && !wait) return Outcome::kOpening;
  thread_.join();
  return opened_ && handOver() ? Outcome::kDone : Outcome::kFailed;
}

}  // namespace tarn
