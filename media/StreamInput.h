#pragma once

#include "base/UniqueFd.h"
#include "media/Av.h"
#include "media/MediaInput.h"
#include "media/ReorderDepth.h"
#include "media/StreamPreamble.h"

namespace tarn {

// Annex B byte stream without times, from a descriptor. Pictures are cut apart by the parser; their
// place in the order of presentation follows from their picture order count. As many pictures are
// held back for it as the stream says that its order needs, or as any stream may.
class StreamInput : public MediaInput {
 public:
  // Takes the descriptor over.
  static std::unique_ptr<MediaInput> open(int fd, double frameRate, StopAsked stopAsked,
                                          std::string* error);
  Result next(MediaPicture* out) override;

 private:
  struct Waiting {
    MediaPicture picture;
    int64_t order = 0;          // sequence of key pictures, then picture order count
    int64_t presentation = -1;  // place in the order of presentation, -1 while not known
  };
  ssize_t readBlock();
  // Reads until a picture is complete or the stream ends. False on a read error.
  bool readMore();
  void add(const uint8_t* data, int size);
  // Gives places to the pictures that no later one can precede.
  void settle(bool all);
  void takeFrameRate();
  void takeDepth(const std::vector<uint8_t>& keyPicture);
  void observeDepth();

  UniqueFd fd_;
  StopAsked stopAsked_ = nullptr;
  AvOwned<AVCodecContext> codec_;
  AvOwned<AVCodecParserContext> parser_;
  StreamPreamble preamble_;
  std::vector<uint8_t> block_;  // as read, with the padding that the parser wants
  std::deque<Waiting> waiting_;
  double givenRate_ = 0;
  bool ended_ = false;
  ReorderDepth depth_;
  int64_t lead_ = -1;             // pictures by which decoding runs ahead, -1 while not known
  int64_t sequence_ = 0;          // key pictures so far
  int64_t nextPresentation_ = 0;  // pictures that have a place
  int64_t nextDecode_ = 0;        // pictures handed out
};

}  // namespace tarn
