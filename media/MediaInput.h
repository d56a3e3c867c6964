#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/Export.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {

// One coded picture as it came from the input, in decode order.
struct MediaPicture {
  std::vector<uint8_t> annexB;  // one access unit; key pictures carry their parameter sets
  int64_t presentationUs = 0;   // microseconds on the input's own time line, first picture near 0
  int64_t decodeUs = 0;         // the same of decoding; never after presentation
  int64_t durationUs = 0;       // how long it is shown, as far as the input tells; else one frame
  bool key = false;             // decoding can begin here (IDR)
  int64_t arrivalUs = 0;        // monotonic, when it was received; see PictureClock
};

// One frame of the sound that belongs to the pictures, as it came.
struct MediaSound {
  std::vector<uint8_t> frame;
  int64_t timeUs = 0;  // when it begins, on the time line of the pictures; may be before the first
  uint32_t samples = 0;   // how long it is, of each channel
  int64_t arrivalUs = 0;  // as of pictures
};

// Whether to stop. Asked a few times a second while an input is waited for, in the thread that
// reads it: the place for whatever must go on meanwhile, as RecordingSession::tick().
using StopAsked = std::function<bool()>;

// Video of any file or stream that libavformat reads and whose video is H.264, or an Annex B
// stream. Pictures are passed on as they are, never re-encoded. Used by one thread. Throws
// std::bad_alloc when memory runs out.
class TARN_API MediaInput {
 public:
  virtual ~MediaInput() = default;

  enum class Result { kPicture, kEnd, kError, kSound };
  // The next picture; on kError `error()` says why. kSound comes only behind the first picture, and
  // only after wantSound(): takeSound() has a frame then, and *out is left alone.
  virtual Result next(MediaPicture* out) = 0;

  // The input's sound shall come, too: AAC, G.711 or Opus, as it is. Before the first next(). False
  // when there is none that can be recorded; leftOut() says what there is instead.
  virtual bool wantSound() { return false; }
  // After kSound.
  MediaSound takeSound() { return std::move(sound_); }
  // Of the frame that was taken last. Cameras may change it.
  const SoundFormat& soundFormat() const { return soundFormat_; }

  const std::string& error() const { return error_; }
  double frameRate() const { return frameRate_; }  // pictures a second, 0 when not known
  int64_t bitRate() const { return bitRate_; }     // bits a second, 0 when not known
  // Pictures come when they are taken: a pipe, or a camera on the network.
  bool isLive() const { return live_; }
  // Whether its times are the source's own. Without, they are counted from the pictures.
  bool hasTimes() const { return hasTimes_; }
  // What it has besides the pictures and what is not read, one sentence each: sound, a rotation.
  const std::vector<std::string>& leftOut() const { return leftOut_; }
  // Length from the first picture to the end of the last, once the end was reached.
  int64_t lengthUs() const { return lengthUs_; }

  // Opens `path`: a file; "-", an Annex B stream or a transport stream, Matroska and the like on
  // standard input; or an address that isAddress(), over TCP unless isOverUdp(). `frameRate` above
  // 0 is used for streams that carry no times (25 when the stream does not tell either). Null with
  // *error set. Where the input is a stream, opening and reading end as an error once `stopAsked`
  // says so, and a camera that has sent nothing for ten seconds is gone.
  static std::unique_ptr<MediaInput> open(const std::string& path, double frameRate,
                                          StopAsked stopAsked, std::string* error);
  // An rtsp://, rtsps:// or rtsp+udp:// address; anything else names a file.
  static bool isAddress(const std::string& path);
  // A camera that is asked to send its packets by UDP, as rtsp+udp://. What the network loses then
  // is missing in the recording; over TCP it comes late.
  static bool isOverUdp(const std::string& address);

 protected:
  std::string error_;
  double frameRate_ = 0;
  int64_t bitRate_ = 0;
  int64_t lengthUs_ = 0;
  bool live_ = false;
  bool hasTimes_ = false;
  std::vector<std::string> leftOut_;
  MediaSound sound_;
  SoundFormat soundFormat_;
};

}  // namespace tarn
