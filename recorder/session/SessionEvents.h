#pragma once

#include <cstdint>
#include <vector>

#include "db/DbRecords.h"
#include "recorder/card/PictureTime.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/RecordingError.h"
#include "recorder/session/RowWriter.h"

class CApiDb;

namespace tarn {

// The events of one session that run: their rows begin open and are ended here. Used by the
// session's thread.
class SessionEvents {
 public:
  // All outlive this.
  SessionEvents(CApiDb* db, DatabaseWatch* watch, RowWriter* writer);

  // Key of the new open row, 0 with error().
  uint32_t begin(uint16_t trigger, PictureTime time, uint16_t preSec);
  bool isRunning(uint32_t eventID) const;
  // Ends one that runs, no sooner than it began; it runs no more, whatever comes of it. False with
  // error().
  bool end(uint32_t eventID, PictureTime time);

  bool hasRunning() const { return !running_.empty(); }
  // Ends the one that began last, at the session's last picture, or where the clock was set since
  // it began, at the last one before that. False with error().
  bool endLast(PictureTime latest);
  // The clock was set behind the picture of this time: what runs is the old clock's.
  void clockWasSet(PictureTime latest);
  // Times of before are later by this: events of a clock that was set before have an end in them.
  void clockBecameKnown(int64_t seconds);

  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }

 private:
  struct Running {
    DB_EVENT row;
    bool overtaken = false;  // the clock was set since it began
    PictureTime end;         // then: the last picture before that
  };
  bool fail(RecordingError error, const char* text);
  bool fail(JournaledRows::Outcome outcome);
  bool makePlace(JournalGuard* guard);
  bool endRow(const Running& event, PictureTime time);

  CApiDb* db_;
  DatabaseWatch* watch_;
  RowWriter* writer_;
  RowQueries queries_;
  JournaledRows rows_;
  std::vector<Running> running_;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
};

}  // namespace tarn
