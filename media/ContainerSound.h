#pragma once

#include <cstdint>
#include <deque>
#include <memory>

#include "media/Av.h"
#include "media/MediaInput.h"

namespace tarn {

// The sound of a container, beside its video: frames as they are recorded, with all that a decoder
// needs. Not part of the interface. Used by one thread.
class ContainerSound {
 public:
  // The sound that goes with the video, of those that can be recorded; null when there is none.
  static std::unique_ptr<ContainerSound> choose(AVFormatContext* format, const AVStream& video);

  const AVStream* stream() const { return stream_; }
  bool isOf(const AVPacket& packet) const { return packet.stream_index == stream_->index; }
  // Takes the packet. True when it gave a frame.
  bool add(AVPacket* packet);
  // The next frame, with its time counted from `originUs`. False when there is none.
  bool next(int64_t originUs, MediaSound* out, SoundFormat* format);

 private:
  struct Waiting {
    MediaSound sound;
    SoundFormat format;
  };

  bool prepare();
  void take(const AVPacket& packet);
  void push(const uint8_t* data, size_t size, uint32_t samples, int64_t timeUs);
  uint32_t samplesOf(const AVPacket& packet) const;

  AVStream* stream_ = nullptr;    // owned by the input
  AvOwned<AVBSFContext> filter_;  // of AAC whose frames have headers of their own
  AvOwned<AVPacket> packet_;
  SoundFormat format_;
  int64_t endUs_ = 0;  // of the last frame
  std::deque<Waiting> waiting_;
};

}  // namespace tarn
