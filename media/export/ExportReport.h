#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media/PictureSize.h"
#include "recorder/card/PictureTime.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {

// Pictures of one recording, back to back, whose bytes are not the ones that were recorded.
struct DamagedRun {
  uint32_t streamID;
  uint32_t firstIndex;  // in the recording, from 0
  uint32_t lastIndex;
  PictureTime from;
  PictureTime to;
};

// Where pictures begin that are decoded in another way than those before them. A movie has one
// description for all of its pictures, so they begin another file.
struct FormatChange {
  PictureTime time;
  PictureSize before;
  PictureSize after;
  std::string next;  // the file that goes on there; "": the same, a bare stream
};

// What a file holds of one channel, and what is missing in it.
struct ExportTotals {
  uint64_t written = 0;      // pictures
  uint64_t bytes = 0;        // of them
  uint64_t lost = 0;         // pictures that could not be read
  uint64_t damaged = 0;      // of those written
  uint64_t undecodable = 0;  // left out, because the key picture that they need is not there
  std::vector<DamagedRun> damages;
  PictureSize size;  // of the first of those written
  std::vector<FormatChange> changes;
  PictureTime first;  // of those written
  PictureTime last;
  std::vector<int32_t> zones;  // seconds ahead of UTC that the recorder's local time was, each once
};

// Where sound begins that is coded in another way than that before it. A track has one description
// for all of its frames, so it begins another file, with the next key picture.
struct SoundChange {
  PictureTime time;
  SoundFormat before;
  SoundFormat after;
  std::string next;  // the file that goes on there
};

// What an export holds of the sound of one channel, and what is missing in it.
struct SoundTotals {
  SoundCodec codec = SoundCodec::kUnknown;  // kUnknown: there is none
  uint64_t frames = 0;
  uint64_t bytes = 0;                // of them
  uint64_t lost = 0;                 // blocks of frames that could not be read
  uint64_t damaged = 0;              // blocks of those written
  std::vector<SoundChange> changes;  // at most one: where the file ends for it
  bool leftOut = false;              // there is sound, which a .h264 does not hold
  PictureTime first;                 // of those written
  PictureTime last;                  // end of the last
};

// One channel of an export, or one file of it where its pictures change their format.
struct ExportedChannel {
  std::string path;  // the file that holds it
  int channel = 0;   // ChunkChannels::kUnknown where the card does not tell
  ExportTotals totals;
  SoundTotals sound;
  std::string error;  // why there is no such file, or nothing of the channel in it; else ""
};

}  // namespace tarn
