#pragma once

#include <sys/types.h>

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// Looks at the machine-wide lock of the database (CApiDb::lockSem()) without taking it or waiting
// for it. A holder that dies keeps the lock, on purpose: so whoever must not wait for ever asks
// here first. Between the answer and a statement the lock may be taken again; a holder that dies in
// that moment is met by the next question only.
//
// Never throws or allocates; any thread.
class TARN_API DatabaseGate {
 public:
  enum class State {
    kFree,        // nobody holds the lock, or there is none yet
    kHeld,        // held by a process that lives, or that cannot be seen from here
    kHolderDead,  // held by a process that is gone: nobody will let it go
    kUnknown,     // the system does not tell
  };

  // The state at this moment; *holder (may be null): the holder's process, 0 when not known.
  static State look(pid_t* holder = nullptr);
  // Waits until the lock is free or changes hands (its users are alive then), at most `patienceMs`;
  // kHolderDead ends the wait at once. What is not free after it is a reason to give up.
  static State await(int64_t patienceMs, pid_t* holder = nullptr);
  // Sets a lock free whose holder is dead. For a program that knows itself alone on the machine:
  // what the holder was changing when it died is rebuilt or judged by that program. True when it
  // did; false when the holder is not (or no longer) a dead one.
  static bool releaseDead();
};

}  // namespace tarn
