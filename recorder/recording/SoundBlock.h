#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "recorder/card/PictureTime.h"
#include "recorder/recording/SoundFormat.h"

// Sound as it lies in a stream chunk: where a picture would lie there is a block of frames that
// follow each other without a gap. Each block tells all that a decoder needs, so that any of them
// can be played without another one, and without the row. docs/format.md has the bytes.
namespace tarn {

// A frame is smaller than this, in bytes and in samples.
inline constexpr uint32_t kSoundFrameLimit = 65536;

// A frame in a block.
struct SoundFrame {
  const uint8_t* data = nullptr;  // into the block's bytes
  uint32_t size = 0;
  uint32_t samples = 0;  // how long it is, of each channel
  PictureTime time;      // when it begins
};

// Takes a block apart. Used by one thread.
class TARN_API SoundBlock {
 public:
  // Of a block's bytes, as RecordingReader::readPicture() gives them, which must outlive the
  // frames. False when they are no whole block; then there are no frames.
  bool decode(const void* bytes, size_t size);

  const SoundFormat& format() const { return format_; }
  PictureTime start() const { return start_; }
  const std::vector<SoundFrame>& frames() const { return frames_; }
  // Behind the last frame.
  PictureTime end() const;

  static constexpr uint32_t kHeadSize = 24;
  // Of the first kHeadSize bytes of a block: when its first frame begins. False where they do not
  // begin a block.
  static bool readStart(const void* head, PictureTime* start);

 private:
  PictureTime after(uint64_t samples) const;

  SoundFormat format_;
  PictureTime start_;
  uint64_t samples_ = 0;
  std::vector<SoundFrame> frames_;
};

}  // namespace tarn
