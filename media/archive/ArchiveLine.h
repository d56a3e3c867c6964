#pragma once

#include <cstdint>
#include <string>

#include "base/Export.h"
#include "media/archive/ContentHashes.h"

namespace tarn {

// What an archive says of a recording, an event, a gap or a finding: the sidecar of its object and
// a line of its day's index, in the same words (docs/fleet.md). Not part of the interface.
struct TARN_API ArchiveLine {
  static constexpr int kSchema = 1;

  std::string kind;  // "recording", "event", "gap" or "finding"
  std::string recorder;
  int channel = -1;     // ChunkChannels::kUnknown where the card does not tell; of an event without
                        // an object none
  uint32_t key = 0;     // of a recording or an event; of a finding its recording's
  uint32_t copyOf = 0;  // of a kept copy: the key of the recording that it is one of
  int64_t startMs = 0;  // since 1970
  int64_t endMs = 0;
  uint32_t trigger = 0;
  uint32_t preSeconds = 0;  // of an event
  std::string media;        // "video" or "sound"
  std::string object;       // its name; "" without one
  uint32_t part = 0;    // of a clip in parts, each of one format: which one, from 2; of the first 0
  uint32_t parts = 0;   // of the first: how many there are; of a clip that is a whole 0
  int64_t firstUs = 0;  // when its first picture, or frame, begins, since 1970; 0: not told
  uint64_t bytes = 0;
  ContentHashes hashes;
  uint64_t pictures = 0;
  uint64_t soundFrames = 0;
  uint64_t damaged = 0;       // pictures, and blocks of sound, that are damaged on the card
  uint64_t missing = 0;       // the same of those that could not be read
  uint64_t undecodable = 0;   // pictures left out, because their key picture is not there
  uint64_t soundLeftOut = 0;  // frames of another format than those before them
  bool sealed = false;
  std::string contentSha256;  // of a sealed clip as it is without its seal
  std::string reason;         // of a gap, for programs
  std::string words;          // of a gap: why; of a finding: what it is
  std::string finding;        // its kind, for programs
  std::string consequence;    // of a finding, for programs
  std::string meaning;        // of a finding, for a person

  // One line of JSON, without its end.
  std::string text() const;
  // False for what is no such line, and where a number is one that no card can have, or the object
  // in another place than the folder of its recorder and day.
  static bool parse(const std::string& text, ArchiveLine* line);
  // The same for whatever is the same recording, event on a channel, or gap.
  std::string identity() const;
  // Its place in an index: by time.
  bool operator<(const ArchiveLine& other) const;
};

}  // namespace tarn
