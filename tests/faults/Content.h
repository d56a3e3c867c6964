#pragma once

#include <cstdint>
#include <vector>

#include "recorder/card/PictureTime.h"

// What the rig records: every picture tells what it is, so that each one that comes back shows
// where it belongs, and no two are alike.
namespace faults {

inline constexpr uint32_t kRate = 25;   // pictures a second
inline constexpr uint32_t kGroup = 10;  // pictures from one key picture to the next
inline constexpr uint32_t kFlushPictures = 5;

struct Stamp {
  uint32_t session = 0, channel = 0, index = 0;
  bool operator==(const Stamp& o) const {
    return session == o.session && channel == o.channel && index == o.index;
  }
};

inline bool isKeyPicture(uint32_t index) { return index % kGroup == 0; }
std::vector<uint8_t> pictureBytes(const Stamp& stamp);
tarn::PictureTime pictureTime(uint32_t session, uint32_t index);
// Pictures of a recording of the clip.
inline constexpr uint32_t kClipRow = 10;
// Whether a recording is of the clip of real video, which says nothing of itself: it begins between
// those of sessions.
inline bool isClip(uint32_t startDate) {
  constexpr uint32_t kFrom = 1700020000;
  constexpr uint32_t kTo = 1700050000;
  return startDate >= kFrom && startDate < kTo;
}
// What a picture says of itself; false when it says nothing.
bool readStamp(const std::vector<uint8_t>& bytes, Stamp* stamp);

}  // namespace faults
