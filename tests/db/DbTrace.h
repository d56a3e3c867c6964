#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "db/DbRecords.h"
#include "support/SyslogCapture.h"

namespace tarn_test {

// What the stand-in for the journal answers and was last given.
struct FakeJournal {
  unsigned long eventOffset = 0;
  unsigned long streamOffset = 0;
  bool result = true;
  bool onCard = true;  // what became of the flush behind it
  DB_EVENT event = {};
  DB_STREAM stream = {};
  // Called inside each back-offset query.
  std::function<void()> onOffsetQuery;
};
FakeJournal& fakeJournal();

// While it lives, notes in order what this process does to the outside of the database gateway, one
// line each: "lock", "unlock", "open PATH", "close", "exec SQL", "table SQL", "changes", "sleep
// US", "journal CALL", and log lines as "log PRIORITY: TEXT". Half-second sleeps are noted, not
// slept.
class DbTrace {
 public:
  DbTrace();
  ~DbTrace();
  DbTrace(const DbTrace&) = delete;
  DbTrace& operator=(const DbTrace&) = delete;

  // Everything since the last call.
  std::vector<std::string> take();
  // The same, but only the lines that begin with `prefix`, without it.
  std::vector<std::string> take(const std::string& prefix);
  // Whether semop() fails (EIDRM), and whether semget() does (ENOSPC).
  static void failLocks(bool fail);
  static void failSets(bool fail);
  // Called in place of each half-second sleep.
  std::function<void()> onSleep;

  void note(const std::string& line);

 private:
  void drainLog();

  SyslogCapture log_;
  size_t logSeen_ = 0;
  std::vector<std::string> lines_;
};

// Rows of a query as "a|b|c", read on a connection of the test's own, without lock or trace.
std::vector<std::string> rowsOf(const std::string& sql, const char* path = "/tmp/DB.dat");

}  // namespace tarn_test
