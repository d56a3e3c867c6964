#pragma once

#include <atomic>
#include <cstdint>

#include "base/Export.h"
#include "manager/CTARNEndlessManagerNative.h"
#include "manager/CTARNStreamManagerNative.h"
#include "manager/RequestFormat.h"

namespace tarn {

// The management server's native stores, one per pair of management files: stream, journal and
// syslog chunks. Answers requests on them. Used by one thread at a time; closed when destroyed,
// without saving.
//
// Nothing is waited for without a limit but the card: the database, which a request for a chunk
// needs, is given half a second when somebody holds its lock.
class TARN_API ManagementStores {
 public:
  // `stop` (may be null; outlives the object) ends a wait for the database early.
  explicit ManagementStores(const std::atomic<bool>* stop = nullptr);
  ManagementStores(const ManagementStores&) = delete;
  ManagementStores& operator=(const ManagementStores&) = delete;

  // Opens every store; one that cannot be read is tried a few times. One that cannot be opened (no
  // card, bad CRC) is reported in the system log and on standard error and refuses its requests.
  // Returns how many are open.
  int open();
  // Saves every open store: 0, or -1 when one could not be saved (reported likewise).
  int save();

  // Carries out the request and turns the record into its answer. result is kResultDone;
  // kResultCard for a store that is not open and a save that failed; kResultDatabase for a chunk
  // that was not chosen because the database is locked; kResultRefused for an unknown command or
  // kind, a partition that is not the recorder's, a number out of range or an operation without a
  // result. Fields without an answer stay as sent. Nothing in the record is trusted.
  void answer(RequestRecord& record);

 private:
  struct Entry {
    const char* name;
    CTARNStreamManagerNative* store;
    bool isOpen;
  };

  Entry* entryOf(uint32_t kind, uint32_t partition);
  uint32_t apply(CTARNStreamManagerNative& store, RequestRecord& record);
  bool databaseIsFree();

  const std::atomic<bool>* stop_;
  bool databaseHeld_ = false;  // it was waited for in vain, and has been held since

  CTARNStreamManagerNative stream_;
  CTARNEndlessManagerNative journal_;
  CTARNEndlessManagerNative syslog_;
  Entry entries_[3];
};

}  // namespace tarn
