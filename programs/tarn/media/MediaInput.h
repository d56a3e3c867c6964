#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace tarn::tool {

// One coded picture as it came from the input, in decode order.
struct MediaPicture {
  std::vector<uint8_t> annexB;  // one access unit; key pictures carry their parameter sets
  int64_t presentationUs = 0;   // microseconds on the input's own time line, first picture near 0
  int64_t decodeUs = 0;         // the same of decoding; never after presentation
  int64_t durationUs = 0;       // how long it is shown, as far as the input tells; else one frame
  bool key = false;             // decoding can begin here (IDR)
};

// Video of any file that libavformat reads and whose video is H.264, or an Annex B stream.
// Pictures are passed on as they are, never re-encoded. Used by one thread.
class MediaInput {
 public:
  virtual ~MediaInput() = default;

  enum class Result { kPicture, kEnd, kError };
  // The next picture; on kError `error()` says why.
  virtual Result next(MediaPicture* out) = 0;

  const std::string& error() const { return error_; }
  double frameRate() const { return frameRate_; }  // pictures a second, 0 when not known
  int64_t bitRate() const { return bitRate_; }     // bits a second, 0 when not known
  // Length from the first picture to the end of the last, once the end was reached.
  int64_t lengthUs() const { return lengthUs_; }

  // Opens `path`; "-" is an Annex B stream on standard input. `frameRate` above 0 is used for
  // streams that carry no times (25 when the stream does not tell either). Null with *error set.
  static std::unique_ptr<MediaInput> open(const std::string& path, double frameRate,
                                          std::string* error);

 protected:
  std::string error_;
  double frameRate_ = 0;
  int64_t bitRate_ = 0;
  int64_t lengthUs_ = 0;
};

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

}  // namespace tarn::tool
