#pragma once

#include <cstdint>

#include "base/Export.h"

namespace tarn {

// Tells a user of the database, ahead of a statement, whether the statement would be answered and
// by the database that it began with: a session that goes on with another file than the rest of the
// machine would record what nobody lists, and take what it misses there for room.
//
// Used by one thread.
class TARN_API DatabaseWatch {
 public:
  enum class Verdict {
    kGood,
    kLockOfTheDead,  // a process died with the database's lock: no statement would ever return
    kLockHeld,       // one user has kept the lock for the whole patience
    kGone,           // there is no database file
    kReplaced,       // the file is another one than at begin()
  };

  // Remembers which file is there now: true, or false when there is none. Without it check() looks
  // at the lock only.
  bool begin();
  // Waits for the lock, at most the patience.
  Verdict check() const;
  void setPatience(int64_t milliseconds) { patienceMs_ = milliseconds; }

  // A sentence for a person; "" for kGood.
  static const char* text(Verdict verdict);

 private:
  bool begun_ = false;
  uint64_t device_ = 0;
  uint64_t inode_ = 0;
  int64_t patienceMs_ = 5000;
};

}  // namespace tarn
