#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "media/Av.h"
#include "media/ContainerSound.h"
#include "media/MediaInput.h"

namespace tarn {

// The sound of a clip without pictures, frame by frame. Not part of the interface. Used by one
// thread.
class SoundClip {
 public:
  // False with error() set.
  bool open(const std::string& path);
  // The next frame; its time is counted from the first one. False at the end, and with error() set.
  bool next(MediaSound* sound);
  const SoundFormat& format() const { return soundFormat_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool read(MediaSound* sound);
  void shorten(MediaSound* last) const;

  AvOwned<AVFormatContext> format_;
  AvOwned<AVPacket> packet_;
  std::unique_ptr<ContainerSound> sound_;
  SoundFormat soundFormat_;
  MediaSound next_;
  bool waiting_ = false;  // next_ is a frame
  bool ended_ = false;
  bool begun_ = false;
  int64_t firstUs_ = 0;
  std::string error_;
};

}  // namespace tarn
