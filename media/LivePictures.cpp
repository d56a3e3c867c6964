#include "media/LivePictures.h"

#include <utility>

namespace tarn {
namespace {

// An input that brings more than this in a second is no camera; nothing is learned by waiting.
constexpr size_t kMostHeld = 250;
constexpr size_t kMostBytes = 4 * 1024 * 1024;
// Frames of sound whose pictures do not come.
constexpr size_t kMostSounds = 2000;

}  // namespace

void LivePictures::add(MediaPicture picture) {
  if (clock_->begins(picture.arrivalUs, picture.decodeUs)) end();
  clock_->receive(picture.arrivalUs, picture.decodeUs);
  bytes_ += picture.annexB.size();
  held_.push_back({std::move(picture), PictureTime()});
  if (clock_->settled() || held_.size() - timed_ > kMostHeld || bytes_ > kMostBytes) tellTimes();
}

void LivePictures::idle(int64_t nowUs) {
  if (timed_ == held_.size()) return;
  if (nowUs - held_[timed_].picture.arrivalUs >= PictureClock::kSettleUs) tellTimes();
}

void LivePictures::tellTimes() {
  for (; timed_ < held_.size(); ++timed_) {
    Held& held = held_[timed_];
    held.decode = clock_->timeOf(held.picture.arrivalUs, held.picture.decodeUs);
  }
  bytes_ = 0;
  tellSoundTimes();
}

void LivePictures::addSound(MediaSound sound, SoundFormat format) {
  if (sounds_.size() - timedSounds_ >= kMostSounds)
    sounds_.erase(sounds_.begin() + static_cast<std::ptrdiff_t>(timedSounds_));
  sounds_.push_back({std::move(sound), std::move(format), PictureTime()});
  tellSoundTimes();
}

// In their order. What is in front of a frame that has its time and has none itself belongs to no
// picture.
void LivePictures::tellSoundTimes() {
  for (size_t i = timedSounds_; i < sounds_.size(); ++i) {
    if (!clock_->timeAt(sounds_[i].sound.timeUs, &sounds_[i].time)) continue;
    sounds_.erase(sounds_.begin() + static_cast<std::ptrdiff_t>(timedSounds_),
                  sounds_.begin() + static_cast<std::ptrdiff_t>(i));
    i = timedSounds_++;
  }
}

bool LivePictures::nextSound(MediaSound* out, SoundFormat* format, PictureTime* time) {
  if (timedSounds_ == 0) return false;
  *out = std::move(sounds_.front().sound);
  *format = std::move(sounds_.front().format);
  *time = sounds_.front().time;
  sounds_.pop_front();
  --timedSounds_;
  return true;
}

void LivePictures::end() {
  tellTimes();
  clock_->restart();
}

bool LivePictures::next(MediaPicture* out, PictureTime* presentation) {
  if (timed_ == 0) return false;
  *out = std::move(held_.front().picture);
  *presentation = PictureTime::fromMicros(held_.front().decode.totalMicros() + out->presentationUs -
                                          out->decodeUs);
  held_.pop_front();
  --timed_;
  return true;
}

}  // namespace tarn
