#include <sqlite3.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "db/DatabaseFile.h"
#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"
#include "recorder/recovery/EarlyRows.h"
#include "recorder/recovery/StartUp.h"

namespace tarn_test {
namespace {

using tarn::StartUp;
using tarn::StartUpReport;

constexpr uint32_t kJournal = 192 * kKiB;  // three blocks, and enough events for a thread
constexpr uint32_t kEvents = kJournal / 32 - 8;
constexpr uint32_t kStreams = 128 * kKiB / 64 + 40;
constexpr char kAnything[] = "not a database";

CardLayout layoutWithImage() {
  CardLayout layout = journalCard(kJournal);
  layout.families[tarn::kFileDbImage] = {1 * kMiB, 1, 0};
  return layout;
}

// A start after a power loss: the RAM disk is empty, the journals are full of rows.
class EarlyRowsTest : public CardTest {
 protected:
  EarlyRowsTest() : CardTest(layoutWithImage()) {
    for (const int chunk : {0, 2}) setPair(chunk, 0, Bytes(kJournal, 0xFF));
    Bytes events;
    for (uint32_t i = 0; i < kEvents; ++i) add(&events, eventAt(i));
    setPair(0, 0, events);
    Bytes streams;
    for (uint32_t i = 0; i < kStreams; ++i) add(&streams, streamAt(i));
    setPair(2, 0, streams);
    setManagement({kEvents * 32, kEvents * 32, kStreams * 64, kStreams * 64});
    setImageSize(0);
  }
  ~EarlyRowsTest() override { unlink(tarn::kEarlyDatabasePath); }

  static void add(Bytes* all, const Bytes& record) {
    all->insert(all->end(), record.begin(), record.end());
  }
  static Bytes eventAt(uint32_t i) {
    DB_EVENT row = eventRow(i + 1);
    row.backOffset = i * 32;
    return eventRecord(row, i % 5 == 3 ? 0xFFFFFFEF : 0xFFFFFFED);
  }
  static Bytes streamAt(uint32_t i) {
    DB_STREAM row = streamRow(i + 1);
    row.backOffset = i * 64;
    return streamRecord(row, i % 7 == 2 ? 0xFFFFFFEE : 0xFFFFFFEC);
  }
  void setImageSize(uint32_t size) {
    Bytes bytes;
    put(bytes, size, 4);
    card.writeChunk(tarn::kFileDbImage, 0, 0, bytes);
  }

