#pragma once

#include "db/CApiDb.h"

namespace tarn {

// Keeps every process of the machine away from the database for a scope, however that is left. Not
// copyable; used by one thread.
class DatabaseLock {
 public:
  DatabaseLock() : held_(db_.lockSem() == 0) {}
  ~DatabaseLock() {
    if (held_) db_.unlockSem();
  }
  DatabaseLock(const DatabaseLock&) = delete;
  DatabaseLock& operator=(const DatabaseLock&) = delete;

  // False where it was refused: then nothing is kept away, and nothing is given back.
  bool held() const { return held_; }

 private:
  CApiDb db_;
  const bool held_;
};

}  // namespace tarn
