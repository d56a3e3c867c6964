// What makes a state cheap and changes nothing that is looked at: the database, which dies with the
// power anyway, is not set up by a process of its own, its connections are used again, and the card
// needs no time to settle.
#include <dlfcn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <vector>

#include "powercut/CardTrace.h"
#include "powercut/NextCall.h"
#include "recorder/rows/DatabaseSetup.h"

using namespace powercut;

namespace powercut {
namespace {

// The set-up program's file, made once: its bytes are the same every time.
bool putEmptyDatabase() {
  static std::string bytes;
  const char* path = tarn::DatabaseSetup::defaultPath();
  std::string error;
  if (bytes.empty()) {
    if (!tarn::DatabaseSetup::createEmpty(path, &error)) return false;
    std::ifstream file(path, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), {});
    return true;
  }
  const std::string fresh = std::string(path) + ".fresh";
  std::ofstream(fresh, std::ios::binary) << bytes;
  return tarn::DatabaseSetup::replace(fresh.c_str(), path, &error);
}

// A closed connection that can be used for the same file again.
struct Connection {
  sqlite3* db;
  dev_t device;
  ino_t inode;
  bool idle;
};

class Pool {
 public:
  static Pool& get() {
    static auto* pool = new Pool;
    return *pool;
  }

  int open(const char* path, sqlite3** db) {
    static const auto real =
        next<int (*)(const char*, sqlite3**, int, const char*)>("sqlite3_open_v2");
    std::lock_guard<std::mutex> lock(mutex_);
    struct stat file = {};
    if (stat(path, &file) == 0 && take(file, db)) return SQLITE_OK;
    // The semaphore of the library is all the locking that there is between the connections of this
    // one process.
    const int result = real(path, db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, "unix-none");
    if (result != SQLITE_OK || stat(path, &file) != 0) return result;
    sqlite3_exec(*db, "PRAGMA journal_mode = MEMORY; PRAGMA synchronous = OFF", nullptr, nullptr,
                 nullptr);
    list_.push_back({*db, file.st_dev, file.st_ino, false});
    return result;
  }

  int close(sqlite3* db) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (Connection& connection : list_) {
      if (connection.db != db || sqlite3_next_stmt(db, nullptr) != nullptr) continue;
      connection.idle = true;
      return SQLITE_OK;
    }
    return realClose(db);
  }

 private:
  static int realClose(sqlite3* db) {
    static const auto real = next<int (*)(sqlite3*)>("sqlite3_close");
    return real(db);
  }

  // Idle ones of other files are closed: theirs are gone.
  bool take(const struct stat& file, sqlite3** db) {
    bool taken = false;
    for (size_t i = list_.size(); i-- > 0;) {
      Connection& connection = list_[i];
      if (!connection.idle) continue;
      if (connection.device != file.st_dev || connection.inode != file.st_ino) {
        realClose(connection.db);
        list_.erase(list_.begin() + static_cast<std::ptrdiff_t>(i));
      } else if (!taken) {
        connection.idle = false;
        sqlite3_set_last_insert_rowid(connection.db, 0);
        *db = connection.db;
        taken = true;
      }
    }
    return taken;
  }

  std::mutex mutex_;
  std::vector<Connection> list_;
};

}  // namespace
}  // namespace powercut

extern "C" {

int sqlite3_open(const char* path, sqlite3** db) { return Pool::get().open(path, db); }
int sqlite3_close(sqlite3* db) { return Pool::get().close(db); }

// The set-up program's work, without a process for it.
int system(const char* command) {
  static const auto real = next<int (*)(const char*)>("system");
  constexpr char kSetUp[] = "/usr/local/bin/dbsetup init; /usr/local/bin/dbsetup start";
  if (strcmp(command, kSetUp) == 0) return putEmptyDatabase() ? 0 : 256;
  return real(command);
}

int usleep(useconds_t microseconds) {
  static const auto real = next<int (*)(useconds_t)>("usleep");
  constexpr useconds_t kSettle = 500000;
  // In front of a recovery's next attempts: what this card says stays so.
  constexpr useconds_t kAttempts[] = {20000, 100000};
  // Nor does a card that refuses reads get better by being waited for.
  const bool inVain = microseconds == kSettle || microseconds == kAttempts[0] ||
                      microseconds == kAttempts[1] || Card::get().isRefusing();
  return inVain ? 0 : real(microseconds);
}

}  // extern "C"
