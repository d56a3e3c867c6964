#pragma once

#include <cstdint>
#include <vector>

#include "db/DbRecords.h"
#include "recorder/card/Source.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/recording/RecordingIndex.h"

namespace tarn {

// Finds out what there is of a recording that never ended, and writes nothing but its header. An
// entry with the recording's key, its number and a right CRC proves its picture: data is on the
// card before its entry, keys are never used again, and numbers are chosen so that none that an
// earlier recording left goes on behind them. So what a bad sector holds in the middle is missing
// there and ends nothing. Not part of the interface. Used by one thread.
class InterruptedRow {
 public:
  enum class Verdict {
    kRefused,   // the device does not give what it takes to tell; a later start may
    kNothing,   // no picture of it is on the card
    kPictures,  // ends behind pictures()
  };

  explicit InterruptedRow(const DB_STREAM& row);

  Verdict judge();

  // After kPictures:
  uint32_t pictures() const { return pictures_; }
  uint32_t gops() const { return gops_; }
  PictureTime last() const { return last_; }  // the latest presentation
  // As it has to be, with the marker that it has.
  const StreamHeader& header() const { return header_; }
  uint32_t dataEnd() const { return dataEnd_; }  // in the stream chunk
  // False when the device does not take it.
  bool writeHeader() const;

 private:
  struct Hole;

  Delivery at(uint32_t index, PictureEntry* entry);
  bool walk();
  bool isTorn(const Hole& hole);
  bool isDamaged(const Hole& hole);
  void dropStrayPictures();
  bool total();

  const DB_STREAM row_;
  RecordingIndex index_;
  ChunkSource stream_;
  StreamHeader header_;
  bool headerGood_ = false;
  bool headerBad_ = false;  // delivered, and no header
  uint32_t pictures_ = 0;
  uint32_t gops_ = 0;
  PictureTime last_;
  uint32_t dataEnd_ = 0;
  std::vector<uint32_t> refused_;  // indexes of entries that the device did not give, in order
};

// Whether pictures of the row carry a stamp with their time.
bool isVideo(const DB_STREAM& row);

}  // namespace tarn
