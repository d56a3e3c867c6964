#pragma once

#include <cstddef>
#include <cstdint>

#include "recorder/session/RecordingSpace.h"

namespace tarn {

// How much room the next pictures need, learnt from the groups of pictures so far. Used by its
// session's thread.
class GopRoom {
 public:
  // `bitrate`: bits a second, a first guess until a group has been seen; 0 when not known.
  void setBitrate(uint32_t bitrate) { bitrate_ = bitrate; }
  // Blocks of sound, each of which stands alone.
  void setSound() { sound_ = true; }
  // A picture was written, of `size` bytes without our time stamp unit.
  void add(size_t size, bool key);
  // Room for about two groups, and for a picture of `picture` bytes at least, in chunks of these
  // sizes.
  RecordingSpace::Need need(size_t picture, uint32_t streamChunk, uint32_t pictureChunk) const;

 private:
  bool sound_ = false;
  uint32_t bitrate_ = 0;
  uint32_t bytes_ = 0;  // of the group at hand
  uint32_t pictures_ = 0;
  uint32_t mostBytes_ = 0;
  uint32_t mostPictures_ = 0;
};

}  // namespace tarn
