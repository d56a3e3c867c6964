#pragma once

#include <memory>
#include <string>

#include "media/MediaOutput.h"
#include "media/MovieMuxer.h"

namespace tarn {

// An .mp4 or .mov file, with tracks of pictures and of sound. Not part of the interface.
class MovieOutput : public MediaOutput {
 public:
  // Of a track, in microseconds; what 31 bits of them hold is 35 minutes.
  static constexpr int64_t kMostGapUs = int64_t{30} * 60 * 1000000;

  // `kind`: "mp4" or "mov". False with error() set.
  bool open(const char* kind, const std::string& path, size_t tracks);

  bool describe(size_t track, const OutputPicture& first) override;
  bool write(const OutputPicture& picture, size_t track) override;
  bool describe(size_t track, const OutputSound& first) override;
  bool write(const OutputSound& sound, size_t track) override;

 private:
  class File;

  bool told(bool good);
  bool complete() override;

  std::shared_ptr<File> file_;
};

}  // namespace tarn
