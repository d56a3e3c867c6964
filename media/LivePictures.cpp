#include "media/LivePictures.h"

#include <utility>

namespace tarn {
namespace {

// An input that brings more than this in a second is no camera; nothing is learned by waiting.
constexpr size_t kMostHeld = 250;
constexpr size_t kMostBytes = 4 * 1024 * 1024;

}  // namespace

void LivePictures::add(MediaPicture picture) {
  if (clock_->begins(picture.arrivalUs, picture.decodeUs)) end();
  clock_->receive(picture.arrivalUs, picture.decodeUs);
  bytes_ += picture.annexB.size();
  held_.push_back({std::move(picture), PictureTime()});
  if (clock_->settled() || held_.size() - timed_ > kMostHeld || bytes_ > kMostBytes) tellTimes();
}

void LivePictures::tellTimes() {
  for (; timed_ < held_.size(); ++timed_) {
    Held& held = held_[timed_];
    held.decode = clock_->timeOf(held.picture.arrivalUs, held.picture.decodeUs);
  }
  bytes_ = 0;
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
