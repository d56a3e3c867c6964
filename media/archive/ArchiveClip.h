#pragma once

#include <memory>
#include <string>

#include "media/MediaInput.h"
#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveStore.h"

namespace tarn {

class ChannelTracks;
class ClipSeal;
class ReadYield;
class TrackTurns;

// The bytes of a recording's or an event's clip: a fragmented movie at its true times, the same
// whenever it is made of the same pictures and sound. Where the size of its pictures or the format
// of its sound changes, another part begins, a movie of its own: by the same rules as an export's
// next file. Used by one thread. Not part of the interface.
class ArchiveClip {
 public:
  // `line` has kind, key, channel and object. `seal` seals it, and
  // `yield` makes way for others between pictures; they outlive this, and null is nobody.
  ArchiveClip(const ArchiveLine& line, StopAsked stopAsked, ReadYield* yield = nullptr);
  ~ArchiveClip();
  ArchiveClip(const ArchiveClip&) = delete;
  ArchiveClip& operator=(const ArchiveClip&) = delete;

  // The next part, from the first one, sealed where `seal` is there. False when the sink refused,
  // or with error() set.
  bool write(const ByteSink& sink, ClipSeal* seal = nullptr);
  // Behind write(): whether there is another part.
  bool goesOn() const { return goesOn_; }
  // In place of write(): what the bytes of the next part are. False with error() set.
  bool measure(ArchiveStore::Stored* stored);
  // In place of write(): what all parts together lack. False with error() set.
  bool countMissing(uint64_t* missing);
  // What is in the part that was written, its name, and what is missing.
  const ArchiveLine& line() const { return line_; }
  const std::string& error() const { return error_; }

 private:
  class Movie;

  bool fail(const std::string& text);
  void beginPart();
  bool begin(std::unique_ptr<ChannelTracks>* place);
  bool pass(std::unique_ptr<ChannelTracks>* place, const ByteSink* sink, ClipSeal* seal);
  bool writeTracks(ChannelTracks* channel, const ByteSink* sink, ClipSeal* seal);
  bool writePieces(ChannelTracks* channel, Movie* movie);
  bool go(TrackTurns* turns);
  void note(const ChannelTracks& channel);

  const ArchiveLine whole_;
  ArchiveLine line_;
  const StopAsked stopAsked_;
  ReadYield* const yield_;
  // A sealed part is made twice: once to know what is to be signed, by a reader of its own.
  std::unique_ptr<ChannelTracks> channel_;
  std::unique_ptr<ChannelTracks> toSign_;
  uint32_t part_ = 0;
  bool goesOn_ = false;
  bool refused_ = false;  // by the sink
  std::string error_;
};

}  // namespace tarn
