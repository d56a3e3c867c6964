#pragma once

#include <cstdint>

namespace tarn {

// Some pictures of one recording, back to back in the order of decoding: what a player asks for and
// appends at a time.
struct Piece {
  uint32_t streamID = 0;
  uint32_t first = 0;  // index in the recording
  uint32_t count = 0;
  uint32_t format = 0;  // the key picture at which its format begins; 0: the recording's first
  uint64_t bytes = 0;   // of its pictures
  int64_t fromUs = 0;   // when its first picture is shown
  int64_t toUs = 0;     // when what follows is shown or, at the end, its last picture goes
  bool key = false;     // it begins with a key picture
  bool discontinuity = false;  // something is missing in front of it, or it begins a recording

  uint32_t end() const { return first + count; }
};

}  // namespace tarn
