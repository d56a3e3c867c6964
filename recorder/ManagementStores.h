#pragma once

#include <cstdint>

#include "base/Export.h"
#include "manager/CTARNEndlessManagerNative.h"
#include "manager/CTARNStreamManagerNative.h"
#include "manager/RequestFormat.h"

namespace tarn {

// The management server's native stores, one per pair of management files: stream, journal and
// syslog chunks. Answers requests on them. Used by one thread at a time; closed when destroyed,
// without saving.
class TARN_API ManagementStores {
 public:
  ManagementStores();
  ManagementStores(const ManagementStores&) = delete;
  ManagementStores& operator=(const ManagementStores&) = delete;

  // Opens every store. One that cannot be opened (no card, bad CRC) is reported in the system log
  // and on standard error and refuses its requests. Returns how many are open.
  int open();
  // Saves every open store: 0, or -1 when one could not be saved (reported likewise).
  int save();

  // Carries out the request and turns the record into its answer. result is kResultDone, or
  // kResultRefused for an unknown command or kind, a store that is not open, a number out of range
  // or a failed operation. Fields without an answer stay as sent. Nothing in the record is trusted.
  void answer(RequestRecord& record);

 private:
  struct Entry {
    const char* name;
    CTARNStreamManagerNative* store;
    bool isOpen;
  };

  CTARNStreamManagerNative* openStore(uint32_t kind);

  CTARNStreamManagerNative m_stream;
  CTARNEndlessManagerNative m_journal;
  CTARNEndlessManagerNative m_syslog;
  Entry m_entries[3];
};

}  // namespace tarn
