#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/Export.h"
#include "media/serve/KeyFormat.h"
#include "media/serve/Piece.h"
#include "media/serve/ServedRows.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn {

// Walks over a channel's pictures, or over its sound block by block, from a moment on, across
// recordings and gaps, and cuts them into pieces, each of one format. What cannot be read is passed
// over. Used by one thread.
class TARN_API PieceWalker {
 public:
  // A piece has at most so many pictures and, of more than one, so many bytes.
  static constexpr uint32_t kMostPictures = 600;
  static constexpr uint64_t kMostBytes = uint64_t{4} * 1024 * 1024;

  enum class Kind { kPictures, kSound };
  // Where a change of the format within a recording is looked for: at every key picture or, of a
  // long period, only in recordings whose first and last key pictures differ.
  enum class Formats { kOfEveryKey, kOfEnds };

  PieceWalker(std::shared_ptr<const ServedRows> rows, int channel, Kind kind = Kind::kPictures,
              Formats formats = Formats::kOfEveryKey);

  // Each of these says where to begin; false when there is nothing to begin with.
  // The key picture at or before the time or, in a gap, the next recording.
  bool toTime(int64_t us);
  // The key picture at or before the time, however long ago that is.
  bool toKeyBefore(int64_t us);
  // Behind a picture that was walked over before. Its recording may have gone since.
  bool toPicture(uint32_t streamID, uint32_t index);
  // Of a recording that runs the key picture at or before `backUs` in front of its newest picture.
  bool toLive(int64_t backUs);

  // The next piece: true with *out; false where nothing more is safe on the card. `whole`: only
  // pieces that will never be longer; of a recording that runs the last pictures wait then.
  bool next(bool whole, Piece* out);
  // The recording that the last piece is of; null before one.
  RecordingReader* reader() { return reader_.get(); }
  // Where next() goes on.
  uint32_t streamID() const;
  uint32_t index() const { return index_; }

 private:
  const ServedRecording& row() const { return rows_->recordings[(*places_)[place_]]; }
  bool open(size_t place);
  bool toKeyIn(size_t place, int64_t us);
  bool continuesBefore(size_t place) const;
  void passUndecodable();
  bool cut(bool whole, Piece* out);
  bool endsAt(const PictureEntry& key, uint32_t index);
  int64_t endOfLast(const Piece& piece, int64_t latestUs, int64_t stepUs) const;

  const std::shared_ptr<const ServedRows> rows_;
  const Kind kind_;
  const Formats formats_;
  const std::vector<uint32_t>* places_ = nullptr;  // of the channel, in the order of time
  size_t place_ = 0;
  uint32_t index_ = 0;                       // of the next picture
  std::unique_ptr<RecordingReader> reader_;  // of the recording at place_, once it is needed
  KeyFormat format_;                         // in it
  bool walked_ = false;                      // a piece of it was cut
  bool changes_ = false;                     // the next one begins another format
};

}  // namespace tarn
