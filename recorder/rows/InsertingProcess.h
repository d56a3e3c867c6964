#pragma once

#include "base/Export.h"
#include "recorder/rows/FileLock.h"

namespace tarn {

// Held by whoever inserts rows: one process of the machine at a time, because each process's
// journal keeps the place of the next record itself, and records of two would lie on top of each
// other. Sessions hold it while they are open, a JournalGuard while it lives; any number of them in
// one process share it. Readers, updates and deletes of other processes are not concerned. The
// system lets the lock go when the process dies.
//
// Any thread; a process that was forked off holds nothing of its parent's.
class TARN_API InsertingProcess {
 public:
  InsertingProcess() = default;
  ~InsertingProcess() { leave(); }
  InsertingProcess(const InsertingProcess&) = delete;
  InsertingProcess& operator=(const InsertingProcess&) = delete;

  // Does not wait. kTaken: this is (now) the process; taken by this object until leave().
  FileLock::Outcome enter();
  void leave();

 private:
  bool entered_ = false;
};

}  // namespace tarn
