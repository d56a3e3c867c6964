#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <mutex>
#include <vector>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"

namespace tarn {

class RecordingSession;

// Coded pictures with their own times that wait in memory for a session: from the first second a
// recorder receives, while the start-up still rebuilds the database. When they need more than the
// limit the oldest go, up to the next key picture, so that what is left can be shown and goes on
// into the recording without a gap.
//
// Any thread may use it: an encoder's adds, the one of the session takes. Nothing throws; a picture
// for which there is no memory counts as dropped.
class TARN_API PictureQueue {
 public:
  static constexpr size_t kDefaultLimit = size_t{32} * 1024 * 1024;

  struct Picture {
    std::vector<uint8_t> annexB;  // one access unit
    PictureTime presentation;
    int32_t decodeOffsetUs = 0;  // decode time minus presentation time
    bool key = false;
    bool afterGap = false;  // pictures in front of it were dropped
  };

  // What went because of the limit. Pictures in front of the first key picture of all do not count:
  // no session takes them either.
  struct Dropped {
    uint64_t pictures = 0;
    uint64_t bytes = 0;
    PictureTime from;  // presentation of the first and of the last of them
    PictureTime to;
  };

  // `limitBytes`: most memory that the pictures take together.
  explicit PictureQueue(size_t limitBytes = kDefaultLimit) : limit_(limitBytes) {}

  // One picture in decode order, moved from. False when it was not kept.
  bool add(Picture picture);
  // What comes next follows a gap: it is kept from the next key picture on, and marked.
  void markDiscontinuity();
  // The oldest one. False when there is none.
  bool take(Picture* out);
  // Gives all to an open session, in order, says in the log what was dropped, and is empty then.
  // -1 once the session has failed; what it did not take stays.
  int handOver(RecordingSession* session);
  // The clock that the times come from was wrong: moves those of all that wait.
  void moveTimes(int64_t deltaUs);

  bool empty() const { return pictures() == 0; }
  size_t pictures() const;
  size_t bytes() const;  // memory that they take
  Dropped dropped() const;

 private:
  bool keep(Picture* picture);
  void makeRoom(size_t size);
  void dropFirst();
  void noteDropped(const Picture& picture);
  void tellDropped();

  const size_t limit_;
  mutable std::mutex mutex_;
  std::deque<Picture> held_;
  size_t bytes_ = 0;
  bool begun_ = false;  // a key picture was seen
  bool gap_ = false;    // what comes next follows pictures that were dropped
  Dropped dropped_;
  uint64_t toldPictures_ = 0;  // of dropped_, in the log
};

}  // namespace tarn
