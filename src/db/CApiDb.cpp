#include "db/CApiDb.h"

#include <sqlite3.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/Wrap.h"
#include "db/DatabaseFile.h"
#include "db/DbMessages.h"
#include "db/SemLock.h"

namespace {

constexpr useconds_t kSemaphorePollUs = 10;
constexpr useconds_t kRetrySleepUs = 500000;
constexpr int kAttempts = 2;
constexpr time_t kLongLockS = 1;
constexpr time_t kVeryLongLockS = 3;
constexpr uint32_t kFailed = 0xFFFFFFFF;
constexpr uint32_t kSaturated32 = 0xFFFFFFFF;

constexpr char kSqlBegin[] = "BEGIN";
constexpr char kSqlEnd[] = "END";

int changeSemaphore(int id, short by) {
  // Kept on purpose: no SEM_UNDO. A process that dies inside a statement leaves the database
  // locked, because nobody knows in which state it left what it was changing.
  sembuf operation = {0, by, 0};
  return semop(id, &operation, 1);
}

// Sets the new element to 0 and raises it by an operation: that stamps the set's last-operation
// time, by which other processes see that the set is ready.
bool initSemaphore(int id) {
  unsigned short values[1] = {0};
  return semctl(id, 0, SETALL, values) == 0 && changeSemaphore(id, 1) == 0;
}

bool awaitSemaphore(int id) {
  semid_ds info = {};
  for (;;) {
    if (semctl(id, 0, IPC_STAT, &info) != 0) return false;  // removed meanwhile: never ready
    if (info.sem_otime != 0) return true;
    usleep(kSemaphorePollUs);
  }
}

void logLockWait(const timeval& before, const timeval& after) {
  time_t seconds = after.tv_sec - before.tv_sec;
  int64_t microseconds = int64_t{after.tv_usec} - before.tv_usec;
  if (microseconds < 0) {
    microseconds += 1000000;
    --seconds;
  }
  const auto whole = static_cast<unsigned>(seconds);
  const auto hundredths = static_cast<unsigned>(microseconds / 10000);
  if (seconds >= kVeryLongLockS) {
    syslog(LOG_ERR, tarn::kMsgLongLockError, whole, hundredths);
  } else if (seconds >= kLongLockS) {
    syslog(LOG_WARNING, tarn::kMsgLongLock, whole, hundredths);
  }
}

// What the database writes for a number: digits without a sign and without a 0 in front, few enough
// for 32 bits. Nearly every cell is one. False for all else, which goes the long way.
bool readPlainDecimal(const char* text, uint32_t* value) {
  constexpr int kSafeDigits = 9;
  const bool isZero = text[0] == '0' && text[1] == '\0';
  if (!isZero && (*text < '1' || *text > '9')) return false;
  uint32_t sum = 0;
  for (int digits = 0; *text >= '0' && *text <= '9'; ++text) {
    if (++digits > kSafeDigits) return false;
    sum = sum * 10 + static_cast<uint32_t>(*text - '0');
  }
  *value = sum;
  return true;
}

// strtoul() as a 32-bit machine has it: saturates at 32 bits, and a minus sign negates within them.
uint32_t toUnsigned32(const char* text) {
  uint32_t plain = 0;
  if (readPlainDecimal(text, &plain)) return plain;
  text += strspn(text, " \t\n\v\f\r");
  const bool negative = *text == '-';
  if (negative || *text == '+') ++text;
  // A second sign, or blanks behind one, make no number; strtoull() alone would take them.
  if (*text < '0' || *text > '9') return 0;
  errno = 0;
  const unsigned long long magnitude = strtoull(text, nullptr, 0);
  if (errno == ERANGE || magnitude > kSaturated32) return kSaturated32;
  const auto value = static_cast<uint32_t>(magnitude);
  return negative ? tarn::wrapSub32(0, value) : value;
}

}  // namespace

CApiDb::CApiDb()
    : m_name(),
      m_db(nullptr),
      m_semID(-1),
      m_connected(false),
      m_tableHeld(false),
      m_table(nullptr),
      m_ntuple(0),
      m_ncol(0),
      m_ranFull(false) {
  if (createSem(ftok(tarn::kDatabaseLockFile, tarn::kDatabaseLockProject)) != 0) {
    syslog(LOG_ERR, tarn::kMsgSemInitError);
  }
}

