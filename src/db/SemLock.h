#pragma once

#include "db/CApiDb.h"

// Holds the machine-wide lock for a scope. Where the lock was refused the work goes on without it,
// and nothing is given back: raising a semaphore that was not taken would let two in for ever.
class CApiDb::SemLock {
 public:
  explicit SemLock(CApiDb& db) : db_(db), held_(db.lockSem() == 0) {}
  ~SemLock() {
    if (held_) db_.unlockSem();
  }
  SemLock(const SemLock&) = delete;
  SemLock& operator=(const SemLock&) = delete;

  bool held() const { return held_; }

 private:
  CApiDb& db_;
  const bool held_;
};
