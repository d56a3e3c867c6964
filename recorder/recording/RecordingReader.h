#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "recorder/recording/PictureEntry.h"

namespace tarn {

// Reads the pictures of one recording (STREAM row), closed or still running, across the ends of
// both rings. Opens its chunks read-only and needs no server. Used by one thread at a time.
class TARN_API RecordingReader {
 public:
  RecordingReader();
  ~RecordingReader();
  RecordingReader(const RecordingReader&) = delete;
  RecordingReader& operator=(const RecordingReader&) = delete;

  // Opens a row (copied), or the row of a key through a database connection of the reader's own.
  // 0, or -1 when the row, or both its header and its first entries, cannot be read. An open reader
  // is closed first.
  int open(const DB_STREAM& row);
  int open(uint32_t streamID);
  void close();
  bool isOpen() const;
  const DB_STREAM& row() const;
  // All but its first number is 0 where it is damaged or cannot be read.
  const StreamHeader& header() const;

  // Pictures that can be read: recSize of a closed row; of a running one what was confirmed at
  // open() or refresh(). Entries count by key, number and CRC only, so stale ones never do.
  uint32_t pictureCount() const;
  // Looks for pictures that came since, of a running row. The new count.
  uint32_t refresh();

  // Entry of picture `index` (0 = first), with the time that its row gives it. False when there is
  // none or it is not valid.
  bool picture(uint32_t index, PictureEntry* out);
  // Last key picture presented at or before `time`, -1 when there is none.
  int64_t findKeyPictureBefore(PictureTime time);
  // First picture in decode order that is presented at or after `time`, -1 when there is none.
  int64_t findPictureFrom(PictureTime time);
  // Bytes of a picture into *out (resized), without the recorder's time stamp unit unless
  // `withTimeStamp`. False when they cannot be read.
  bool readPicture(const PictureEntry& entry, std::vector<uint8_t>* out,
                   bool withTimeStamp = false);
  // Whether the bytes that the last readPicture() gave are not the ones that were recorded, by the
  // entry's checksum. False without a checksum: nothing can be told of cards written before there
  // was one.
  bool isDamaged() const;
  // Whether the last picture() or readPicture() was false because the card did not give the bytes
  // now, or because there was no memory for them: that proves nothing of them, and they may come at
  // the next try.
  bool wasRefused() const;
  // Whether it was for want of memory; the same of the last find.
  bool lackedMemory() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

// Rows of the period [from, to], seconds, in the order of their keys: those running at `from` and
// those that begin in it. inTrg 0: of every trigger. Kept copies (recorder/recording/KeptRow.h)
// only where the recording that they were made of is gone, so that no picture is there twice.
// Copies, through a connection of its own, so callers may walk them while they run statements.
TARN_API std::vector<DB_STREAM> streamsOfPeriod(uint32_t from, uint32_t to, uint32_t inTrg = 0);
// The same into *out. False when the database could not be read; *out holds what was read until
// then.
TARN_API bool streamsOfPeriod(uint32_t from, uint32_t to, uint32_t inTrg,
                              std::vector<DB_STREAM>* out);
// Rows of an event: from preSec seconds before its start to its end (to now, of one still open).
TARN_API std::vector<DB_STREAM> streamsOfEvent(const DB_EVENT& event);
TARN_API bool streamsOfEvent(const DB_EVENT& event, std::vector<DB_STREAM>* out);

}  // namespace tarn
