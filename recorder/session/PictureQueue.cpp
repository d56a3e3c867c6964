#include "recorder/session/PictureQueue.h"

#include <syslog.h>

#include <algorithm>
#include <utility>

#include "recorder/card/NoThrow.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RecordingSession.h"

namespace tarn {
namespace {

size_t memoryOf(const PictureQueue::Picture& picture) {
  return sizeof picture + picture.annexB.capacity();
}

}  // namespace

void PictureQueue::noteDropped(const Picture& picture) {
  if (dropped_.pictures == toldPictures_) dropped_.from = dropped_.to = picture.presentation;
  ++dropped_.pictures;
  dropped_.bytes += picture.annexB.size();
  if (picture.presentation < dropped_.from) dropped_.from = picture.presentation;
  if (dropped_.to < picture.presentation) dropped_.to = picture.presentation;
}

void PictureQueue::dropFirst() {
  noteDropped(held_.front());
  bytes_ -= memoryOf(held_.front());
  held_.pop_front();
}

// What follows a picture that is not there cannot be decoded, so it goes with it up to the next key
// picture.
void PictureQueue::makeRoom(size_t size) {
  while (!held_.empty() && bytes_ + size > limit_) {
    do {
      dropFirst();
    } while (!held_.empty() && !held_.front().key);
    if (held_.empty()) {
      gap_ = true;
    } else {
      held_.front().afterGap = true;
    }
  }
}

bool PictureQueue::keep(Picture* picture) {
  begun_ = begun_ || picture->key;
  if (!begun_) return false;
  const size_t size = memoryOf(*picture);
  if (size <= limit_) makeRoom(size);
  if (size > limit_ || (gap_ && !picture->key)) {
    gap_ = true;
    noteDropped(*picture);
    return false;
  }
  picture->afterGap = gap_;
  held_.push_back(std::move(*picture));
  bytes_ += size;
  gap_ = false;
  return true;
}

bool PictureQueue::add(Picture picture) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const bool first = dropped_.pictures == toldPictures_;
  const bool kept = orNoMemory(
      "PictureQueue", [&] { return keep(&picture); },
      [&] {
        gap_ = true;
        noteDropped(picture);
        return false;
      });
  if (first && dropped_.pictures > toldPictures_) syslog(LOG_WARNING, kMsgQueueFull, limit_ / 1024);
  return kept;
}

void PictureQueue::markDiscontinuity() {
  const std::lock_guard<std::mutex> lock(mutex_);
  gap_ = true;
}

bool PictureQueue::take(Picture* out) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (held_.empty()) return false;
  bytes_ -= memoryOf(held_.front());
  *out = std::move(held_.front());
  held_.pop_front();
  return true;
}

void PictureQueue::tellDropped() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (dropped_.pictures == toldPictures_) return;
  syslog(LOG_WARNING, kMsgQueueDropped, dropped_.pictures - toldPictures_, dropped_.from.seconds,
         unsigned{dropped_.from.milliseconds()}, dropped_.to.seconds,
         unsigned{dropped_.to.milliseconds()});
  toldPictures_ = dropped_.pictures;
}

int PictureQueue::handOver(RecordingSession* session) {
  Picture picture;
  while (take(&picture)) {
    if (picture.afterGap) session->markDiscontinuity();
    if (session->writePicture(picture.annexB.data(), picture.annexB.size(), picture.presentation,
                              picture.decodeOffsetUs, picture.key) != 0)
      return -1;
  }
  tellDropped();
  return 0;
}

void PictureQueue::moveTimes(int64_t deltaUs) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto moved = [deltaUs](PictureTime time) {
    return PictureTime::fromMicros(time.totalMicros() + deltaUs);
  };
  for (Picture& picture : held_) picture.presentation = moved(picture.presentation);
  if (dropped_.pictures == toldPictures_) return;
  dropped_.from = moved(dropped_.from);
  dropped_.to = moved(dropped_.to);
}

size_t PictureQueue::pictures() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return held_.size();
}

size_t PictureQueue::bytes() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return bytes_;
}

PictureQueue::Dropped PictureQueue::dropped() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return dropped_;
}

}  // namespace tarn
