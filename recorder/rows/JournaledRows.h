#pragma once

#include <cstdint>

#include "base/Export.h"
#include "db/DbRecords.h"

class CApiDb;

namespace tarn {

class DatabaseWatch;

// Changes of EVENT and STREAM rows, each together with its record in the card's journal as one
// operation with one outcome: done means that the row is changed and the record, both copies, is on
// the card. Anything else means that neither counts: an insert is taken back, an updated row gets
// its old values, a row whose record cannot be deleted stays. The journal is asked once.
//
// A statement that fails because the RAM disk is full gets the recorder's reserve (RamReserve) and
// is tried again. Used by one thread; inserts are made with a JournalGuard alive.
class TARN_API JournaledRows {
 public:
  enum class Outcome {
    kDone,
    kDatabase,  // the database did not take the statement, or must not be asked: see failure()
    kJournal,   // the journal did not take the record, or could not bring it onto the card
  };

  // Neither is owned; `watch` may be null: then the database's lock alone is looked at.
  explicit JournaledRows(CApiDb* db, const DatabaseWatch* watch = nullptr)
      : db_(db), watch_(watch) {}

  // Key and backOffset are filled in.
  Outcome insert(DB_EVENT* row);
  Outcome insert(DB_STREAM* row);
  // Sets the columns of the mask; `before` has their values of now.
  Outcome update(DB_EVENT_REG_BIT mask, const DB_EVENT& before, const DB_EVENT& after);
  Outcome update(DB_STREAM_REG_BIT mask, const DB_STREAM& before, const DB_STREAM& after);
  Outcome removeEvent(uint32_t eventID);
  Outcome removeStream(uint32_t streamID);

  // Why the last operation was not done, for a person.
  const char* failure() const { return failure_; }

 private:
  template <typename Row>
  Outcome insertRow(Row* row);
  template <typename Mask, typename Row>
  Outcome updateRow(Mask mask, const Row& before, const Row& after);
  template <typename Row>
  Outcome removeRow(uint32_t key);
  bool mayAsk();
  // Runs `statement` again when it failed for lack of room and there was a reserve of it.
  template <typename Statement>
  bool withReserve(Statement statement);
  Outcome fail(Outcome outcome, const char* text);

  CApiDb* db_;
  const DatabaseWatch* watch_;
  const char* failure_ = "";
};

}  // namespace tarn
