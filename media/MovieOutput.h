#pragma once

#include <memory>
#include <string>
#include <vector>

#include "media/Av.h"
#include "media/MediaOutput.h"

namespace tarn {

// An .mp4 or .mov file, with tracks of pictures and of sound. Not part of the interface.
class MovieOutput : public MediaOutput {
 public:
  // `muxer`: "mp4" or "mov". False with error() set.
  bool open(const char* muxer, const std::string& path, size_t tracks);

  bool describe(size_t track, const OutputPicture& first) override;
  bool write(const OutputPicture& picture, size_t track) override;
  bool describe(size_t track, const OutputSound& first) override;
  bool write(const OutputSound& sound, size_t track) override;

 private:
  struct MuxerDeleter {
    void operator()(AVFormatContext* context) const;
  };
  struct Track {
    AVStream* stream = nullptr;  // owned by muxer_
    PictureTime first;
    bool started = false;
    int64_t lastDts = 0;
    SoundFormat sound;  // of a track of sound
    int64_t next = 0;   // then: where the next frame goes on, in samples

    bool isSound() const { return sound.codec != SoundCodec::kUnknown; }
  };

  bool fail(const std::string& text);
  bool begin();
  PictureTime origin() const;
  void setDate(PictureTime time);
  bool addTrack(Track* track, PictureTime first);
  bool describe(AVCodecParameters* parameters, const OutputPicture& first);
  bool setExtradata(AVCodecParameters* parameters, const std::vector<uint8_t>& bytes);
  bool holds(SoundCodec codec) const;
  int64_t placeOf(const Track& track, const OutputSound& sound) const;
  bool writeSilence(Track* track, int64_t samples);
  bool writeFrame(Track* track, const uint8_t* data, size_t size, int64_t at, uint32_t samples);
  bool writePacket(const uint8_t* data, size_t size);
  bool complete() override;

  std::unique_ptr<AVFormatContext, MuxerDeleter> muxer_;
  bool quickTime_ = false;
  AvOwned<AVPacket> packet_;
  std::vector<Track> tracks_;
  bool headerWritten_ = false;
  int64_t originUs_ = 0;
};

}  // namespace tarn
