#include "db/DbTrace.h"

#include <dlfcn.h>
#include <sqlite3.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "db/JournalCalls.h"

namespace tarn_test {
namespace {

std::recursive_mutex& traceMutex() {
  static auto* mutex = new std::recursive_mutex;
  return *mutex;
}
DbTrace* g_trace = nullptr;
bool g_failLocks = false;
bool g_failSets = false;
thread_local int t_quiet = 0;  // inside a noted call, or the test's own

struct Quiet {
  Quiet() { ++t_quiet; }
  ~Quiet() { --t_quiet; }
};

void noteLine(const std::string& line) {
  if (t_quiet > 0) return;
  std::lock_guard<std::recursive_mutex> lock(traceMutex());
  if (g_trace != nullptr) g_trace->note(line);
}

template <typename Function>
Function* next(Function* /*own*/, const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

FakeJournal& fakeJournal() {
  static FakeJournal journal;
  return journal;
}

DbTrace::DbTrace() {
  std::lock_guard<std::recursive_mutex> lock(traceMutex());
  g_trace = this;
}

DbTrace::~DbTrace() {
  std::lock_guard<std::recursive_mutex> lock(traceMutex());
  g_trace = nullptr;
  g_failLocks = false;
  g_failSets = false;
}

void DbTrace::drainLog() {
  const std::vector<LogLine> lines = log_.lines();
  for (; logSeen_ < lines.size(); ++logSeen_) {
    const LogLine& line = lines[logSeen_];
    lines_.push_back("log " + std::to_string(line.priority) + ": " + line.text);
  }
}

void DbTrace::note(const std::string& line) {
  std::lock_guard<std::recursive_mutex> lock(traceMutex());
  drainLog();
  lines_.push_back(line);
}

std::vector<std::string> DbTrace::take() {
  std::lock_guard<std::recursive_mutex> lock(traceMutex());
  drainLog();
  std::vector<std::string> result;
  result.swap(lines_);
  return result;
}

std::vector<std::string> DbTrace::take(const std::string& prefix) {
  std::vector<std::string> result;
  for (const std::string& line : take()) {
    if (line.compare(0, prefix.size(), prefix) == 0) result.push_back(line.substr(prefix.size()));
  }
  return result;
}

void DbTrace::failLocks(bool fail) {
  std::lock_guard<std::recursive_mutex> lock(traceMutex());
  g_failLocks = fail;
}

void DbTrace::failSets(bool fail) {
  std::lock_guard<std::recursive_mutex> lock(traceMutex());
  g_failSets = fail;
}

std::vector<std::string> rowsOf(const std::string& sql, const char* path) {
  const Quiet quiet;
  sqlite3* db = nullptr;
  std::vector<std::string> rows;
  const auto addRow = [](void* arg, int count, char** values, char**) {
    std::string row;
    for (int i = 0; i < count; ++i)
      row += (i > 0 ? "|" : "") + std::string(values[i] ? values[i] : "NULL");
    static_cast<std::vector<std::string>*>(arg)->push_back(row);
    return 0;
  };
  if (sqlite3_open(path, &db) != SQLITE_OK ||
      sqlite3_exec(db, sql.c_str(), addRow, &rows, nullptr) != SQLITE_OK) {
    rows.push_back(std::string("error: ") + sqlite3_errmsg(db));
  }
  sqlite3_close(db);
  return rows;
}

}  // namespace tarn_test

namespace tarn::journal_calls {
namespace {

std::mutex g_insertMutex;

bool answered(const std::string& call) {
  tarn_test::noteLine("journal " + call);
  return tarn_test::fakeJournal().result;
}

}  // namespace

InsertLock::InsertLock() {
  g_insertMutex.lock();
  tarn_test::noteLine("journal insert begins");
}
InsertLock::~InsertLock() {
  tarn_test::noteLine("journal insert ends");
  g_insertMutex.unlock();
}

unsigned long eventBackOffset() {
  tarn_test::noteLine("journal eventBackOffset");
  if (tarn_test::fakeJournal().onOffsetQuery) tarn_test::fakeJournal().onOffsetQuery();
  return tarn_test::fakeJournal().eventOffset;
}
unsigned long streamBackOffset() {
  tarn_test::noteLine("journal streamBackOffset");
  if (tarn_test::fakeJournal().onOffsetQuery) tarn_test::fakeJournal().onOffsetQuery();
  return tarn_test::fakeJournal().streamOffset;
}
bool insertEvent(const DB_EVENT* record) {
  tarn_test::fakeJournal().event = *record;
  return answered("insertEvent " + std::to_string(record->eventID));
}
bool updateEvent(DB_EVENT_REG_BIT mask, const DB_EVENT* record) {
  tarn_test::fakeJournal().event = *record;
  return answered("updateEvent mask " + std::to_string(mask) + " of " +
                  std::to_string(record->eventID));
}
bool deleteEvent(unsigned long eventID) {
  return answered("deleteEvent " + std::to_string(eventID));
}
bool insertStream(const DB_STREAM* record) {
  tarn_test::fakeJournal().stream = *record;
  return answered("insertStream " + std::to_string(record->streamID));
}
bool updateStream(DB_STREAM_REG_BIT mask, const DB_STREAM* record) {
  tarn_test::fakeJournal().stream = *record;
  return answered("updateStream mask " + std::to_string(mask) + " of " +
                  std::to_string(record->streamID));
}
bool deleteStream(unsigned long streamID) {
  return answered("deleteStream " + std::to_string(streamID));
}
bool lastChangeOnCard() { return tarn_test::fakeJournal().onCard; }

}  // namespace tarn::journal_calls

// The gateway's objects resolve to these, because the program comes first in symbol look-up.
extern "C" {

int sqlite3_open(const char* path, sqlite3** db) {
  static auto* real = tarn_test::next(&sqlite3_open, "sqlite3_open");
  tarn_test::noteLine(std::string("open ") + path);
  const tarn_test::Quiet quiet;
  return real(path, db);
}

int sqlite3_close(sqlite3* db) {
  static auto* real = tarn_test::next(&sqlite3_close, "sqlite3_close");
  tarn_test::noteLine("close");
  const tarn_test::Quiet quiet;
  return real(db);
}

int sqlite3_exec(sqlite3* db, const char* sql, int (*row)(void*, int, char**, char**), void* arg,
                 char** error) {
  static auto* real = tarn_test::next(&sqlite3_exec, "sqlite3_exec");
  tarn_test::noteLine(std::string("exec ") + sql);
  const tarn_test::Quiet quiet;
  return real(db, sql, row, arg, error);
}

int sqlite3_get_table(sqlite3* db, const char* sql, char*** table, int* rows, int* columns,
                      char** error) {
  static auto* real = tarn_test::next(&sqlite3_get_table, "sqlite3_get_table");
  tarn_test::noteLine(std::string("table ") + sql);
  const tarn_test::Quiet quiet;
  return real(db, sql, table, rows, columns, error);
}

int sqlite3_changes(sqlite3* db) {
  static auto* real = tarn_test::next(&sqlite3_changes, "sqlite3_changes");
  tarn_test::noteLine("changes");
  const tarn_test::Quiet quiet;
  return real(db);
}

int semop(int id, sembuf* operations, size_t count) {
  static auto* real = tarn_test::next(&semop, "semop");
  const int by = operations[0].sem_op;
  {
    std::lock_guard<std::recursive_mutex> lock(tarn_test::traceMutex());
    if (tarn_test::g_failLocks) {
      if (tarn_test::g_trace != nullptr)
        tarn_test::g_trace->note(by < 0 ? "lock fails" : "unlock fails");
      errno = EIDRM;
      return -1;
    }
  }
  if (operations[0].sem_flg != 0)
    tarn_test::noteLine("semop flags " + std::to_string(operations[0].sem_flg));
  if (by > 0) tarn_test::noteLine("unlock");
  const int result = real(id, operations, count);
  if (by < 0 && result == 0) tarn_test::noteLine("lock");
  return result;
}

int semget(key_t key, int count, int flags) {
  static auto* real = tarn_test::next(&semget, "semget");
  {
    std::lock_guard<std::recursive_mutex> lock(tarn_test::traceMutex());
    if (tarn_test::g_failSets) {
      errno = ENOSPC;
      return -1;
    }
  }
  return real(key, count, flags);
}

int usleep(useconds_t us) {
  static auto* real = tarn_test::next(&usleep, "usleep");
  tarn_test::noteLine("sleep " + std::to_string(us));
  {
    std::lock_guard<std::recursive_mutex> lock(tarn_test::traceMutex());
    if (tarn_test::g_trace != nullptr && us == 500000) {
      if (tarn_test::g_trace->onSleep) tarn_test::g_trace->onSleep();
      return 0;
    }
  }
  return real(us);
}
}
