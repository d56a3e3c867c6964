#pragma once

#include "media/Av.h"
#include "media/InputBytes.h"
#include "media/MediaInput.h"
#include "media/ReorderDepth.h"
#include "media/StreamPreamble.h"

namespace tarn {

// Annex B byte stream without times, from a descriptor. Pictures are cut apart by the parser; their
// place in the order of presentation follows from their picture order count. As many pictures are
// held back for it as the stream says that its order needs, or as any stream may.
class StreamInput : public MediaInput {
 public:
  static std::unique_ptr<MediaInput> open(std::unique_ptr<InputBytes> bytes, double frameRate,
                                          std::string* error);
  Result next(MediaPicture* out) override;

 private:
  struct Waiting {
    MediaPicture picture;
    int64_t order = 0;          // sequence of key pictures, then picture order count
    int64_t presentation = -1;  // place in the order of presentation, -1 while not known
  };
  // Reads until a picture is complete or the stream ends. False on a read error.
  bool readMore();
  void parse(const uint8_t* data, int size, int64_t now);
  void endPicture();
  void add(const uint8_t* data, int size);
  // Gives places to the pictures that no later one can precede.
  void settle(bool all);
  void takeFrameRate();
  void takeDepth(const std::vector<uint8_t>& keyPicture);
  void observeDepth();

  std::unique_ptr<InputBytes> bytes_;
  AvOwned<AVCodecContext> codec_;
  AvOwned<AVCodecParserContext> parser_;
  StreamPreamble preamble_;
  std::vector<uint8_t> block_;  // as read, with the padding that the parser wants
  std::deque<Waiting> waiting_;
  double givenRate_ = 0;
  bool ended_ = false;
  bool stalled_ = false;    // what was there has been taken for whole
  int delimiter_ = 0;       // bytes of ours in front of what the parser holds
  int64_t arrivalUs_ = -1;  // of the first bytes of the picture that is being read, -1 before them
  ReorderDepth depth_;
  int64_t lead_ = -1;             // pictures by which decoding runs ahead, -1 while not known
  int64_t sequence_ = 0;          // key pictures so far
  int64_t nextPresentation_ = 0;  // pictures that have a place
  int64_t nextDecode_ = 0;        // pictures handed out
};

}  // namespace tarn
