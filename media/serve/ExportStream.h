#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media/FragmentedMovie.h"
#include "media/serve/BodyStream.h"
#include "media/serve/PieceWalker.h"

namespace tarn {

// A period of a channel as an .mp4, made picture by picture while it is sent: no file of it is
// anywhere, and memory holds one group of pictures. Used by one thread.
class ExportStream : public BodyStream {
 public:
  // `walker` stands where the period begins; pictures up to `toUs` come along.
  ExportStream(std::unique_ptr<PieceWalker> walker, int64_t toUs);

  // False when there is nothing to send. Once, first.
  bool begin();
  ssize_t read(char* out, size_t room) override;

 private:
  bool makeMore();
  bool takePiece();
  bool takePicture();
  bool isOtherFormat(const OutputPicture& key);

  std::unique_ptr<PieceWalker> walker_;
  const int64_t toUs_;
  FragmentedMovie movie_;
  Piece piece_;
  std::vector<uint8_t> sequence_;  // parameter sets of its pictures
  uint32_t next_ = 0;              // picture of the piece
  bool ended_ = false;
  bool failed_ = false;
  std::string made_;
  size_t sent_ = 0;
};

}  // namespace tarn
