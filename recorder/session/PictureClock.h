#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

// Times of a live source's pictures. A picture's time is when it arrived, by the monotonic clock
// plus the offset of the wall clock, smoothed by the source's own stamps where it has some (RTP, a
// container): what the network delays does not show, and the source's clock may go wrong by some
// hundred parts in a million without an error that grows.
//
// Stamps tell the distance from picture to picture, the least delayed pictures of the last minute
// where on the clock that is. A source that stalls and goes on with its stamps, or whose pictures
// come late all at once, moves nothing. Where there are no stamps their place is taken by times
// counted from the number of pictures: these are never further than kCountedUs from the arrival.
//
// All times in microseconds. Each picture, in decode order: begins(), receive(), and once settled()
// timeOf(). Allocates nothing, throws nothing, needs no media library. Used by one thread at a
// time.
class TARN_API PictureClock {
 public:
  enum class Stamps {
    kOfSource,  // by the source's own clock
    kCounted,   // made from the number of pictures: they know nothing of missing ones
  };
  // How long a source is listened to before its times are fit to be used: a first picture that was
  // delayed tells too late a time.
  static constexpr int64_t kSettleUs = 1000000;
  // How far a counted time may be before its picture's arrival.
  static constexpr int64_t kCountedUs = 100000;

  // `wallOffsetUs`: wall clock minus monotonic clock.
  PictureClock(Stamps stamps, int64_t wallOffsetUs);

  // Whether a picture with this stamp cannot belong to those before it: the source's clock began
  // anew. The caller asks for the times that it still wants, then calls restart().
  bool begins(int64_t arrivalUs, int64_t stampUs) const;
  // A picture with this stamp (of decoding, any origin) arrived at `arrivalUs` (monotonic, never
  // falling).
  void receive(int64_t arrivalUs, int64_t stampUs);
  // Whether enough was received for good times.
  bool settled() const { return arrivals_ && lastArrivalUs_ - firstArrivalUs_ >= kSettleUs; }
  // Wall time of a picture that was received, in their order. Never falls, but for the wall clock's
  // own steps.
  PictureTime timeOf(int64_t arrivalUs, int64_t stampUs);

  // Wall time of a moment by the source's own clock, as that of a frame of sound that belongs to
  // the pictures. False as long as no picture's time was told since the start or restart(), and of
  // a stamp that is none of this clock's.
  bool timeAt(int64_t stampUs, PictureTime* out) const;

  // The wall clock was set.
  void setWallOffset(int64_t wallOffsetUs) { wallOffsetUs_ = wallOffsetUs; }
  int64_t wallOffset() const { return wallOffsetUs_; }
  // What comes next is a new source, as a connection made anew. Its times do not fall behind those
  // of before.
  void restart();

 private:
  // Least delay (arrival minus stamp) of the pictures of a part of the last minute.
  struct Part {
    int64_t number = -1;  // counted from the clock's 0; -1: none
    int64_t delayUs = 0;
  };
  int64_t partLength() const;
  void addDelay(int64_t number, int64_t delayUs);

  Stamps stamps_;
  int64_t wallOffsetUs_;
  std::array<Part, 60> parts_{};
  int64_t leastUs_ = 0;  // of them all
  bool arrivals_ = false;
  int64_t firstArrivalUs_ = 0;
  int64_t lastArrivalUs_ = 0;
  int64_t lastStampUs_ = 0;  // received
  bool late_ = false;        // all since lateSinceUs_ came far too late
  int64_t lateSinceUs_ = 0;
  bool asked_ = false;
  int64_t delayUs_ = 0;       // in use: told (monotonic) time minus stamp
  int64_t askedStampUs_ = 0;  // of the picture whose time was told last
  int64_t toldUs_ = 0;        // the greatest time told, monotonic
};

}  // namespace tarn
