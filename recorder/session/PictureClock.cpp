#include "recorder/session/PictureClock.h"

#include <algorithm>
#include <cstdlib>

namespace tarn {
namespace {

// The least delay is looked for in so many parts of the clock's time: a minute of a source's own
// stamps, in which 100 parts in a million make 6 ms; less of counted ones, whose rate may be wrong
// by much more.
constexpr int64_t kPartUs = 1000000;
constexpr int64_t kCountedPartUs = 50000;
// Stamps that fall by more, or that run ahead of the clock by more, have begun anew.
constexpr int64_t kStampStepUs = 1000000;
// Pictures that are later than this, and stay so for a time in which no network holds them back,
// too.
constexpr int64_t kLateUs = 500000;
constexpr int64_t kLateForUs = 10000000;
// Corrections are spread: no more than this part of the time from picture to picture.
constexpr int64_t kSlew = 50;
// No sound is further than this from the pictures that come with it.
constexpr int64_t kCompanionUs = 10000000;

}  // namespace

PictureClock::PictureClock(Stamps stamps, int64_t wallOffsetUs)
    : stamps_(stamps), wallOffsetUs_(wallOffsetUs) {}

void PictureClock::restart() {
  parts_.fill(Part());
  arrivals_ = late_ = asked_ = false;
}

int64_t PictureClock::partLength() const {
  return stamps_ == Stamps::kOfSource ? kPartUs : kCountedPartUs;
}

void PictureClock::addDelay(int64_t number, int64_t delayUs) {
  Part& newest = parts_[static_cast<size_t>(number) % parts_.size()];
  if (newest.number == number) {
    newest.delayUs = std::min(newest.delayUs, delayUs);
    leastUs_ = std::min(leastUs_, delayUs);
    return;
  }
  newest = {number, delayUs};
  const int64_t oldest = number - static_cast<int64_t>(parts_.size());
  leastUs_ = delayUs;
  for (const Part& part : parts_) {
    if (part.number >= 0 && part.number > oldest) leastUs_ = std::min(leastUs_, part.delayUs);
  }
}

bool PictureClock::begins(int64_t arrivalUs, int64_t stampUs) const {
  if (!arrivals_ || stamps_ == Stamps::kCounted) return false;
  if (stampUs < lastStampUs_ - kStampStepUs) return true;
  const int64_t delay = arrivalUs - stampUs;
  // A source may begin with pictures that have waited for us.
  if (settled() && delay < leastUs_ - kStampStepUs) return true;
  return late_ && delay - leastUs_ > kLateUs && arrivalUs - lateSinceUs_ > kLateForUs;
}

void PictureClock::receive(int64_t arrivalUs, int64_t stampUs) {
  const int64_t delay = arrivalUs - stampUs;
  const bool late = arrivals_ && delay - leastUs_ > kLateUs;
  if (late && !late_) lateSinceUs_ = arrivalUs;
  late_ = late;
  // Pictures are missing, or came late all at once: counted times know neither.
  if (stamps_ == Stamps::kCounted && arrivals_ && delay - leastUs_ > kCountedUs)
    parts_.fill(Part());
  if (!arrivals_) firstArrivalUs_ = arrivalUs;
  arrivals_ = true;
  lastArrivalUs_ = arrivalUs;
  lastStampUs_ = stampUs;
  addDelay(arrivalUs / partLength(), delay);
}

PictureTime PictureClock::timeOf(int64_t arrivalUs, int64_t stampUs) {
  if (!asked_) {
    delayUs_ = leastUs_;
  } else {
    const int64_t most = std::max<int64_t>(stampUs - askedStampUs_, 0) / kSlew;
    delayUs_ += std::clamp(leastUs_ - delayUs_, -most, most);
  }
  if (stamps_ == Stamps::kCounted) {
    const int64_t delay = arrivalUs - stampUs;
    delayUs_ = std::clamp(delayUs_, delay - kCountedUs, delay);
  }
  asked_ = true;
  askedStampUs_ = stampUs;
  toldUs_ = std::max(toldUs_, stampUs + delayUs_);
  return PictureTime::fromMicros(toldUs_ + wallOffsetUs_);
}

bool PictureClock::timeAt(int64_t stampUs, PictureTime* out) const {
  if (!asked_ || std::abs(stampUs - lastStampUs_) > kCompanionUs) return false;
  *out = PictureTime::fromMicros(stampUs + delayUs_ + wallOffsetUs_);
  return true;
}

}  // namespace tarn
