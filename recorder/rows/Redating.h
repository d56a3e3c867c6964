#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Export.h"
#include "db/DbRecords.h"

namespace tarn {

// The database as a re-dating needs it: each change of a row together with its journal record.
// Not part of the interface.
class RedatedTables {
 public:
  virtual ~RedatedTables() = default;
  virtual bool streams(const std::string& sql, std::vector<DB_STREAM>* rows) = 0;
  virtual bool events(const std::string& sql, std::vector<DB_EVENT>* rows) = 0;
  // The columns of times and status.
  virtual bool change(const DB_STREAM& before, const DB_STREAM& after) = 0;
  virtual bool change(const DB_EVENT& before, const DB_EVENT& after) = 0;
  // -1: none.
  virtual int channelOf(uint32_t chunk) = 0;
};

// Gives recordings and events that were made before the clock was known their right times. Their
// rows are moved by whole seconds, so that the journal has both; pictures, entries and headers stay
// as they were written.
//
// Copies of them that were kept meanwhile (KeptRow.h) go along, also those whose recording has been
// overwritten; one that is made later has the right times already.
//
// A recording at a time, the oldest first. It carries a mark until all are done: whoever finds it
// after a power loss knows by its correction what is still to be done, and by which channel and
// which keys. Not part of the interface. Used by one thread, with the allocation lock held while
// sessions run.
class TARN_API Redating {
 public:
  // Recordings that one session makes: those of a channel's pictures, or of its sound.
  static int family(int channel, bool sound) { return channel + (sound ? kSound : 0); }

  explicit Redating(RedatedTables* tables) : tables_(tables) {}

  // Closed recordings of the family from `firstStream` on, their copies, and all events from
  // `firstEvent` on. False when a change was not taken; what is done stays, and finish() does the
  // rest.
  bool run(int family, uint32_t firstStream, uint32_t firstEvent, int64_t seconds);
  // Goes on with what a power loss or a death of the process cut short; of one family, or with -1
  // of all. Of the events those go along that lie in the old times of what was moved and that no
  // recording shows there: which other ones would have, nothing tells any more. False when a
  // change was not taken.
  bool finish(int family);

  // Closed recordings of the family from `firstStream` on and copies of such ones, in the order of
  // what they show. False when the database could not be asked.
  bool recorded(int family, uint32_t firstStream, std::vector<DB_STREAM>* rows);

  // What was changed, since this was made.
  uint32_t recordings() const { return recordings_; }
  uint32_t events() const { return events_; }

 private:
  static constexpr int kSound = 128;

  int channelOf(const DB_STREAM& row);
  int familyOf(const DB_STREAM& row);
  bool rest(const DB_STREAM& marked, int family, int64_t seconds);
  bool move(const DB_STREAM& row, int64_t seconds, uint32_t mark);
  bool move(const DB_EVENT& row, int64_t seconds);
  bool unmark(DB_STREAM row);
  bool finishOne(const DB_STREAM& marked);
  bool logWhole(const DB_STREAM& marked, int family, int64_t seconds);
  bool eventsOf(const DB_STREAM& marked, int family, int64_t seconds);

  RedatedTables* tables_;
  uint32_t recordings_ = 0;
  uint32_t events_ = 0;
};

}  // namespace tarn
