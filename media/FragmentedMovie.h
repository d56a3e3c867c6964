#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/Export.h"
#include "media/MediaOutput.h"

namespace tarn {

// A fragmented MP4, given to a sink as it grows and never changed behind it: first ftyp and moov
// (the init part, without a picture), then fragments (moof and mdat), which can be moved, cut off
// and sent on their own. Every track of a fragment carries its true decode time (tfdt), counted
// from origin(); where nothing was recorded nothing stands, and times go on behind the gap.
//
// Init part: open(), describe() each track, begin(). One segment: the same, forget what begin()
// gave, write() what belongs into it, endFragment(). A file: write() everything, finish().
// Used by one thread. Throws std::bad_alloc when memory runs out.
class TARN_API FragmentedMovie {
 public:
  // Takes the bytes that come next. False stops the work as an error.
  using Sink = std::function<bool(const uint8_t* data, size_t size)>;

  enum class Fragments {
    kAtKeys,  // a new one at each key picture of the first track of pictures, of sound alone each
              // second; one before that where 64 MiB wait
    kAsTold,  // by endFragment() only, and at gaps and clock steps that none can span
  };

  struct Plan {
    size_t tracks = 1;
    bool quickTime = false;  // a .mov, which holds G.711 in place of Opus
    Fragments fragments = Fragments::kAtKeys;
    uint32_t firstNumber = 1;  // of the first fragment, as players see it (sequence_number)
    // What times count from; nothing may be decoded before it. Segments that are made one by one
    // belong together when all have the same. Nothing: when the first piece of all is decoded.
    std::optional<PictureTime> origin;
  };

  FragmentedMovie();
  ~FragmentedMovie();
  FragmentedMovie(const FragmentedMovie&) = delete;
  FragmentedMovie& operator=(const FragmentedMovie&) = delete;

  // Once, first. All of these return false with error() set.
  bool open(const Plan& plan, Sink sink);
  // Of each track, before anything is written: its first piece, as of a MediaOutput.
  bool describe(size_t track, const OutputPicture& first);
  bool describe(size_t track, const OutputSound& first);
  // Gives the init part to the sink. The first write() does it where it was not done.
  bool begin();
  // The next piece of a track, in the order of decoding. A picture is kept until the next one of
  // its track tells how long it is shown.
  bool write(const OutputPicture& picture, size_t track = 0);
  bool write(const OutputSound& sound, size_t track);
  // Gives all that was written to the sink, as a fragment. Nothing where nothing was.
  bool endFragment();
  // The same, and the end of the movie.
  bool finish();

  // Behind begin(): the moment that decode time 0 stands for.
  PictureTime origin() const;
  const std::string& error() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