CApiDb::~CApiDb() { finish(); }

uint32_t CApiDb::createSem(int key) {
  m_semID = semget(key, 1, IPC_CREAT | IPC_EXCL | tarn::kDatabaseLockMode);
  bool ready = false;
  if (m_semID != -1) {
    ready = initSemaphore(m_semID);
  } else if (errno == EEXIST) {
    m_semID = semget(key, 1, tarn::kDatabaseLockMode);
    ready = m_semID != -1 && awaitSemaphore(m_semID);
  }
  if (!ready) m_semID = -1;
  return ready ? 0 : kFailed;
}

uint32_t CApiDb::lockSem() {
  timeval before;
  gettimeofday(&before, nullptr);
  if (changeSemaphore(m_semID, -1) != 0) return kFailed;
  timeval after;
  gettimeofday(&after, nullptr);
  logLockWait(before, after);
  return 0;
}

uint32_t CApiDb::unlockSem() { return changeSemaphore(m_semID, 1) == 0 ? 0 : kFailed; }

uint32_t CApiDb::connect(const char* path) {
  if (path != m_name) snprintf(m_name, sizeof m_name, "%s", path);
  if (m_connected) return 0;
  const SemLock lock(*this);
  if (!lock.held()) syslog(LOG_ERR, tarn::kMsgConnectNoLock, m_name);
  if (sqlite3_open(m_name, &m_db) == SQLITE_OK) {
    m_connected = true;
    return 0;
  }
  syslog(LOG_ERR, tarn::kMsgConnectFailed, m_name, sqlite3_errmsg(m_db));
  sqlite3_close(m_db);
  m_db = nullptr;
  return 0;
}

uint32_t CApiDb::finish() {
  if (!m_connected) return 0;
  freeTable();
  const SemLock lock(*this);
  return close();
}

uint32_t CApiDb::close() {
  const int result = sqlite3_close(m_db);
  if (result == SQLITE_OK) {
    m_connected = false;
    m_db = nullptr;
  }
  return static_cast<uint32_t>(result);
}

bool CApiDb::finishWithin(uint32_t limitMs) {
  if (!m_connected) return true;
  const timespec limit = {static_cast<time_t>(limitMs / 1000),
                          static_cast<int32_t>(limitMs % 1000) * 1000000};
  sembuf take = {0, -1, 0};
  int result = 0;
  do {
    result = semtimedop(m_semID, &take, 1, &limit);
  } while (result != 0 && errno == EINTR);
  if (result != 0 && errno == EAGAIN) return false;
  freeTable();
  close();
  // What was refused for another reason is closed without the lock, as finish() does.
  if (result == 0) unlockSem();
  return true;
}

// Kept on purpose: the lock is held through the attempts and the sleeps between them, and nothing
// is returned: callers take an empty result for the only sign of failure.
template <typename Attempt>
void CApiDb::runStatement(const char* sql, Attempt attempt) {
  m_statementDone = false;
  if (!m_connected) connect(tarn::kDatabasePath);
  const SemLock lock(*this);
  if (!lock.held()) syslog(LOG_ERR, tarn::kMsgSqlNoLock, sql);
  runLocked(sql, attempt);
}

template <typename Attempt>
void CApiDb::runLocked(const char* sql, Attempt attempt) {
  m_statementDone = false;
  for (int i = 0; i < kAttempts; ++i) {
    char* errorText = nullptr;
    // Without a connection the statement fails as misuse of the interface, without a call.
    const int result = m_db == nullptr ? SQLITE_MISUSE : attempt(&errorText);
    m_statementDone = result == SQLITE_OK;
    if (m_statementDone) return;
    if (!reportFailure(result, sql, errorText)) return;
    usleep(kRetrySleepUs);
  }
}

// Logs a failed attempt; true when another one is worth while.
bool CApiDb::reportFailure(int result, const char* sql, char* errorText) {
  if (result == SQLITE_FULL) m_ranFull = true;
  if (getStatus() != 1) syslog(LOG_ERR, tarn::kMsgSqlError, sql);
  if (errorText != nullptr) {
    syslog(LOG_WARNING, tarn::kMsgSqlErrorText, errorText, sql);
    sqlite3_free(errorText);
  }
  if (result != SQLITE_CONSTRAINT) return true;
  syslog(LOG_WARNING, tarn::kMsgSqlNoRetry);
  return false;
}

