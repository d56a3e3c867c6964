#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "db/DbRecords.h"
#include "recorder/recording/PictureNumbers.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/session/ChunkPair.h"
#include "recorder/session/FlushPlace.h"
#include "recorder/session/RecordingSpace.h"

namespace tarn {

class InterruptedRow;
class JournalGuard;

// Writes one recording at a time into one chunk pair: header, row, data, entries, and the end, each
// step flushed before the next one that relies on it. Not part of the interface; belongs to one
// session and is used by its thread.
class RowWriter {
 public:
  RowWriter(CTARNStreamManager* manager, CApiDb* db, DatabaseWatch* watch, RecordingSpace* space,
            RecordingStatistics* statistics);

  // Opens the chunk pair for writing and looks at the numbers in its slots. False with error().
  bool openChunk(int chunk);
  // Leaves the chunk; what was written is flushed first. No recording may be running.
  void closeChunk();
  int chunk() const { return chunks_.number(); }  // -1 when none is open

  // Begins a recording: header, journal place, row. `seed` has the settings and the start time.
  bool begin(const DB_STREAM& seed);
  bool running() const { return running_; }
  const DB_STREAM& row() const { return row_; }
  // True when the next picture fits into both rings.
  bool fits(size_t size) const;
  uint32_t streamRoom() const;
  uint32_t pictureRoom() const;
  // Takes a picture, or a block of a row of sound as it is; entry carries time, decode offset and
  // flags. It must fit.
  bool append(const uint8_t* annexB, size_t size, const PictureEntry& entry);
  // From now on append() may make safe what came before, in the midst of a picture's bytes, so that
  // an interval costs the card fewer flushes; see FlushPlace.
  void flushEarly(int64_t intervalUs, uint64_t streamByte) { place_.set(intervalUs, streamByte); }
  // Takes a picture of another recording as it lies there, time stamp unit and checksum included;
  // entry's size and checksum are those of the bytes.
  bool appendCopy(const uint8_t* bytes, const PictureEntry& entry);
  // Data to the card, then the entries that point at it; then the server is told how far both rings
  // go. Without a server the pictures are safe all the same, and the result is false.
  bool flush();
  // The same after something else failed, without the server and without a wait: what was taken
  // shall not be lost for it.
  void rescue();
  // Picture time between the oldest picture that is not yet safe and `decode`; 0 without one.
  int64_t unsafeMicros(PictureTime decode) const;
  bool hasUnsafe() const { return queued_ > 0; }
  // Ends the recording and lists it as closed; one without pictures is deleted. `statusBits` are
  // set in the row together with its end.
  bool finish(uint32_t statusBits = 0);
  // The same where the session goes on with another recording: the management data are not saved
  // for it. What is saved of a chunk that is written to is old as long as a recording lasts; a
  // start goes by rows, headers and entries, and the session's end, a change of the chunk and the
  // server's stop save. Only one without pictures moves the addresses back, and is saved.
  bool endBeforeNext();
  // Gives up the recording that runs: row first, then its space.
  bool drop();
  // Ends it after a failure, as far as the card and the server still go along: what was confirmed
  // stays listed, what was not is given up.
  void abandon();
  // Ends a recording that a killed process left open, at what its entries confirm.
  bool closeLeftOver(const DB_STREAM& row, bool newestOfChunk);

  bool serverAnswers() { return chunks_.serverAnswers(); }

  RecordingError error() const { return chunks_.error(); }
  const char* errorText() const { return chunks_.errorText(); }

 private:
  // Entries of one write of a picture chunk.
  static constexpr uint32_t kQueueEntries = 1024;

  struct Totals {
    uint32_t pictures = 0;
    uint32_t gops = 0;
    uint32_t dataSize = 0;  // mod 2^32
    PictureTime last;
    void add(const PictureEntry& entry);
  };

  bool fail(RecordingError error, const char* text) { return chunks_.fail(error, text); }
  bool dataToCard();
  bool entriesToCard();
  bool queueToCard();
  bool makeJournalPlace(JournalGuard* guard, uint32_t now);
  bool chooseNumber(uint32_t* number);
  bool flushHeader();
  static uint32_t sizeWhileOpen();
  bool insertRow();
  void seekBoundary(PictureTime decode);
  bool writeData(const uint8_t* data, size_t size);
  bool writePieces(const uint8_t* data, size_t size);
  bool writeStamped(const uint8_t* annexB, size_t size, uint32_t seconds);
  void stamp(uint32_t seconds);
  void initRow(const DB_STREAM& seed);
  bool beginHeader();
  bool writeHeader(uint32_t marker);
  bool writeTotals();
  bool fail(JournaledRows::Outcome outcome);
  bool updateRow(uint32_t statusBits = 0);
  bool end(uint32_t statusBits);
  bool queueEntry(PictureEntry* entry);
  bool removeRow();
  void takeOver(const DB_STREAM& row, const InterruptedRow* pictures, bool newestOfChunk);
  bool openLeftOver(uint32_t dataEnd);

  CApiDb* db_;
  DatabaseWatch* watch_;
  JournaledRows rows_;
  RecordingSpace* space_;
  RecordingStatistics* statistics_;

  ChunkPair chunks_;
  PictureNumbers numbers_;

  bool running_ = false;
  bool ownsEnd_ = false;  // the recording is the last thing in both rings
  DB_STREAM row_ = {};
  StreamHeader header_;
  uint32_t headerOffset_ = 0;
  Totals written_;
  Totals confirmed_;

  std::vector<uint8_t> queue_;  // encoded entries that wait for their data; sized once
  uint32_t queued_ = 0;
  PictureTime firstQueued_;  // decode time
  FlushPlace place_;
  bool toBoundary_ = false;  // flush at the next boundary that the picture's bytes reach
  uint16_t dataCrc_ = 0;     // of the picture's bytes that were written so far
  uint8_t sei_[64];
  uint32_t seiSeconds_ = 0;
  bool seiValid_ = false;
};

}  // namespace tarn
