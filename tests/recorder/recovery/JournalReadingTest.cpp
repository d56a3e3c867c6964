#include <algorithm>

#include "dblog/CDbRestore.h"
#include "dblog/JournalBytes.h"
#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"
#include "recorder/recovery/JournalSurvey.h"
#include "recorder/recovery/StartUp.h"

namespace tarn_test {
namespace {

using tarn::JournalBytes;
using tarn::JournalKind;
using tarn::JournalSurvey;

constexpr uint32_t kLargeJournal = 192 * kKiB;  // three blocks
constexpr uint32_t kMendBytes = 4 * kKiB;       // read again around a record that is mended

// How often a start asks the card for each byte of its journals, which have several blocks. Most
// records are deleted ones, so that there are few statements.
class JournalReading : public CardTest {
 protected:
  JournalReading() : CardTest(kLargeJournal) { fill(kLargeJournal); }

  // Both journals as far as `bytes`.
  void fill(uint32_t bytes) {
    for (const int chunk : {0, 2}) setPair(chunk, 0, Bytes(kLargeJournal, 0xFF));
    Bytes events;
    for (uint32_t at = 0; at < bytes; at += 32) append(&events, eventAt(at));
    setPair(0, 0, events);
    Bytes streams;
    for (uint32_t at = 0; at < bytes; at += 64) append(&streams, streamAt(at));
    setPair(2, 0, streams);
    const uint32_t free = bytes % kLargeJournal;
    setManagement({free, free, free, free});
  }
  static void append(Bytes* all, const Bytes& record) {
    all->insert(all->end(), record.begin(), record.end());
  }
  static Bytes eventAt(uint32_t offset, bool live = false) {
    DB_EVENT row = eventRow(offset / 32 + 1);
    row.backOffset = offset;
    return eventRecord(row, live || offset % 2048 == 0 ? 0xFFFFFFED : 0xFFFFFFEF);
  }
  static Bytes streamAt(uint32_t offset) {
    DB_STREAM row = streamRow(offset / 64 + 1);
    row.backOffset = offset;
    return streamRecord(row, offset % 4096 == 0 ? 0xFFFFFFEC : 0xFFFFFFEE);
  }

  // Reads that each byte of a chunk was asked for in, of the calls so far.
  std::vector<uint8_t> timesRead(const IoFaults& device, int chunk) const {
    const auto start = static_cast<int64_t>(card.chunkStart(tarn::kFileJournal, chunk));
    std::vector<uint8_t> times(kLargeJournal, 0);
    for (const IoRecord& call : device.calls()) {
      if (call.call != Call::Read && call.call != Call::Pread) continue;
      const int64_t from = std::max<int64_t>(call.offset - start, 0);
      const int64_t to =
          std::min<int64_t>(call.offset - start + static_cast<int64_t>(call.length), kLargeJournal);
      for (int64_t at = from; at < to; ++at) ++times[static_cast<size_t>(at)];
    }
    return times;
  }
  static uint64_t readAgain(const std::vector<uint8_t>& times) {
    uint64_t again = 0;
    for (const uint8_t count : times) again += count > 1 ? count - 1u : 0u;
    return again;
  }
  // Bytes of the chunk that were asked for more than once in a start.
  uint64_t readAgainByStart(int chunk) const {
    const IoFaults device(kCardPath);
    const tarn::StartUpReport report = tarn::StartUp().run();
    EXPECT_TRUE(report.ok()) << report.error;
    return readAgain(timesRead(device, chunk));
  }

