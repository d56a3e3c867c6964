#pragma once

#include "base/Export.h"
#include "db/DbRecords.h"

// What the database's writes ask of the journal. The journal stands above the database (it looks
// rows up in it), so the calls are declared here, where they are needed, and defined in the dblog
// folder, where each forwards to the operation of that name of the one CDbLog instance.
namespace tarn::journal_calls {

// Position of the next record, and a lock over the question and the insert that uses it: two
// threads that insert at once must not be given the same position. The lock is held from
// construction to destruction and serialises inserts of one process only. A thread that holds it
// may take it again: the recorder holds it from its look at the next position to the insert.
class TARN_API InsertLock {
 public:
  InsertLock();
  ~InsertLock();
  InsertLock(const InsertLock&) = delete;
  InsertLock& operator=(const InsertLock&) = delete;
};
unsigned long eventBackOffset();
unsigned long streamBackOffset();

bool insertEvent(const DB_EVENT* record);
bool updateEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* record);
bool deleteEvent(unsigned long eventID);
bool insertStream(const DB_STREAM* record);
bool updateStream(DB_STREAM_REG_BIT mask, const DB_STREAM* record);
bool deleteStream(unsigned long streamID);
// Whether this thread's last change above was taken and is on the card, both copies.
bool lastChangeOnCard();

}  // namespace tarn::journal_calls
