#pragma once

#include <cstdint>
#include <vector>

namespace tarn {

// Remembers what a decoder has to know of a stream before its first picture and gives it to key
// pictures that come without, so that every key picture can begin a recording: the parameter sets,
// and the encoder's note about itself, by which decoders allow for the faults of old encoders.
// Encoders may send either only once, and the ring deletes a stream's beginning first.
class StreamPreamble {
 public:
  // Looks at a picture, and completes it when it is a key picture.
  void complete(std::vector<uint8_t>* annexB, bool key);

 private:
  std::vector<uint8_t> parameterSets_;  // start codes included, as everywhere here
  std::vector<uint8_t> encoderNotes_;
};

}  // namespace tarn
