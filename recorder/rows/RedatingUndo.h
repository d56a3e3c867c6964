#pragma once

#include <cstdint>

#include "base/Export.h"
#include "db/DbRecords.h"
#include "recorder/rows/Redating.h"
#include "recorder/rows/RedatingPlan.h"
#include "recorder/rows/RedatingRecord.h"

namespace tarn {

// Takes a re-dating back: its recordings, their copies and its events get the times again that they
// were recorded with, by the record that the system log has of it. What does not fit stays as it
// is: a recording goes only where it is re-dated by just these seconds.
//
// All or nothing, wherever power goes: rows that are to be changed are marked first; a mark of its
// own on one of them is the decision; then they are changed, a row together with its mark.
// finish() goes on behind the decision, and in front of it takes the marks off. Not part of the
// interface. Used by one thread, with the allocation lock held, while no session runs.
class TARN_API RedatingUndo {
 public:
  explicit RedatingUndo(RedatedTables* tables) : tables_(tables), redating_(tables) {}

  // False when the database could not be asked.
  bool plan(const RedatingRecord& record, RedatingPlan* plan);
  // False when a change was not taken; finish() does the rest then, or undoes it.
  bool run(const RedatingPlan& plan);
  // What a power loss or a death of the process cut short.
  bool finish();

  // What was changed, since this was made.
  uint32_t recordings() const { return recordings_; }
  uint32_t events() const { return events_; }

 private:
  enum class Fit { kYes, kCopyOfIt, kUnreadable, kNo };

  static Fit fitOf(const DB_STREAM& row, int64_t seconds);
  bool planEvents(const RedatingRecord& record, uint32_t lastSecond, RedatingPlan* plan);
  bool mark(const RedatingPlan& plan);
  bool moveMarked(const DB_STREAM& decided, int64_t seconds);
  bool moveBack(const DB_STREAM& row, int64_t seconds);
  bool moveBack(const DB_EVENT& row, int64_t seconds);
  bool dropMarks();

  RedatedTables* tables_;
  Redating redating_;
  uint32_t recordings_ = 0;
  uint32_t events_ = 0;
};

// Goes on with re-dating that was cut short (of a family, as Redating::finish()), and with taking
// it back. False when a change was not taken.
TARN_API bool finishRedatings(RedatedTables* tables, int family);

}  // namespace tarn
