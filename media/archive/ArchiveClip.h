#pragma once

#include <string>

#include "media/MediaInput.h"
#include "media/archive/ArchiveLine.h"
#include "media/archive/ArchiveStore.h"

namespace tarn {

class ChannelTracks;
class ClipSeal;
class ReadYield;

// The bytes of a recording's or an event's clip: a fragmented movie at its true times, the same
// whenever it is made of the same pictures and sound. Used by one thread. Not part of the
// interface.
class ArchiveClip {
 public:
  // `line` has kind, key, channel and object. `seal` seals it, and
  // `yield` makes way for others between pictures; they outlive this, and null is nobody.
  ArchiveClip(const ArchiveLine& line, StopAsked stopAsked, ClipSeal* seal = nullptr,
              ReadYield* yield = nullptr)
      : line_(line), stopAsked_(std::move(stopAsked)), seal_(seal), yield_(yield) {}

  // False when the sink refused, or with error() set.
  bool write(const ByteSink& sink);
  // What is in it, and what is missing; behind write().
  const ArchiveLine& line() const { return line_; }
  const std::string& error() const { return error_; }

 private:
  bool fail(const std::string& text);
  bool pass(const ByteSink* sink);
  bool writeTracks(ChannelTracks* channel, const ByteSink* sink);
  void note(const ChannelTracks& channel);

  ArchiveLine line_;
  const StopAsked stopAsked_;
  ClipSeal* const seal_;
  ReadYield* const yield_;
  std::string error_;
};

}  // namespace tarn