  static std::vector<std::vector<uint32_t>> rowsOf(const char* table) {
    CApiDb db;
    db.setSql((std::string("SELECT * FROM ") + table).c_str());
    std::vector<std::vector<uint32_t>> rows(db.getNTuple());
    for (uint32_t row = 0; row < db.getNTuple(); ++row) {
      for (uint32_t column = 0; column < db.getNColumn(); ++column) {
        rows[row].push_back(db.getValue(static_cast<long>(row), static_cast<long>(column)));
      }
    }
    return rows;
  }
  // What a replay leaves and says, with and without what was read before.
  struct Outcome {
    std::vector<std::vector<uint32_t>> events, streams;
    std::vector<LogLine> lines;
    bool operator==(const Outcome& o) const {
      return events == o.events && streams == o.streams && lines == o.lines;
    }
  };
  Outcome replay(const JournalBytes* events, const JournalBytes* streams) {
    makeDatabase();
    log.clear();
    CDbRestore restore;
    EXPECT_EQ(restore.restoreEventDb(events), 0);
    EXPECT_EQ(restore.restoreStreamDb(2, streams), 0);
    Outcome outcome{rowsOf("EVENT"), rowsOf("STREAM"), log.withoutPrefix()};
    return outcome;
  }
};

TEST_F(JournalReading, AStartReadsEachByteOfBothCopiesOnce) {
  const IoFaults device(kCardPath);
  const tarn::StartUpReport report = tarn::StartUp().run();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.eventRows, kLargeJournal / 2048);
  EXPECT_EQ(report.streamRows, kLargeJournal / 4096);
  for (const int chunk : {0, 1, 2, 3}) {
    EXPECT_EQ(timesRead(device, chunk), std::vector<uint8_t>(kLargeJournal, 1)) << chunk;
  }
}

// Behind the end of a journal that has not come round, and its last place, which tells that.
TEST_F(JournalReading, NorIsMuchReadBehindTheEnd) {
  fill(kLargeJournal / 2 + 640);
  const IoFaults device(kCardPath);
  ASSERT_TRUE(tarn::StartUp().run().ok());
  for (const int chunk : {0, 1, 2, 3}) {
    const std::vector<uint8_t> times = timesRead(device, chunk);
    EXPECT_EQ(std::count(times.begin(), times.begin() + kLargeJournal / 2 + 640, 0), 0);
    // The replay looks at the end by itself.
    EXPECT_LE(readAgain(times), 64 * kKiB + 64) << chunk;
    EXPECT_EQ(readAgain({times.begin(), times.begin() + kLargeJournal / 2 + 640}), 0u) << chunk;
  }
}

TEST_F(JournalReading, OfRecordsThatDisagreeLittleIsReadAgain) {
  setJournal(0, 32 * 100, Bytes(32, 0x5A));        // bad in the original
  setJournal(1, 32 * 3000, Bytes(32, 0x5A));       // in the mirror
  setPair(0, 32 * 5000, Bytes(32, 0x5A));          // in both
  setJournal(1, 32 * 65, eventAt(32 * 65, true));  // good in both, but different
  // Once to mend it, once to replay it.
  EXPECT_LE(readAgainByStart(0), 4 * 2 * kMendBytes);
  EXPECT_EQ(readAgainByStart(0), 0u) << "mended";
}

TEST_F(JournalReading, WhatWasReadBeforeGivesTheSameRowsAndLines) {
  setJournal(0, 32 * 64, Bytes(32, 0x5A));
  setJournal(1, 32 * 128, Bytes(32, 0x5A));
  setPair(0, 32 * 192, Bytes(32, 0x5A));             // becomes a deleted record
  setPair(0, 32 * 256, Bytes(32, 0));                // has the checksum of zeros
  setPair(0, 32 * 320, eventAt(32 * 64, true));      // belongs elsewhere
  setJournal(0, 32 * 385, eventAt(32 * 385, true));  // the newer of two
  setJournal(2, 64 * 640, Bytes(512, 0xFF));
  setPair(2, 64 * 1281, streamAt(64 * 1280));
  JournalBytes events(tarn::journalTraits(JournalKind::kEvent));
  JournalBytes streams(tarn::journalTraits(JournalKind::kStream));
  JournalSurvey ofEvents;
  JournalSurvey ofStreams;
  ASSERT_EQ(tarn::scrubJournals(&ofEvents, &ofStreams, nullptr, &events, &streams), 0);
  EXPECT_EQ(ofEvents.copied, 2u);
  EXPECT_NE(events.at(0), nullptr);
  for (const uint32_t place : {64, 128, 192, 256, 320, 385}) {
    EXPECT_EQ(events.at(32 * place), nullptr) << place;
  }
  const Outcome known = replay(&events, &streams);
  const Outcome asked = replay(nullptr, nullptr);
  EXPECT_EQ(known.events, asked.events);
  EXPECT_EQ(known.streams, asked.streams);
  EXPECT_EQ(known.lines, asked.lines);
  EXPECT_EQ(known.events.size(), ofEvents.liveKeys);
  EXPECT_EQ(known.streams.size(), ofStreams.liveKeys);
}

// A copy that was refused proves nothing: the replay asks for it, and says what it takes instead.
TEST_F(JournalReading, BesideARefusedCopyNothingIsKept) {
  const uint64_t start = card.chunkStart(tarn::kFileJournal, 0);
  IoFaults device(kCardPath);
  device.failAt(Call::Read, start + 512, 512, EIO);
  const tarn::StartUpReport report = tarn::StartUp().run();
  EXPECT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.events.unread, 512u / 32);
  size_t said = 0;
  for (const LogLine& line : log.atPriority(LOG_WARNING)) {
    said += line.text.find("mirror") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(said, 512u / 32);
}

// A place that was written is the card's to tell.
TEST_F(JournalReading, WhatTheMendingWroteIsForgotten) {
  const Bytes phantom = streamAt(0);  // a live record under an earlier row's key, at the end
  fill(kLargeJournal / 2);
  DB_STREAM row = streamRow(1);
  row.backOffset = kLargeJournal / 2;
  setPair(2, kLargeJournal / 2, streamRecord(row));
  const uint32_t free = kLargeJournal / 2;
  setManagement({free, free, free + 64, free + 64});
  JournalBytes events(tarn::journalTraits(JournalKind::kEvent));
  JournalBytes streams(tarn::journalTraits(JournalKind::kStream));
  JournalSurvey ofEvents;
  JournalSurvey ofStreams;
  ASSERT_EQ(tarn::scrubJournals(&ofEvents, &ofStreams, nullptr, &events, &streams), 0);
  EXPECT_EQ(ofStreams.phantoms, 1u);
  EXPECT_EQ(streams.at(kLargeJournal / 2), nullptr);
  ASSERT_NE(streams.at(0), nullptr);
  EXPECT_EQ(Bytes(streams.at(0), streams.at(0) + 64), phantom);
  EXPECT_EQ(replay(&events, &streams), replay(nullptr, nullptr));
}

TEST(JournalBytes, GivesWhatItKeepsAndTheDistanceToIt) {
  JournalBytes bytes(tarn::journalTraits(JournalKind::kStream));
  const Bytes first(64, 1);
  const Bytes last(64, 2);
  const uint32_t end = tarn::kMaxJournalBytes - 64;
  EXPECT_EQ(bytes.at(0), nullptr);
  EXPECT_EQ(bytes.gapFrom(0, 4096), 4096u);
  bytes.keep(64, first.data());
  bytes.keep(end, last.data());
  EXPECT_EQ(bytes.gapFrom(0, 4096), 64u);
  EXPECT_EQ(bytes.gapFrom(64, 4096), 0u);
  ASSERT_NE(bytes.at(64), nullptr);
  EXPECT_EQ(Bytes(bytes.at(64), bytes.at(64) + 64), first);
  ASSERT_NE(bytes.at(end), nullptr);
  EXPECT_EQ(Bytes(bytes.at(end), bytes.at(end) + 64), last);
  EXPECT_EQ(bytes.at(128), nullptr);
  bytes.forget(64);
  bytes.forget(tarn::kMaxJournalBytes / 2);
  EXPECT_EQ(bytes.at(64), nullptr);
  bytes.keep(tarn::kMaxJournalBytes, last.data());  // no journal is read so far
  EXPECT_EQ(bytes.at(tarn::kMaxJournalBytes), nullptr);
}

}  // namespace
}  // namespace tarn_test