uint32_t CApiDb::setSql(const char* sql) {
  freeTable();
  m_ntuple = 0;
  m_ncol = 0;
  runStatement(sql, [&](char** errorText) {
    const int result = sqlite3_get_table(m_db, sql, &m_table, &m_ntuple, &m_ncol, errorText);
    m_tableHeld = result == SQLITE_OK;
    if (!m_tableHeld) sqlite3_free_table(m_table);
    return result;
  });
  return 0;
}

uint32_t CApiDb::setSqlNoResult(const char* sql) {
  runStatement(
      sql, [&](char** errorText) { return sqlite3_exec(m_db, sql, nullptr, nullptr, errorText); });
  return 0;
}

size_t CApiDb::setSqlEach(const char* const* sql, size_t count) {
  m_statementDone = false;
  if (count == 0) return 0;
  if (!m_connected) connect(tarn::kDatabasePath);
  const SemLock lock(*this);
  for (size_t i = 0; i < count; ++i) {
    if (!lock.held()) syslog(LOG_ERR, tarn::kMsgSqlNoLock, sql[i]);
    runLocked(sql[i], [&](char** errorText) {
      return sqlite3_exec(m_db, sql[i], nullptr, nullptr, errorText);
    });
    if (!m_statementDone || !inTransaction()) return i;
  }
  return count;
}

// Runs a count once, without a retry; the held result stays. 0 when it fails.
uint32_t CApiDb::execCount(const char* sql) {
  if (!m_connected) connect(tarn::kDatabasePath);
  const SemLock lock(*this);
  if (!lock.held()) syslog(LOG_ERR, tarn::kMsgCountNoLock);
  if (m_db == nullptr) return 0;
  uint32_t count = 0;
  char* errorText = nullptr;
  const int result = sqlite3_exec(m_db, sql, m_CountCallback, &count, &errorText);
  if (result != SQLITE_OK && errorText != nullptr) {
    syslog(LOG_WARNING, tarn::kMsgCountError, errorText);
    sqlite3_free(errorText);
  }
  return count;
}

uint32_t CApiDb::getStatus() {
  // A null connection has SQLite's "out of memory" status, so this holds when not open as well.
  const int code = sqlite3_errcode(m_db);
  if (code == SQLITE_OK || code == SQLITE_DONE || code == SQLITE_ROW) return 1;
  syslog(LOG_ERR, tarn::kMsgSqliteError, sqlite3_errmsg(m_db));
  return 0;
}

void CApiDb::freeTable() {
  if (!m_tableHeld) return;
  sqlite3_free_table(m_table);
  m_table = nullptr;
  m_tableHeld = false;
}

uint32_t CApiDb::begin() { return setSqlNoResult(kSqlBegin); }

uint32_t CApiDb::end() { return setSqlNoResult(kSqlEnd); }

bool CApiDb::inTransaction() const { return m_db != nullptr && sqlite3_get_autocommit(m_db) == 0; }

uint32_t CApiDb::getCmdTuple() {
  const SemLock lock(*this);
  return m_db == nullptr ? 0 : static_cast<uint32_t>(sqlite3_changes(m_db));
}

// Text of a cell, or null when it lies outside the held result or is NULL (both are logged).
// Row -1 is the header.
const char* CApiDb::heldCell(long row, long col, int nullPriority) {
  const auto r = static_cast<int32_t>(row);
  const auto c = static_cast<int32_t>(col);
  if (!m_tableHeld || r < -1 || c < 0 || r >= m_ntuple || c >= m_ncol) {
    syslog(LOG_ERR, tarn::kMsgCellOver, long{m_ntuple}, long{r}, long{m_ncol}, long{c});
    return nullptr;
  }
  const char* cell = m_table[(int64_t{r} + 1) * m_ncol + c];
  if (cell == nullptr) syslog(nullPriority, tarn::kMsgNullCell, long{r}, long{c});
  return cell;
}

uint32_t CApiDb::getValue(long row, long col) {
  const char* cell = heldCell(row, col, LOG_WARNING);
  return cell == nullptr ? 0 : toUnsigned32(cell);
}

// Kept on purpose: a NULL cell is an error here and only a warning in getValue().
uint64_t CApiDb::getValue64(long row, long col) {
  const char* cell = heldCell(row, col, LOG_ERR);
  return cell == nullptr ? 0 : strtoull(cell, nullptr, 0);
}
