#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media/FragmentedMovie.h"
#include "media/serve/BodyStream.h"
#include "media/serve/PieceWalker.h"
#include "media/serve/SoundMaker.h"
#include "media/serve/WritersFirst.h"

namespace tarn {

// A period of a channel as an .mp4, made picture by picture while it is sent: no file of it is
// anywhere, and memory holds one group of pictures with their sound. Used by one thread.
class ExportStream : public BodyStream {
 public:
  // The channel's recordings of sound, and the format of what comes along of them.
  struct SoundToo {
    SoundFormat format;  // kUnknown: none does
    std::vector<DB_STREAM> rows;
  };
  // G.711 is sound that a .mov holds and an .mp4 does not.
  static bool needsQuickTime(const SoundToo& sound) {
    return sound.format.codec == SoundCodec::kAlaw || sound.format.codec == SoundCodec::kMulaw;
  }

  // `walker` stands where the period begins; pictures up to `toUs` come along. `writers` outlives
  // this.
  ExportStream(std::unique_ptr<PieceWalker> walker, SoundToo sound, int64_t toUs,
               WritersFirst* writers);

  // False when there is nothing to send. Once, first.
  bool begin();
  ssize_t read(char* out, size_t room) override;

 private:
  bool makeMore();
  bool takePiece();
  bool readPicture(OutputPicture* picture);
  bool takePicture();
  bool describe();
  bool writeSoundUntil(int64_t us);
  bool isOtherFormat(const OutputPicture& key);

  WritersFirst* const writers_;
  std::unique_ptr<PieceWalker> walker_;
  SoundToo sound_;
  std::unique_ptr<SoundFrames> frames_;  // null: without sound
  const int64_t toUs_;
  int64_t lastUs_ = 0;  // of its pictures
  FragmentedMovie movie_;
  Piece piece_;
  std::vector<uint8_t> sequence_;  // parameter sets of its pictures
  uint32_t next_ = 0;              // picture of the piece
  int waits_ = 0;                  // for the card, that were in vain
  bool ended_ = false;
  bool failed_ = false;
  std::string made_;
  size_t sent_ = 0;
};

}  // namespace tarn
