#pragma once

#include <cstdint>
#include <vector>

#include "base/Export.h"
#include "recorder/recording/RecordingReader.h"

namespace tarn {

// Finds where pictures of a recording begin to be decoded in another way, from the first bytes of
// its key pictures. Used by one thread.
class TARN_API KeyFormat {
 public:
  // The sequence parameter sets of a key picture into *sequence: empty where it has none of its own
  // and is decoded with those before it. False when it is no key picture or cannot be read.
  static bool sequenceOf(RecordingReader* reader, uint32_t index, std::vector<uint8_t>* sequence);

  // A recording: its first key picture's sets are what the others are held against.
  void begin(RecordingReader* reader);
  // Whether the recording's first and last key pictures differ: then there is a change between.
  bool endsDiffer() const { return endsDiffer_; }
  // The key picture at which the format begins that this one has; 0: it is that of the recording's
  // first. To be asked in the order in which the pictures are walked over.
  uint32_t formatAt(uint32_t key);
  // That of the last one asked for.
  uint32_t format() const { return format_; }

 private:
  RecordingReader* reader_ = nullptr;
  std::vector<uint8_t> first_;    // sets of the recording's first key picture
  std::vector<uint8_t> current_;  // of the format that the walk is in
  uint32_t format_ = 0;
  bool endsDiffer_ = false;
};

}  // namespace tarn
