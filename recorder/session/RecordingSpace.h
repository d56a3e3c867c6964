#pragma once

#include <algorithm>
#include <cstdint>

#include "db/DbRecords.h"
#include "recorder/card/Source.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/RecordingError.h"
#include "recorder/session/RecordingStatistics.h"

class CApiDb;
class CTARNStreamManager;

namespace tarn {

// Room for recordings: takes chunks for a channel and, when none has room, lets the oldest
// recordings go. Not part of the interface; belongs to one session and is used by its thread.
//
// Several sessions may look for room at once, so every operation here is called with the allocation
// lock held. Recordings in a chunk that a session is writing to are never deleted: that session
// keeps its own idea of the chunk's addresses. Room is given free only because of rows that the
// database has or surely has not: a look-up that fails ends the search with an error.
class RecordingSpace {
 public:
  // What a new stretch of recording needs at least.
  struct Need {
    uint32_t streamBytes = 0;
    uint32_t pictureBytes = 0;
    bool sound = false;  // sound and pictures share a chunk of kept copies only
  };

  RecordingSpace(CTARNStreamManager* manager, CApiDb* db, const DatabaseWatch* watch,
                 RecordingStatistics* statistics)
      : manager_(manager), queries_(db, watch), rows_(db, watch), statistics_(statistics) {}

  // Chooses a chunk with that room for the channel, claims it and saves the claim; deletes for it
  // what must go. The chunk number, or -1 with *error and *text set. `now`: events that ended
  // before it go when no recording is left at all.
  int take(int8_t channel, int8_t recType, const Need& need, uint32_t now);
  // Deletes one recording: rows first, then the events before the oldest remaining recording, then
  // the space, then the management data is saved. A chunk left empty goes back to all channels,
  // unless it is `keepChunk`, which a session holds open.
  bool deleteRecording(const DB_STREAM& row, uint32_t now, int keepChunk);
  // The same for the recording whose record the journal is about to overwrite.
  bool deleteForJournal(const DB_STREAM& row, uint32_t now, int keepChunk);
  // Deletes a kept copy, wherever it lies in its chunk, with the events that nothing else shows.
  bool deleteCopy(const DB_STREAM& row, uint32_t now);
  // Claims a chunk and saves the claim. The chunk number, or -1 with *error and *text set.
  int claim(int chunk, int8_t channel, int8_t recType);
  // Whether the chunk is the channel's, or nobody's, and has that room in both areas.
  bool usable(int chunk, int8_t channel, const Need& need);
  // The last resort: chunks of the channel whose rows are gone and whose space a killed process did
  // not give back. True when there were any.
  bool reclaimOrphans(int8_t channel);
  // Deletes a row alone, journal first; its space stays. False when either did not take it.
  bool deleteRow(uint32_t streamID);

  // Newest row of a chunk; kFailed sets error().
  RowQueries::Answer newestInChunk(int chunk, DB_STREAM* row);
  // A recording of this key was seen or made: the database must not count behind it ever again.
  void noteKey(uint32_t streamID) { greatestKey_ = std::max(greatestKey_, streamID); }

  RecordingError error() const { return error_; }
  const char* errorText() const { return text_; }

 private:
  static short asChunk(int chunk) { return static_cast<short>(chunk); }
  int pick(int8_t channel, int8_t recType, const Need& need);
  int pickNow(int8_t channel, int8_t recType, const Need& need);
  int pickAmongKind(int8_t channel, const Need& need);
  int pickUnused(int8_t channel, int8_t recType, const Need& need);
  int begun(int chunk);
  bool everyChunkIsBusy();
  bool isOfKind(int chunk, bool sound);
  bool isGuardedChunk(int chunk);
  RowQueries::Answer oldestDeletable(DB_STREAM* row);
  bool deleteEventsBefore(uint32_t now);
  bool deleteEvent(uint32_t eventID);
  bool readHeader(const DB_STREAM& row, Delivery* header);
  void releaseTooEarly(const DB_STREAM& row, Delivery header);
  bool releaseSpace(const DB_STREAM& row, Delivery header);
  bool moveUseToOldest(int chunk);
  bool emptyChunk(int chunk);
  bool giveBack(int chunk);
  bool save();
  RowQueries::Answer selectOne(const char* sql, DB_STREAM* row);
  RowQueries::Answer oldestInChunk(int chunk, DB_STREAM* row);
  bool chunkHasRows(int chunk, bool* any);
  bool removed(JournaledRows::Outcome outcome);
  bool fail(RecordingError error, const char* text);
  bool failServer();

  CTARNStreamManager* manager_;
  RowQueries queries_;
  JournaledRows rows_;
  uint32_t greatestKey_ = 0;
  RecordingStatistics* statistics_;
  RecordingError error_ = RecordingError::kNone;
  const char* text_ = "";
};

// True for a row that a session has begun and not closed.
inline bool rowInProgress(const DB_STREAM& row) {
  return row.recSize == 0 && row.endDate == 0 && (row.status & 1) != 0;
}

}  // namespace tarn
