#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {

// Collects frames into a block. Not part of the interface. Used by one thread.
class TARN_API SoundBlockBuilder {
 public:
  // What an empty builder's blocks are of; `format` isUsable().
  void setFormat(const SoundFormat& format) { format_ = format; }
  const SoundFormat& format() const { return format_; }

  bool isEmpty() const { return frames_ == 0; }
  uint32_t frames() const { return frames_; }
  PictureTime start() const { return start_; }
  int64_t micros() const;  // from the first frame to the end of the last
  // Of a block with one frame of this size more.
  size_t sizeWith(size_t frame) const;
  // Whether a frame that begins at `time` goes on where the last one ends, to a quarter of its
  // length.
  bool continues(PictureTime time, uint32_t samples) const;
  // The frame's own time counts for the first one only. `size` and `samples` below
  // kSoundFrameLimit.
  void add(const void* frame, size_t size, uint32_t samples, PictureTime time);
  // The block, valid until the next add().
  const std::vector<uint8_t>& bytes();
  void clear();

 private:
  SoundFormat format_;
  std::vector<uint8_t> bytes_;
  PictureTime start_;
  uint32_t frames_ = 0;
  uint64_t samples_ = 0;
};

}  // namespace tarn
