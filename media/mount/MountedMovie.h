#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "media/mount/MovieHead.h"
#include "media/mount/MoviePlan.h"
#include "recorder/recording/PictureEntry.h"

namespace tarn {

class ExportTrack;
class SoundExport;

// A movie whose data stay on the card: a head made of the entries, and places of the card behind
// it. The same plan gives the same bytes, wherever reading begins. Used by one thread. Throws
// std::bad_alloc when memory runs out.
class MountedMovie {
 public:
  // Reads the entries, the first picture and the sound. False with error() set: also where the card
  // does not give something of it now, as nobody knows then what the movie holds.
  bool make(const MoviePlan& plan);

  uint64_t size() const { return plan_.size(); }
  // `size` bytes at `at`, of which all lie in the file. False with error() set where the card does
  // not give them. Whether the recordings are still there is the caller's to look, behind it.
  bool read(uint64_t at, size_t size, uint8_t* out);
  const MoviePlan& plan() const { return plan_; }
  // Two movies that have the same one are the same, byte for byte.
  uint64_t signature() const;
  const std::string& error() const { return error_; }

 private:
  // A picture, or a block of sound: where it lies.
  struct Source {
    PictureEntry entry;
    uint32_t row = 0;  // among the parts, or among the recordings of sound
  };
  // A frame of sound in its block.
  struct Place {
    uint32_t block = 0;
    uint32_t offset = 0;
  };
  class Pictures;

  bool fail(const std::string& text);
  bool gather(uint32_t part, bool* waitForKey);
  void noteFormat(RecordingReader* reader, uint32_t index);
  bool endsRun(uint32_t picture) const;
  bool readPicture(uint32_t picture, OutputPicture* out);
  bool describeFormats(MovieHead* head);
  uint32_t noteFrame(const SoundExport& sound);
  bool lay(MovieHead* head, const OutputPicture& first);
  bool layPieces(const std::vector<ExportTrack*>& tracks, const Pictures* pictures,
                 const SoundExport* sound, MovieHead* head);
  bool loadPiece(size_t piece);
  bool loadSource(const Source& source, bool sound);
  bool readPiece(uint64_t at, size_t size, uint8_t* out, size_t* done);
  void readTail(uint64_t at, size_t size, uint8_t* out) const;
  int64_t longestGapUs() const;

  MoviePlan plan_;
  std::vector<Source> pictures_;
  std::vector<std::vector<uint8_t>> sequences_;  // parameter sets, of each description
  std::vector<FormatStart> formats_;
  std::vector<Source> blocks_;
  std::vector<Place> places_;
  std::vector<uint8_t> head_;
  std::vector<MovieHead::Piece> pieces_;
  uint64_t dataEnd_ = 0;
  std::unique_ptr<RecordingReader> reader_;
  uint32_t readerKey_ = 0;
  size_t loaded_ = SIZE_MAX;     // piece whose bytes are at hand
  std::vector<uint8_t> source_;  // what was read last
  uint32_t block_ = UINT32_MAX;  // block of sound that source_ is
  std::vector<uint8_t> bytes_;   // of the piece
  std::string error_;
};

}  // namespace tarn
