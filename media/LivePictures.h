#pragma once

#include <cstddef>
#include <deque>

#include "base/Export.h"
#include "media/MediaInput.h"
#include "recorder/card/PictureTime.h"
#include "recorder/session/PictureClock.h"

namespace tarn {

// Pictures of a live input on their way into a recording: they wait until the clock knows their
// times, a second at the most, and come out in the order in which they went in. Used by one thread.
// Throws std::bad_alloc when memory runs out.
class TARN_API LivePictures {
 public:
  // The clock outlives this.
  explicit LivePictures(PictureClock* clock) : clock_(clock) {}

  void add(MediaPicture picture);
  // Nothing comes just now (monotonic): what waits for a better time of its own waits no longer
  // than a clock takes to settle.
  void idle(int64_t nowUs);
  // The next picture whose time is known, with the wall time of its presentation. False when there
  // is none.
  bool next(MediaPicture* out, PictureTime* presentation);
  // The same of the sound that comes with the pictures: it takes its times from theirs.
  void addSound(MediaSound sound, SoundFormat format);
  bool nextSound(MediaSound* out, SoundFormat* format, PictureTime* time);
  // Nothing more is waited for: the input has ended. What is added next comes from a new one.
  void end();

 private:
  struct Held {
    MediaPicture picture;
    PictureTime decode;
  };
  struct HeldSound {
    MediaSound sound;
    SoundFormat format;
    PictureTime time;
  };
  void tellTimes();
  void tellSoundTimes();

  PictureClock* clock_;
  std::deque<Held> held_;
  size_t timed_ = 0;  // of them, from the front
  size_t bytes_ = 0;  // of those that are not
  std::deque<HeldSound> sounds_;
  size_t timedSounds_ = 0;
};

}  // namespace tarn
