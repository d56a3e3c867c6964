#pragma once

#include "base/Export.h"
#include "db/DbRecords.h"

// Rebuilds the database from its journal when the recorder starts, before the management server
// runs: everything here opens chunks and management files itself. Used by one thread, while no
// other process uses the card. Chunk numbers are numbers of journal chunks: 0 is the event
// journal, 2 the stream journal, and the chunk behind each is its mirror.
//
// Results: 0, or -1 after a line at LOG_ERR.
class TARN_API CDbRestore {
 public:
  CDbRestore();
  ~CDbRestore();

  // Creates a database with empty tables by running /usr/local/bin/dbsetup, init and start.
  int setupEmptyDb();

  // Insert a row for every live record of the event journal, and of the stream journal that begins
  // at chunk `chunk` (2). Rows that are there already are replaced. A record that is bad in both
  // copies is skipped; an erased one ends the journal. A statement that fails ends the replay; the
  // rows before it stay.
  int restoreEventDb();
  int restoreStreamDb(short chunk);

  // After both replays: moves the free offset of each journal, on both its chunks, behind the
  // record of the row with the greatest key, and saves. The card may have lost power after a record
  // was written and before its management data was; the next insert would overwrite that record.
  // A journal without rows keeps its free offset if it is the place of a record, else gets 0.
  int recoverJournalManage();

  // Change one record on both copies, without testing its checksum and without moving any offset;
  // the record gets a good checksum. An offset that leaves no room for a record in its chunk counts
  // as a failed seek.
  // Replaces everything but the marker by *event, at event->backOffset. Always 0.
  int updateEventDBLogNative(const DB_EVENT* event);
  // Sets four fields of the stream record at `offset`.
  int updateStreamDBLogNative(short chunk, unsigned long status, unsigned long recSize,
                              unsigned long chunkSize, unsigned long endDate, unsigned long offset);
  // Marks the record at `offset` deleted. For a chunk other than 0 and 2 nothing is changed.
  int deleteDBLogNative(short chunk, unsigned long offset);
};
