// One journaled insert, update and delete of an event, the management server included, against the
// same statements, writes and flushes alone; with the server on the same processor, and with both
// where the system puts them.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <vector>

#include "Machine.h"
#include "Pair.h"
#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "dblog/JournalFormat.h"
#include "recorder/rows/DatabaseSetup.h"

namespace {

using namespace bench;

constexpr char kBareDatabase[] = "/tmp/bare.dat";
constexpr uint32_t kRowsBefore = 200;
constexpr uint32_t kFewRows = 10;
constexpr uint32_t kManageBytes = 4 * 24 + 2;  // records of four journal chunks, and their checksum

DB_EVENT eventRow(uint32_t number) {
  return {0,
          static_cast<uint16_t>(number % 16),
          5,
          1700000000 + 60 * number,
          1700000030 + 60 * number,
          120,
          340,
          0};
}

// The bare half: a database of its own, and the far half of the journal chunks.
class BareJournal {
 public:
  explicit BareJournal(const Card& card)
      : fd_(open(kCardDevice, O_RDWR | O_CLOEXEC)),
        original_(card.chunkByte(tarn::kFileJournal, 0) + half(card)),
        mirror_(card.chunkByte(tarn::kFileJournal, 1) + half(card)),
        main_(card.chunkByte(tarn::kFileJournalManage, 0)),
        backup_(card.chunkByte(tarn::kFileJournalManage, 1)) {
    std::string error;
    if (!tarn::DatabaseSetup::createEmpty(kBareDatabase, &error)) give_up(error);
    if (sqlite3_open(kBareDatabase, &db_) != SQLITE_OK) give_up("no bare database");
    get(main_, manage_, sizeof manage_);
  }
  ~BareJournal() { sqlite3_close(db_); }

  void execute(const char* sql) {
    if (sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
      give_up(sqlite3_errmsg(db_));
  }
  // Of one row with one column.
  void select(const char* sql) {
    char** table = nullptr;
    int rows = 0, columns = 0;
    if (sqlite3_get_table(db_, sql, &table, &rows, &columns, nullptr) != SQLITE_OK || rows != 1) {
      give_up("the bare look-up failed");
    }
    sqlite3_free_table(table);
  }
  void readRecord(uint32_t number) { get(original_ + place(number), record_, sizeof record_); }
  void writeRecord(uint32_t number) {
    put(original_ + place(number), record_, sizeof record_);
    put(mirror_ + place(number), record_, sizeof record_);
  }
  void writeManagement() {
    put(backup_, manage_, sizeof manage_);
    put(main_, manage_, sizeof manage_);
  }

 private:
  static uint64_t half(const Card& card) {
    return card.layout().family(tarn::kFileJournal).chunkSize / 2;
  }
  static uint64_t place(uint32_t number) { return uint64_t{number} * tarn::kEventRecordSize; }

  void get(uint64_t at, void* bytes, size_t size) {
    if (pread(fd_.get(), bytes, size, static_cast<off_t>(at)) != static_cast<ssize_t>(size)) {
      give_up("the bare read failed");
    }
  }
  void put(uint64_t at, const void* bytes, size_t size) {
    if (pwrite(fd_.get(), bytes, size, static_cast<off_t>(at)) != static_cast<ssize_t>(size) ||
        fsync(fd_.get()) != 0) {
      give_up("the bare write failed");
    }
  }

  sqlite3* db_ = nullptr;
  tarn::UniqueFd fd_;
  uint64_t original_, mirror_, main_, backup_;
  uint8_t record_[tarn::kEventRecordSize] = {};
  uint8_t manage_[kManageBytes] = {};
};

enum class Change { kInsert, kUpdate, kDelete };

class JournalRig : public Rig {
 public:
  JournalRig(Medium medium, bool together, Change change, uint32_t count, int turns)
      : processor_(together), card_(medium, 256 * kMiB), change_(change), count_(count) {
    // Every insert before the first turn costs what it costs in one.
    const uint32_t rowsBefore = medium == Medium::kSlow ? kFewRows : kRowsBefore;
    makeEmptyDatabase();
    server_ = std::make_unique<ServerProcess>();
    bare_ = std::make_unique<BareJournal>(card_);
    const uint32_t rows =
        rowsBefore + (change == Change::kDelete ? count * static_cast<uint32_t>(turns) : 0);
    for (uint32_t i = 0; i < rows; ++i) {
      insertOurs();
      insertBare();
    }
    card_.sync();
  }
  ~JournalRig() override {
    db_.finish();
    CDbLog::getInstance()->finish();
  }

  double ours() override {
    const uint32_t first = ours_ + 1;
    const double seconds = timed([&] {
      for (uint32_t i = 0; i < count_; ++i) changeOurs(first + i);
    });
    if (change_ != Change::kInsert) ours_ += count_;
    return seconds;
  }
  double bare() override {
    const uint32_t first = bareKey_ + 1;
    const double seconds = timed([&] {
      for (uint32_t i = 0; i < count_; ++i) changeBare(first + i);
    });
    if (change_ != Change::kInsert) bareKey_ += count_;
    return seconds;
  }
  std::map<std::string, double> figures() override { return {{"count", count_}}; }

