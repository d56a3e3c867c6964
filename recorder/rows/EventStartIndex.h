#pragma once

#include "base/Export.h"

struct sqlite3;

namespace tarn {

// The index on the start of events, for pages and counts of a period: without it each of them reads
// the whole table, with it the period. By itself it would do harm: the planner would take it for
// the steps of an event list as well, each of which then sorts a whole period to find the one next
// key, instead of walking the keys.
//
// What decides is how large the planner believes the table to be. For a few rows the walk of the
// keys costs it no more than a search in the index, while a sort still does; so it takes the index
// exactly where that spares the sort or the table's rows. It is told so once and for all
// (sqlite_stat1), however many rows there are: the statements, not the rows, call for these plans.
// Results never depend on it: whoever wants an order asks for one.
//
// Planners differ. So this one is asked how it would carry out the statements that count, and where
// an answer is another one than it must be, nothing is added.
class TARN_API EventStartIndex {
 public:
  // Adds the index to a database with empty tables, or leaves it as it is. False when a statement
  // fails for want of memory or room, or because the database cannot be written; its error is that
  // of the connection, and what was begun goes when that is closed. `stat`: what the planner is
  // told of the index, see the source; other texts are for tests.
  static bool add(sqlite3* db, const char* stat = kStat);

 private:
  // Rows, rows of equal start, bytes of an entry. EVENT itself is told to have nine rows.
  static constexpr char kStat[] = "20 1 sz=48";
};

}  // namespace tarn
