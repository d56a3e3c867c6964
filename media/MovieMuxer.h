#pragma once

#include <memory>
#include <string>
#include <vector>

#include "media/Av.h"
#include "media/MediaOutput.h"

namespace tarn {

// Tracks of pictures and of sound in a movie of the kind .mp4 or .mov: what describes them, and
// where in time each piece stands. What a movie is written to, and in which parts, is its heirs'
// matter. Used by one thread. Not part of the interface.
class MovieMuxer {
 public:
  virtual ~MovieMuxer() = default;
  MovieMuxer(const MovieMuxer&) = delete;
  MovieMuxer& operator=(const MovieMuxer&) = delete;

  // As of a MediaOutput.
  bool describe(size_t track, const OutputPicture& first);
  bool write(const OutputPicture& picture, size_t track);
  bool describe(size_t track, const OutputSound& first);
  bool write(const OutputSound& sound, size_t track);

  const std::string& error() const { return error_; }

 protected:
  MovieMuxer() = default;
  // `kind`: "mp4" or "mov"; `name` is what errors call the movie. False with error() set.
  bool create(const char* kind, const std::string& name, size_t tracks);
  AVFormatContext* muxer() const { return muxer_.get(); }
  bool fail(const std::string& text);
  bool failWith(const char* what, int code);

  // The first piece of all tracks of sound, or of pictures, as it is heard or shown; null where
  // there are none.
  const PictureTime* earliest(bool sound) const;
  // When the first piece of all is decoded, in microseconds since 1970; INT64_MAX where none is.
  int64_t earliestDecodeUs() const;
  // Where a movie in one part begins: with its pictures, or with sound that is long before them.
  int64_t firstShownUs() const;
  bool isSound(size_t stream) const;
  // Writes the header with these options of the muxer, which are freed; a time scale of pictures
  // among them takes the place of microseconds. All times count from
  // `originUs`, in microseconds since 1970.
  bool writeHeader(int64_t originUs, AVDictionary* options);
  bool begun() const { return begun_; }
  // Puts a muxer in place of the one at hand that has the same tracks and knows of nothing that was
  // written, its header included. False with error() set.
  bool renew();

  // Whether silence stands where no G.711 was recorded: in a movie in one part its samples have no
  // times of their own.
  virtual bool fillsGaps() const { return true; }
  // Writes the header, before the first piece.
  virtual bool begin() = 0;
  // Takes a piece with all its times, in its stream's time base; the data are only lent.
  virtual bool put(AVPacket* piece) = 0;

 private:
  struct Track {
    AVStream* stream = nullptr;  // owned by muxer_
    PictureTime first;
    int64_t firstDecodeUs = 0;
    bool started = false;
    int64_t lastDts = 0;
    SoundFormat sound;  // of a track of sound
    int64_t next = 0;   // then: where the next frame goes on, in samples

    bool isSound() const { return sound.codec != SoundCodec::kUnknown; }
  };
  struct MuxerDeleter {
    void operator()(AVFormatContext* context) const { avformat_free_context(context); }
  };

  bool allocate();
  bool addTrack(Track* track, PictureTime first, int32_t decodeOffsetUs);
  bool describe(AVCodecParameters* parameters, const OutputPicture& first);
  bool setExtradata(AVCodecParameters* parameters, const std::vector<uint8_t>& bytes);
  bool holds(SoundCodec codec) const;
  void setDate(int64_t originUs);
  int64_t placeOf(const Track& track, const OutputSound& sound) const;
  bool writeSilence(Track* track, int64_t samples);
  bool writeFrame(Track* track, const uint8_t* data, size_t size, int64_t at, uint32_t samples);
  bool lend(const uint8_t* data, size_t size);

  std::unique_ptr<AVFormatContext, MuxerDeleter> muxer_;
  std::string kind_;
  bool quickTime_ = false;
  std::string name_;
  AvOwned<AVPacket> packet_;
  std::vector<Track> tracks_;
  bool begun_ = false;
  int64_t originUs_ = 0;
  std::string error_;
};

}  // namespace tarn
