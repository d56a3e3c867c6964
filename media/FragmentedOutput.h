#pragma once

#include <memory>
#include <string>

#include "media/FragmentedMovie.h"
#include "media/MediaOutput.h"
#include "media/OutputFile.h"

namespace tarn {

// An .mp4 or .mov in fragments, whose gaps may be of any length. Not part of the interface.
class FragmentedOutput : public MediaOutput {
 public:
  // As MovieOutput::open().
  bool open(const char* kind, const std::string& path, size_t tracks);

  bool describe(size_t track, const OutputPicture& first) override;
  bool write(const OutputPicture& picture, size_t track) override;
  bool describe(size_t track, const OutputSound& first) override;
  bool write(const OutputSound& sound, size_t track) override;

 private:
  bool told(bool good);
  bool complete() override;

  OutputFile file_;
  FragmentedMovie movie_;
};

}  // namespace tarn