 private:
  void insertOurs() {
    DB_EVENT row = eventRow(inserted_++);
    if (db_.insertEvent(&row) == 0) give_up("an insert failed");
  }
  void insertBare() {
    const DB_EVENT row = eventRow(bareInserted_);
    char sql[512];
    snprintf(sql, sizeof sql,
             "INSERT INTO EVENT( extTrg, preSec, startDate, endDate, startMSec, endMSec, "
             "backOffset ) VALUES( '%u', '%u', '%u', '%u', '%u', '%u', '%u' )",
             row.extTrg, row.preSec, row.startDate, row.endDate, row.startMSec, row.endMSec,
             bareInserted_ * tarn::kEventRecordSize);
    bare_->execute(sql);
    bare_->writeRecord(bareInserted_++);
    bare_->writeManagement();
  }

  void changeOurs(uint32_t key) {
    if (change_ == Change::kInsert) return insertOurs();
    if (change_ == Change::kDelete) {
      if (db_.deleteEvent(key) != key) give_up("a delete failed");
      return;
    }
    DB_EVENT row = eventRow(key);
    row.eventID = key % kRowsBefore + 1;
    if (db_.updateEvent(kEventRegEndDate | kEventRegEndMSec, &row) == 0)
      give_up("an update failed");
  }

  void changeBare(uint32_t key) {
    if (change_ == Change::kInsert) return insertBare();
    const uint32_t row = change_ == Change::kDelete ? key : key % kRowsBefore + 1;
    char sql[256];
    const auto lookUp = [&] {
      snprintf(sql, sizeof sql, "SELECT backOffset FROM EVENT WHERE eventID = %u", row);
      bare_->select(sql);
    };
    if (change_ == Change::kUpdate) {
      snprintf(sql, sizeof sql, "UPDATE EVENT SET  endDate = %u, endMSec = %u WHERE eventID = %u",
               1700000000 + key, 340u, row);
      bare_->execute(sql);
      lookUp();
    } else {
      lookUp();
    }
    bare_->readRecord(row - 1);
    bare_->writeRecord(row - 1);
    if (change_ != Change::kDelete) return;
    snprintf(sql, sizeof sql, "DELETE FROM EVENT WHERE eventID = %u", row);
    bare_->execute(sql);
  }

  OneProcessor processor_;  // before the server, which inherits it
  Card card_;
  Change change_;
  uint32_t count_;
  std::unique_ptr<ServerProcess> server_;
  std::unique_ptr<BareJournal> bare_;
  CApiDb db_;
  uint32_t inserted_ = 0, bareInserted_ = 0;
  uint32_t ours_ = 0, bareKey_ = 0;  // keys that were changed last
};

constexpr int kTurns = 9;

constexpr bool kTogether = true;
constexpr bool kApart = false;

Pair journalPair(const char* name, Medium medium, bool together, Change change, uint32_t count,
                 int turns) {
  const char* group = medium == Medium::kSlow ? "slow" : "journal";
  return {group,
          name,
          Goal::kCost,
          1.25,
          turns,
          [=] {
            return std::make_unique<JournalRig>(medium, together, change, count, turns); }};
}

void addOn(const char* insert, const char* update, const char* erase, Medium medium, bool together,
           uint32_t count) {
  add(journalPair(insert, medium, together, Change::kInsert, count, kTurns));
  add(journalPair(update, medium, together, Change::kUpdate, count, kTurns));
  add(journalPair(erase, medium, together, Change::kDelete, count, kTurns));
}

const bool kRegistered = [] {
  addOn("insert/disk_1", "update/disk_1", "delete/disk_1", Medium::kDisk, kTogether, 50);
  addOn("insert/disk", "update/disk", "delete/disk", Medium::kDisk, kApart, 50);
  addOn("insert/ram_1", "update/ram_1", "delete/ram_1", Medium::kRam, kTogether, 300);
  addOn("insert/ram", "update/ram", "delete/ram", Medium::kRam, kApart, 300);
  return add(journalPair("insert/slow", Medium::kSlow, kApart, Change::kInsert, 20, 5));
}();

// A message of a request's size to another process and back, with work of as long as a statement
// takes in between: an idle processor that has to wake for it has fallen asleep by then.
std::map<std::string, double> messageCost(bool together) {
  constexpr int kMessages = 2000;
  constexpr double kPause = 50e-6;
  const OneProcessor processor(together);
  int ends[2];
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0) give_up("no sockets");
  uint8_t message[1024] = {};
  const pid_t echo = fork();
  if (echo == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    close(ends[0]);
    while (read(ends[1], message, sizeof message) == sizeof message) {
      if (write(ends[1], message, sizeof message) != sizeof message) break;
    }
    _exit(0);
  }
  close(ends[1]);
  double seconds = 0;
  for (int i = 0; i < kMessages; ++i) {
    double begin = now();
    while (now() < begin + kPause) {
    }
    begin = now();
    if (write(ends[0], message, sizeof message) != sizeof message ||
        read(ends[0], message, sizeof message) != sizeof message) {
      give_up("a message was lost");
    }
    seconds += now() - begin;
  }
  close(ends[0]);
  waitpid(echo, nullptr, 0);
  return {{"us", seconds * 1e6 / kMessages}};
}

const bool kMessageTogether =
    add(Figures{"journal", "message/together", 9, [] { return messageCost(kTogether); }});
const bool kMessageApart =
    add(Figures{"journal", "message/apart", 9, [] { return messageCost(kApart); }});

}  // namespace
