#pragma once

#include "manager/CTARNStreamManager.h"
#include "recorder/rows/DatabaseWatch.h"
#include "recorder/rows/InsertingProcess.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/RecordingError.h"
#include "recorder/session/RecordingSpace.h"

namespace tarn {

// What whatever inserts rows of recordings (a session, a copier of what is kept) needs of the
// machine before it begins, in this order: its locks, the database, the server.

// Why it cannot begin; kNone: it can.
struct OpeningFailure {
  RecordingError error = RecordingError::kNone;
  const char* text = "";

  bool none() const { return error == RecordingError::kNone; }
};

// The right to insert rows of one channel. Goes with the object, or with the process.
class InserterLocks {
 public:
  // What to say where somebody else has it.
  struct Sentences {
    const char* otherProcess;
    const char* channelBusy;
  };

  OpeningFailure take(int channel, bool sound, const Sentences& sentences);
  void letGo();

 private:
  FileLock channel_;
  InsertingProcess process_;
};

// Takes the database as it is now for the one that is written to, and `space` goes on behind its
// greatest key. The text is the object's of `queries`.
OpeningFailure watchDatabase(DatabaseWatch* watch, RowQueries* queries, RecordingSpace* space);

// Waits for the server (serverPatienceMs()), but not for one that has no card: that one does not
// get one by being asked again.
OpeningFailure connectToServer(CTARNStreamManager* manager);

}  // namespace tarn
