#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "recorder/card/PictureTime.h"
#include "recorder/card/Source.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn {

// Pictures of one recording, back to back.
struct MoviePart {
  DB_STREAM row = {};
  uint32_t first = 0;
  uint32_t end = 0;  // behind the last one
};

// What a movie of a mounted card shows, as its entries tell, and so how large it is: everything
// that must be known before the first byte of it is asked for. Room is left for what only the data
// tell, so that nothing of them has to be read for a size: boxes that players pass over take what
// is not used of it.
struct MoviePlan {
  std::vector<MoviePart> parts;  // in the order of time; empty: sound alone
  std::vector<DB_STREAM> sound;  // recordings of sound beside them
  PictureTime soundFrom;
  PictureTime soundTo;
  bool quickTime = false;  // a movie of the kind .mov, for G.711
  bool stable = true;      // nothing will ever be added to it

  uint64_t pictures = 0;     // at most so many
  uint64_t bytes = 0;        // of them on the card
  uint64_t soundBytes = 0;   // of frames, at most
  uint64_t soundFrames = 0;  // at most

  // Between start codes and lengths: what a picture may grow, and the filler behind it.
  static constexpr uint32_t kSampleRoom = 96;

  uint64_t headRoom() const;  // for the box that describes all pieces
  uint64_t size() const;      // of the file
};

// Makes plans. Used by one thread.
class MoviePlanner {
 public:
  // The pictures of a recording, or its sound, all that are safe now of one that runs. `beside`:
  // recordings of sound of its channel. False with refused() or error() set.
  bool planRecording(const DB_STREAM& row, const std::vector<DB_STREAM>& beside, MoviePlan* plan);
  // What these recordings of one channel, in the order of time, show of a period, as an export of
  // it does. The last key picture before it comes along.
  bool planPeriod(const std::vector<DB_STREAM>& rows, const std::vector<DB_STREAM>& beside,
                  PictureTime from, PictureTime to, MoviePlan* plan);
  const std::string& error() const { return error_; }

 private:
  bool fail(const DB_STREAM& row, const char* why);
  ChunkSource* chunkOf(const DB_STREAM& row);
  bool countPictures(MoviePart* part, MoviePlan* plan);
  bool walk(RecordingReader* reader, MoviePart* part, const PictureTime* to, MoviePlan* plan);
  bool endWithPictures(const MoviePart& part, PictureTime* to);
  bool addSound(const std::vector<DB_STREAM>& beside, PictureTime from, PictureTime to,
                MoviePlan* plan);
  bool countSound(const DB_STREAM& row, MoviePlan* plan);
  bool countSamples(RecordingReader* reader, const DB_STREAM& row, MoviePlan* plan);

  // The picture chunk of the last recording: the next one is mostly in it, too.
  std::unique_ptr<ChunkSource> chunk_;
  uint32_t chunkID_ = 0;
  std::string error_;
};

}  // namespace tarn
