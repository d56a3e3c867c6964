#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>

#include "base/Export.h"
#include "dblog/JournalBytes.h"
#include "dblog/JournalFormat.h"

struct sqlite3;

namespace tarn {

struct ReplayRows;

// Puts the rows of the journals into a database while the journals are still being read: a thread
// has time for that where a card has not. Its file is one that nobody else knows and that nothing
// relies on. Only when both journals were read to their ends without a flaw, so that nothing will
// be mended and the replay would take just these records, is it a replay's result; else it goes,
// and the replay runs behind the reading, as if this had never been, with all that is said and
// tried there.
//
// It does not begin for a few rows, beside a database that is there already, whose memory is not
// given free yet, nor where the machine has less than 128 MiB to spare or the card an image, which
// may spare the replay. Used by one thread.
class TARN_API EarlyRows {
 public:
  static constexpr uint32_t kFewestRecords = 4096;  // of one journal, before it begins

  // What is read; both outlive this.
  EarlyRows(const JournalBytes* events, const JournalBytes* streams);
  // Ends the thread; the file goes.
  ~EarlyRows();
  EarlyRows(const EarlyRows&) = delete;
  EarlyRows& operator=(const EarlyRows&) = delete;

  // Told by who reads the journals, the events first. All blocks below `end` have been read, and
  // what was kept of them stays as it is; `end` is a multiple of JournalBytes::kBlockBytes.
  void read(JournalKind kind, uint32_t end);
  // The journal has `records` records and no more; `flawless`: all of them are kept, and nothing of
  // it will be written. Else the thread has ended when this returns.
  void ended(JournalKind kind, uint32_t records, bool flawless);

  // Waits for the rows. True when they are all in the database, which then took the place of the
  // empty one at /tmp/DB.dat. False when there are none, or what lies there is not what
  // DatabaseSetup::createEmpty() makes: it is as it was.
  bool moveInto();
  // What moveInto() moved: records of a journal, live or not.
  uint32_t records(JournalKind kind) const { return journalOf(kind).records; }
  // Ends the thread and removes its file.
  void drop();

 private:
  struct Journal {
    const JournalBytes* bytes;
    uint32_t end = 0;  // this and what is below are guarded by the mutex while the thread runs
    uint32_t records = 0;
    bool ended = false;
  };

  Journal& journalOf(JournalKind kind) { return kind == JournalKind::kEvent ? events_ : streams_; }
  const Journal& journalOf(JournalKind kind) const {
    return kind == JournalKind::kEvent ? events_ : streams_;
  }
  void begin();
  void run();
  bool fill(sqlite3* db);
  bool insertAll(sqlite3* db, const ReplayRows& rows);
  bool waitFor(const Journal& journal, uint32_t at, uint32_t* end);

  Journal events_;
  Journal streams_;
  bool asked_ = false;  // whether it may begin
  bool done_ = false;   // the thread's result
  bool stop_ = false;   // guarded by the mutex
  std::mutex mutex_;
  std::condition_variable changed_;
  std::thread thread_;
};

}  // namespace tarn
