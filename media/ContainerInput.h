#pragma once

#include "media/Av.h"
#include "media/ContainerSound.h"
#include "media/InputBytes.h"
#include "media/MediaInput.h"
#include "media/StreamPreamble.h"

namespace tarn {

// H.264 video of a container file, of a container on a pipe or of an address, with times of its
// own.
class ContainerInput : public MediaInput {
 public:
  static std::unique_ptr<MediaInput> open(const std::string& path, double frameRate,
                                          StopAsked stopAsked, std::string* error);
  static std::unique_ptr<MediaInput> open(std::unique_ptr<InputBytes> bytes, double frameRate,
                                          StopAsked stopAsked, std::string* error);
  Result next(MediaPicture* out) override;
  bool wantSound() override;

 private:
  // Opens `url`, or what bytes_ gives, and chooses its video. `name` is what messages call it.
  bool openFormat(const std::string& url, const std::string& name, std::string* error);
  bool chooseVideo(const std::string& name, std::string* error);
  bool begin(double frameRate, std::string* error);
  void noteLeftOut();
  static std::string soundLeftOutText(const AVStream& stream);
  bool takesSound();
  static int readBytes(void* self, uint8_t* out, int size);
  static int interrupted(void* self);
  int openFilter(std::string* error);
  // The next packet of the video as a byte stream; 0, kSoundCame where sound came first,
  // AVERROR_EOF or another error.
  int nextPacket();
  // Reads one more picture into waiting_; as nextPacket().
  int readMore();
  void addPacket();
  // Pictures wait while the container has not told a decode time yet: some tell it only from the
  // first reordered picture on.
  bool firstIsTimed() const;
  void backfillDecodeTimes(int64_t nextDecodeUs);

  static constexpr int kSoundCame = 1;

  StopAsked stopAsked_;
  std::unique_ptr<InputBytes> bytes_;  // of a container on standard input
  AvOwned<AVIOContext> io_;            // which reads them
  AvOwned<AVFormatContext> format_;
  AvOwned<AVBSFContext> filter_;
  AvOwned<AVPacket> packet_;
  AVStream* stream_ = nullptr;  // owned by format_
  std::unique_ptr<ContainerSound> containerSound_;
  StreamPreamble preamble_;
  std::deque<MediaPicture> waiting_;
  bool started_ = false;  // a picture told its time
  uint64_t count_ = 0;    // pictures so far
  bool given_ = false;    // a picture
  bool draining_ = false;
  bool ended_ = false;
  bool decodeTimesKnown_ = false;
  int64_t originUs_ = 0;  // presentation time of the first picture
  int64_t lastPresentationUs_ = 0;
};

}  // namespace tarn
