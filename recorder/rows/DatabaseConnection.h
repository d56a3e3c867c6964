#pragma once

#include "base/Export.h"
#include "db/CApiDb.h"

namespace tarn {

// A database object of whoever must not wait for ever, also when it goes: to close a connection
// takes the machine's database lock, and a process that died with it never gives it back. Then, and
// where one user keeps the lock for the patience of a recorder, the connection is left to the
// process's end.
//
// Used by one thread. Not part of the interface. May throw for lack of memory when it is made.
class TARN_API DatabaseConnection {
 public:
  DatabaseConnection();
  ~DatabaseConnection();
  DatabaseConnection(const DatabaseConnection&) = delete;
  DatabaseConnection& operator=(const DatabaseConnection&) = delete;

  CApiDb& db() { return held_->db; }

 private:
  struct Held {
    CApiDb db;
    Held* next = nullptr;
  };

  Held* held_;
};

}  // namespace tarn
