#pragma once

#include <memory>

#include "base/Export.h"
#include "recorder/rows/RedatingPlan.h"
#include "recorder/rows/RedatingRecord.h"
#include "recorder/session/RecordingError.h"

namespace tarn {

// Takes back what a clock that became known had moved, by the record of it in the system log
// (`tarn redate`). Each record is one operation, all or nothing wherever power goes; a start or a
// session goes on with one that was cut short.
//
// Beside a server. To look takes nothing; to change takes the place of the process that records, so
// that none does meanwhile. The program calls CDbLog::finish() at its end. Used by one thread.
// Nothing throws.
class TARN_API RedatingReversal {
 public:
  RedatingReversal();
  ~RedatingReversal();  // close()
  RedatingReversal(const RedatingReversal&) = delete;
  RedatingReversal& operator=(const RedatingReversal&) = delete;

  // Connects to database and server. 0, or -1 with error() set; to change also while another
  // process records or keeps events.
  int open(bool toChange);
  // What the record would take back now. 0, or -1 with error() set.
  int plan(const RedatingRecord& record, RedatingPlan* plan);
  // Takes it back; *done is what was moved, as it was before. 0, or -1 with error() set: also when
  // nothing fits the record any more.
  int undo(const RedatingRecord& record, RedatingPlan* done);
  void close();

  RecordingError error() const;
  const char* errorText() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace tarn