  struct Outcome {
    StartUpReport report;
    bool early = false;
    std::vector<std::string> rows;
    std::vector<LogLine> lines;
  };
  // As Recovery has it. `there`: a database of before lies on the RAM disk, so nothing is early.
  Outcome start(bool there) {
    unlink("/tmp/DB.dat");
    if (there) makeDatabase();
    log.clear();
    StartUp startUp;
    Outcome outcome;
    EXPECT_TRUE(startUp.scrub()) << startUp.report().error;
    outcome.report = startUp.rebuild();
    outcome.early = startUp.hadEarlyRows();
    outcome.lines = log.withoutPrefix();
    for (const char* table : {"EVENT", "STREAM", "sqlite_sequence", "sqlite_master"}) {
      addRows(table, &outcome.rows);
    }
    EXPECT_EQ(access(tarn::kEarlyDatabasePath, F_OK), -1);
    return outcome;
  }
  static void addRows(const std::string& table, std::vector<std::string>* rows) {
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open("/tmp/DB.dat", &db), SQLITE_OK);
    const auto note = [](void* out, int columns, char** values, char**) {
      std::string text;
      for (int i = 0; i < columns; ++i) text += std::string(values[i] ? values[i] : "") + "|";
      static_cast<std::vector<std::string>*>(out)->push_back(text);
      return 0;
    };
    const std::string what = table == "sqlite_master"
                                 ? "type, name, tbl_name, sql FROM sqlite_master ORDER BY name"
                                 : "* FROM " + table + " ORDER BY 1";
    EXPECT_EQ(sqlite3_exec(db, ("SELECT " + what).c_str(), note, rows, nullptr), SQLITE_OK);
    sqlite3_close(db);
  }
  // What a start comes to that must do without, with all that it says.
  void expectAsWithout(const Outcome& outcome) {
    const Outcome behind = start(true);
    EXPECT_FALSE(behind.early);
    EXPECT_EQ(outcome.report.ok(), behind.report.ok()) << outcome.report.error;
    EXPECT_EQ(outcome.report.eventRows, behind.report.eventRows);
    EXPECT_EQ(outcome.report.streamRows, behind.report.streamRows);
    EXPECT_EQ(outcome.rows, behind.rows);
    EXPECT_EQ(outcome.lines, behind.lines);
    EXPECT_GT(behind.report.eventRows, 1000u);
  }
};

TEST_F(EarlyRowsTest, RowsLinesAndCountersAreThoseOfAReplayBehindTheReading) {
  const Outcome early = start(false);
  EXPECT_TRUE(early.early);
  EXPECT_TRUE(early.report.ok()) << early.report.error;
  EXPECT_EQ(early.report.eventRows, early.report.events.liveKeys);
  EXPECT_EQ(early.report.streamRows, early.report.streams.liveKeys);
  expectAsWithout(early);
}

TEST_F(EarlyRowsTest, AJournalThatIsFullEndsWithItsChunk) {
  Bytes last;
  for (uint32_t i = kEvents; i < kJournal / 32; ++i) add(&last, eventAt(i));
  setPair(0, kEvents * 32, last);
  const Outcome early = start(false);
  EXPECT_TRUE(early.early);
  expectAsWithout(early);
}

// What is mended is the card's to tell, and the replay's to say.
TEST_F(EarlyRowsTest, AFlawInEitherJournalLeavesAllToTheReplay) {
  const Bytes bad(32, 0x5A);
  struct Flaw {
    int chunk;
    uint32_t offset;
  };
  for (const Flaw flaw : {Flaw{1, 64}, Flaw{0, kEvents * 32 - 32}, Flaw{3, kStreams * 64 - 64}}) {
    const Bytes before = journal(flaw.chunk, flaw.offset, bad.size());
    setJournal(flaw.chunk, flaw.offset, bad);
    Outcome flawed = start(false);
    EXPECT_FALSE(flawed.early) << flaw.chunk << " at " << flaw.offset;
    EXPECT_EQ(flawed.report.events.copied + flawed.report.streams.copied, 1u);
    setJournal(flaw.chunk, flaw.offset, bad);
    expectAsWithout(flawed);
  }
}

TEST_F(EarlyRowsTest, RecordsOfRowsThatNeverWereLeaveAllToTheReplay) {
  DB_STREAM row = streamRow(1);  // behind its successors
  row.backOffset = kStreams * 64;
  setPair(2, kStreams * 64, streamRecord(row));
  setManagement({kEvents * 32, kEvents * 32, kStreams * 64 + 64, kStreams * 64 + 64});
  const Outcome outcome = start(false);
  EXPECT_EQ(outcome.report.streams.phantoms, 1u);
  EXPECT_FALSE(outcome.early);
  EXPECT_EQ(outcome.report.streamRows, outcome.report.streams.liveKeys);
}

// (Nor is a thread: a program that destroys one that runs is aborted.)
TEST_F(EarlyRowsTest, WhenTheStartIsStoppedNoRowsAreLeft) {
  unlink("/tmp/DB.dat");
  StartUp startUp;
  bool begun = false;
  EXPECT_FALSE(startUp.scrub([&] {
    begun = access(tarn::kEarlyDatabasePath, F_OK) == 0;
    return false;
  }));
  EXPECT_TRUE(begun);
  EXPECT_EQ(access("/tmp/DB.dat", F_OK), -1);
  EXPECT_EQ(access(tarn::kEarlyDatabasePath, F_OK), -1);
}

TEST_F(EarlyRowsTest, ARefusedPlaceStopsTheStartAndNothingCounts) {
  unlink("/tmp/DB.dat");
  IoFaults device(kCardPath);
  for (const int chunk : {2, 3}) {
    device.failAt(Call::Read, card.chunkStart(tarn::kFileJournal, chunk) + 70 * kKiB, 512, EIO);
  }
  StartUp startUp;
  EXPECT_FALSE(startUp.scrub());
  EXPECT_EQ(device.writes().size(), 0u);
  EXPECT_EQ(access("/tmp/DB.dat", F_OK), -1);
  EXPECT_EQ(access(tarn::kEarlyDatabasePath, F_OK), -1);
}

TEST_F(EarlyRowsTest, ARamDiskWithoutRoomForThemLeavesAllToTheReplay) {
  Outcome full;
  {
    IoFaults disk(tarn::kEarlyDatabasePath);
    disk.fail(Call::Pwrite, 1, ENOSPC, IoFaults::kForever);
    full = start(false);
    EXPECT_GT(disk.count(Call::Pwrite), 0u);
  }
  EXPECT_FALSE(full.early);
  expectAsWithout(full);
}

// It may spare the replay, and two databases in memory are one too many.
TEST_F(EarlyRowsTest, NothingBeginsBesideAnImageOrADatabase) {
  unlink("/tmp/DB.dat");
  setImageSize(4096);
  for (const bool there : {false, true}) {
    if (there) {
      setImageSize(0);
      makeDatabase();
    }
    bool begun = true;
    StartUp startUp;
    EXPECT_TRUE(startUp.scrub([&] {
      begun = access(tarn::kEarlyDatabasePath, F_OK) == 0;
      return true;
    }));
    EXPECT_FALSE(begun) << there;
  }
}

TEST_F(EarlyRowsTest, NothingBeginsWhereTheMemoryThatIsLeftIsNotKnown) {
  {
    IoFaults memory("/proc/meminfo");
    memory.fail(Call::Open, 1, EACCES, IoFaults::kForever);
    EXPECT_FALSE(start(false).early);
    EXPECT_EQ(memory.count(Call::Open), 1u);
  }
  EXPECT_TRUE(start(false).early);
}

// The program that makes the empty database may be another one, with tables of its own.
TEST_F(EarlyRowsTest, OnlyTheEmptyDatabaseThatIsExpectedIsReplaced) {
  for (const char* sql :
       {"CREATE TABLE OTHER( a )", "INSERT INTO EVENT( backOffset ) VALUES( 1 )"}) {
    unlink("/tmp/DB.dat");
    tarn::JournalBytes events(tarn::journalTraits(tarn::JournalKind::kEvent));
    tarn::JournalBytes streams(tarn::journalTraits(tarn::JournalKind::kStream));
    for (uint32_t i = 0; i < kEvents; ++i) events.keep(i * 32, eventAt(i).data());
    tarn::EarlyRows early(&events, &streams);
    early.read(tarn::JournalKind::kEvent, 128 * kKiB);
    early.ended(tarn::JournalKind::kEvent, kEvents, true);
    early.ended(tarn::JournalKind::kStream, 0, true);
    makeDatabase();
    CApiDb().setSqlNoResult(sql);
    EXPECT_FALSE(early.moveInto()) << sql;
    early.drop();
    CApiDb db;
    db.setSql("SELECT COUNT(*) FROM EVENT");
    EXPECT_LE(db.getValue(0, 0), 1u);
  }
}

TEST_F(EarlyRowsTest, WhatAKilledStartLeftGoes) {
  FILE* left = fopen(tarn::kEarlyDatabasePath, "w");
  ASSERT_NE(left, nullptr);
  fputs(kAnything, left);
  fclose(left);
  EXPECT_TRUE(start(true).report.ok());
  EXPECT_TRUE(start(false).early);
}

}  // namespace
}  // namespace tarn_test
