#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "recorder/recording/RecordingReader.h"

namespace tarn {

// Which pictures of one recording make a time of it, in pieces that fit into a chunk each: from the
// key picture before the time to the end of the group that is shown at its end, so that every piece
// can be decoded, and two that meet have nothing in common. Not part of the interface. Used by one
// thread.
class CopyPlan {
 public:
  // Limits of a piece: bytes of data and pictures.
  struct Limits {
    uint32_t bytes;
    uint32_t pictures;
  };

  CopyPlan(PictureTime from, PictureTime to, Limits limits)
      : from_(from), to_(to), limits_(limits) {}

  // False when the recording cannot be read.
  bool open(const DB_STREAM& row);
  // What is decoded in this time is there already: left out.
  void leaveOut(PictureTime first, PictureTime last) { kept_.push_back({first, last}); }
  // False while the recording runs and its last group may still grow.
  bool isOver();
  // The next piece, in decode order; false when there is none. As all of these, throws
  // std::bad_alloc: a picture that there was no memory to ask for is not one that is missing.
  bool next(std::vector<PictureEntry>* piece);
  // Begins again with the first piece.
  void rewind();

  // Whether it can be decoded without another: a key picture, or any of sound.
  bool stands(const PictureEntry& entry) const { return sound_ || entry.isKey(); }
  RecordingReader& reader() { return reader_; }
  uint32_t missing() const { return missing_; }  // entries that cannot be read, and what needs them

 private:
  bool isKept(PictureTime decode) const;
  bool isFull(const std::vector<PictureEntry>& piece, const PictureEntry& entry) const;
  bool take(PictureEntry* entry);

  const PictureTime from_;
  const PictureTime to_;
  const Limits limits_;
  RecordingReader reader_;
  std::vector<std::pair<PictureTime, PictureTime>> kept_;
  uint32_t index_ = 0;
  uint64_t bytes_ = 0;  // of the piece
  bool sound_ = false;
  bool gap_ = false;  // what comes next does not follow what came last
  bool waitForKey_ = false;
  uint32_t missing_ = 0;
};

}  // namespace tarn
