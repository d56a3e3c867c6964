#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "media/MediaOutput.h"
#include "media/mount/MovieFormats.h"

namespace tarn {

// The head of a movie in one part, and where behind it each piece of it has its place: all of a
// movie but its data, which are only counted. Pieces are as long as they will be when the movie is
// read, whatever they hold. Used by one thread. Throws std::bad_alloc when memory runs out.
class MovieHead : public MediaOutput {
 public:
  struct Piece {
    uint64_t at = 0;  // in the file
    uint32_t size = 0;
    uint32_t source = 0;  // as given to nextIs()
    uint32_t offset = 0;  // in what was given as a whole
    bool silence = false;
    uint8_t fill = 0;  // each byte of silence
  };

  struct Layout {
    bool quickTime = false;
    size_t tracks = 1;
    uint64_t room = 0;         // for the box that describes all pieces
    int64_t longestGapUs = 0;  // between two pictures
  };

  // False with error() set, as all of these.
  bool open(const Layout& layout);
  bool describe(size_t track, const OutputPicture& first) override;
  bool describe(size_t track, const OutputSound& first) override;
  // What the next piece is, for pieces().
  void nextIs(uint32_t source);
  bool write(const OutputPicture& picture, size_t track) override;
  bool write(const OutputSound& sound, size_t track) override;
  // In front of a picture from which on others are decoded in another way: a byte that is
  // nothing's, so that a place of its own begins.
  void leaveGap();
  // In place of finish(): there is no file.
  bool end();
  // Behind end(): as describeFormats() of MovieFormats.h.
  bool describeFormats(const std::vector<std::vector<uint8_t>>& others,
                       const std::vector<FormatStart>& starts);

  // Behind end().
  const std::vector<uint8_t>& head() const;
  const std::vector<Piece>& pieces() const;  // behind the head, with no more than gaps between them
  uint64_t dataEnd() const;

 private:
  class File;

  bool told(bool good);
  bool complete() override { return false; }

  std::shared_ptr<File> file_;
};

}  // namespace tarn
