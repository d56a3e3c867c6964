#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {

// One picture to be written, in decode order.
struct OutputPicture {
  std::vector<uint8_t> annexB;
  PictureTime presentation;
  int32_t decodeOffsetUs = 0;  // decode time minus presentation time
  bool key = false;
};

// One frame of sound to be written.
struct OutputSound {
  SoundFormat format;
  std::vector<uint8_t> frame;
  PictureTime time;      // when it begins
  uint32_t samples = 0;  // how long it is, of each channel
};

// File that exported pictures go to: an .mp4 or .mov with each picture's time, or a bare .h264
// stream. The file appears under its name only when finish() succeeds; until then, and after a
// failure, it is NAME.part, which the destructor removes. Used by one thread. Throws std::bad_alloc
// when memory runs out.
class TARN_API MediaOutput {
 public:
  virtual ~MediaOutput();

  // The format follows from the ending, .mp4, .mov or .h264, in capitals or not; "-" is standard
  // output, where what was written stays also after a failure. Refuses an existing file unless
  // `overwrite`. A file of several tracks must not be .h264. Null with *error set.
  static std::unique_ptr<MediaOutput> create(const std::string& path, bool overwrite,
                                             std::string* error, size_t tracks = 1);
  // The same of pictures and sound with gaps of up to `longestGapUs` microseconds: above half an
  // hour the movie is one in fragments, since no piece of another lasts as long as 36 minutes. A
  // longer gap than was told is an error of write().
  static std::unique_ptr<MediaOutput> create(const std::string& path, bool overwrite,
                                             std::string* error, size_t tracks,
                                             int64_t longestGapUs);

  // Of a file of several tracks, before anything is written, of each track: its first picture,
  // which is a key picture with its parameter sets. False with error() set.
  virtual bool describe(size_t track, const OutputPicture& first) = 0;
  // The first picture of a track must be a key picture with its parameter sets. Tracks may take
  // turns in any way. False with error() set.
  virtual bool write(const OutputPicture& picture, size_t track = 0) = 0;
  // The same of a track of sound, which takes no pictures, and which is described before anything
  // is written. An .mp4 holds AAC and Opus, a .mov AAC and G.711. Frames that follow each other to
  // half of their length are written without a gap; G.711 has silence in its gaps. Frames of
  // another format than the first are refused.
  virtual bool describe(size_t track, const OutputSound& first) = 0;
  virtual bool write(const OutputSound& sound, size_t track) = 0;
  // Completes the file, flushes it and gives it its name. False with error() set.
  bool finish();

  const std::string& error() const { return error_; }

 protected:
  virtual bool complete() = 0;
  // The name that the file is to have. False with error() set where a file has it already.
  bool takeName(const std::string& path, bool overwrite);

  std::string path_;
  std::string partPath_;
  std::string error_;
};

}  // namespace tarn
