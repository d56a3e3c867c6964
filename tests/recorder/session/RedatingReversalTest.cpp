#include <cstring>

#include "recorder/SoundRig.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/ClockEras.h"
#include "recorder/rows/RedatingUndo.h"
#include "recorder/session/AllocationLock.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/RedatingReversal.h"
#include "recorder/session/RedatingRig.h"
#include "recorder/session/RunningTables.h"

namespace tarn_test {
namespace {

// As the tables of a recorder, until the process dies or power goes in front of a change.
class DyingTables : public tarn::RunningTables {
 public:
  DyingTables(CApiDb* db, CTARNStreamManager* manager, int changes)
      : RunningTables(db, nullptr, manager), left_(changes) {}
  bool change(const DB_STREAM& before, const DB_STREAM& after) override {
    return --left_ >= 0 && RunningTables::change(before, after);
  }
  bool change(const DB_EVENT& before, const DB_EVENT& after) override {
    return --left_ >= 0 && RunningTables::change(before, after);
  }

 private:
  int left_;
};

// The card gives nothing of a place from the decision on.
class RefusedTables : public tarn::RunningTables {
 public:
  RefusedTables(CApiDb* db, CTARNStreamManager* manager, uint64_t byte)
      : RunningTables(db, nullptr, manager), byte_(byte) {}
  bool change(const DB_STREAM& before, const DB_STREAM& after) override {
    if ((after.status & tarn::kStatusTakingBack) != 0)
      faults_.failAt(Call::Read, byte_ - tarn::kRecordSize, 64 * kKiB, EIO);
    return RunningTables::change(before, after);
  }

 private:
  IoFaults faults_{kCardPath};
  uint64_t byte_;
};

class RedatingReversalTest : public RedatingRig {
 protected:
  // Two channels, an event that has ended and one that runs on, and a copy; then the clock becomes
  // known, and channel 0 goes on.
  void live() {
    RecordingSession session;
    RecordingSession other;
    ASSERT_EQ(0, session.open(options(0)));
    ASSERT_EQ(0, other.open(options(1)));
    recordPictures(session, kBoot, 0, 100);
    const uint32_t ended = session.beginEvent(7, at(kBoot, 60), 1);
    ASSERT_EQ(0, session.endEvent(ended, at(kBoot, 90)));
    const uint32_t running = session.beginEvent(8, at(kBoot, 95), 0);
    {
      tarn::KeptCopies kept;
      ASSERT_EQ(0, kept.open({})) << kept.errorText();
      ASSERT_EQ(1u, keep(&kept, kBoot, 0, 20));
      kept.close();
    }
    recordPictures(other, kBoot, 0, 50);
    ASSERT_EQ(0, other.close());
    ASSERT_EQ(0, session.clockStepped(1));  // what is closed now is what is moved then
    before_ = allStreams();
    copiesBefore_ = copies();
    eventsBefore_ = allEvents();
    tarn::ClockEras::begin(0, {1, 1});
    ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond)) << session.errorText();
    recordPictures(session, kBoot + kStep, 125, 200);
    ASSERT_EQ(0, session.endEvent(running, at(kBoot + kStep, 190)));
    ASSERT_EQ(0, session.close());
    for (const LogLine& line : log_.lines()) {
      if (record_.parse(line.text)) ++records_;
    }
    ASSERT_EQ(1u, records_);
    ASSERT_EQ(kStep, record_.seconds);
  }

  int undo() { return undo(record_); }
  int undo(const tarn::RedatingRecord& record) {
    if (reversal_.open(true) != 0) return -1;
    const int result = reversal_.undo(record, &done_);
    reversal_.close();
    return result;
  }

  // What a process does that dies in front of its next change. Whether that was all.
  bool undoUntilDeath(int changes) {
    CTARNStreamManager manager(tarn::kRecorderPartition);
    EXPECT_EQ(0, manager.openManageData());
    CApiDb db;
    DyingTables tables(&db, &manager, changes);
    tarn::RedatingUndo undo(&tables);
    tarn::RedatingPlan plan;
    EXPECT_TRUE(undo.plan(record_, &plan));
    const bool whole = undo.run(plan);
    manager.closeManageData();
    return whole;
  }

  // Recordings of the old clock, copies and the event that ended are as they were, bit by bit; of
  // the one that ran on the start.
  bool isAllBack() {
    const std::vector<DB_EVENT> events = allEvents();
    DB_EVENT running = events.at(1);
    running.endDate = eventsBefore_.at(1).endDate;
    running.endMSec = eventsBefore_.at(1).endMSec;
    return sameAs(before_, allStreams()) && sameAs(copiesBefore_, copies()) &&
           memcmp(&events[0], &eventsBefore_[0], sizeof running) == 0 &&
           memcmp(&running, &eventsBefore_[1], sizeof running) == 0;
  }
  template <typename Row>
  static bool sameAs(const std::vector<Row>& before, const std::vector<Row>& now) {
    return now.size() >= before.size() &&
           memcmp(before.data(), now.data(), before.size() * sizeof(Row)) == 0;
  }

  std::vector<DB_STREAM> before_;
  std::vector<DB_STREAM> copiesBefore_;
  std::vector<DB_EVENT> eventsBefore_;
  tarn::RedatingRecord record_;
  unsigned records_ = 0;
  tarn::RedatingReversal reversal_;
  tarn::RedatingPlan done_;
};

TEST_F(RedatingReversalTest, TheLogsRecordTakesItBackBitByBit) {
  live();
  ASSERT_EQ(0, undo()) << reversal_.errorText();
  EXPECT_EQ(3u, done_.recordings.size());
  EXPECT_EQ(2u, done_.events.size());
  EXPECT_EQ(0u, done_.unreadable);
  EXPECT_TRUE(isAllBack());
  EXPECT_EQ(at(kBoot + kStep, 190).seconds, allEvents()[1].endDate) << "it ended by the new clock";
  EXPECT_TRUE(log_.has(LOG_NOTICE,
                       "channel 0: taken back: 3 of recordings 1 to 4 and 2 of events 1 to 2 have "
                       "the times of the earlier clock again, 1700000000 s earlier"));
  restart();
  EXPECT_TRUE(isAllBack());
  EXPECT_EQ(0u, findings().total()) << texts();
}

TEST_F(RedatingReversalTest, ACopyThatWasKeptBehindItGoesBackWithItsRecording) {
  live();
  {
    tarn::KeptCopies kept;
    ASSERT_EQ(0, kept.open({})) << kept.errorText();
    ASSERT_EQ(1u, keep(&kept, kBoot + kStep, 60, 90));
    kept.close();
  }
  expectTimes(copies().at(1), kBoot + kStep, 50);
  ASSERT_EQ(0, undo()) << reversal_.errorText();
  EXPECT_TRUE(isAllBack());
  for (int start = 0; start < 2; ++start) {
    expectTimes(copies().at(1), kBoot, 50);
    restart();
  }
  EXPECT_EQ(0u, findings().total()) << texts();
}

// Whether its entries have the right times nobody knows then: they are asked again when they can
// be.
TEST_F(RedatingReversalTest, ACopyThatIsRefusedMeanwhileIsCorrectedByItsEntriesAllTheSame) {
  live();
  {
    tarn::KeptCopies kept;
    ASSERT_EQ(0, kept.open({})) << kept.errorText();
    ASSERT_EQ(1u, keep(&kept, kBoot + kStep, 60, 90));
    kept.close();
  }
  {
    CTARNStreamManager manager(tarn::kRecorderPartition);
    ASSERT_EQ(0, manager.openManageData());
    CApiDb db;
    RefusedTables tables(&db, &manager, static_cast<uint64_t>(entryByte(copies().at(1), 0)));
    tarn::RedatingUndo undo(&tables);
    tarn::RedatingPlan plan;
    ASSERT_TRUE(undo.plan(record_, &plan));
    ASSERT_TRUE(undo.run(plan));
    manager.closeManageData();
  }
  EXPECT_TRUE(isAllBack());
  expectTimes(copies().at(1), kBoot, 50);
}

TEST_F(RedatingReversalTest, WhatDoesNotFitIsRefusedAndStays) {
  live();
  tarn::RedatingRecord other = record_;
  other.seconds += 1;
  const std::vector<DB_STREAM> rows = allStreams();
  const std::vector<DB_EVENT> events = allEvents();
  EXPECT_EQ(-1, undo(other));
  EXPECT_STREQ(tarn::kErrTakeBackNothing, reversal_.errorText());
  other = record_;
  other.channel = 1;
  EXPECT_EQ(-1, undo(other));
  other = record_;
  other.sound = true;
  EXPECT_EQ(-1, undo(other));
  EXPECT_TRUE(sameAs(rows, allStreams()));
  EXPECT_TRUE(sameAs(events, allEvents()));
  ASSERT_EQ(0, undo());
  EXPECT_EQ(-1, undo()) << "taken back already";
  EXPECT_STREQ(tarn::kErrTakeBackNothing, reversal_.errorText());
  EXPECT_TRUE(isAllBack());
}

TEST_F(RedatingReversalTest, ARecordingThatTellsNothingKeepsItsTime) {
  live();
  const DB_STREAM row = allStreams().at(0);
  const Bytes nothing((kPictures + 2) * tarn::kRecordSize, 0xFF);
  write(entryByte(row, 0) - tarn::kRecordSize, nothing);
  ASSERT_EQ(0, undo()) << reversal_.errorText();
  EXPECT_EQ(1u, done_.unreadable);
  EXPECT_EQ(2u, done_.recordings.size());
  EXPECT_EQ(0, memcmp(&row, &allStreams()[0], sizeof row));
}

TEST_F(RedatingReversalTest, LookingChangesNothingAndIsNoRightToChange) {
  live();
  const Bytes before = wholeCard();
  ASSERT_EQ(0, reversal_.open(false)) << reversal_.errorText();
  tarn::RedatingPlan plan;
  ASSERT_EQ(0, reversal_.plan(record_, &plan));
  EXPECT_EQ(3u, plan.recordings.size());
  EXPECT_EQ(2u, plan.events.size());
  EXPECT_EQ(-1, reversal_.undo(record_, &plan));
  reversal_.close();
  EXPECT_TRUE(before == wholeCard());
}

TEST_F(RedatingReversalTest, SoundGoesBackByARecordOfItsOwn) {
  tarn::SoundSession sound;
  ASSERT_TRUE(openSound(sound));
  ASSERT_TRUE(writeSound(sound, 0, 200));
  ASSERT_EQ(0, sound.clockStepped(1));
  const std::vector<DB_STREAM> before = allStreams();
  tarn::ClockEras::begin(tarn::Redating::family(0, true), {1, 1});
  ASSERT_EQ(0, sound.clockBecameKnown(3600 * kSecond)) << sound.errorText();
  ASSERT_EQ(0, sound.close());
  EXPECT_EQ(before.at(0).startDate + 3600, allStreams().at(0).startDate);
  tarn::RedatingRecord record;
  unsigned records = 0;
  for (const LogLine& line : log_.lines()) records += record.parse(line.text) ? 1 : 0;
  ASSERT_EQ(1u, records);
  EXPECT_TRUE(record.sound);
  ASSERT_EQ(0, undo(record)) << reversal_.errorText();
  EXPECT_TRUE(sameAs(before, allStreams()));
  EXPECT_EQ(range(0, 200), allFrames());
  stopServer();
  EXPECT_EQ(0u, findings().total()) << texts();
}

// Wherever it is cut short, and whoever comes next, a start or a session: all of it or nothing.
TEST_F(RedatingReversalTest, CutShortItIsTakenBackWholeOrNotAtAll) {
  live();
  stopServer();
  const Bytes card = wholeCard();
  unsigned wentOn = 0;
  unsigned stood = 0;
  bool whole = false;
  for (int changes = 0; !whole; ++changes) {
    write(0, card);
    restart();
    startServer();
    whole = undoUntilDeath(changes);
    if (changes % 3 == 1) {
      RecordingSession next;
      ASSERT_EQ(0, next.open(options(0))) << next.errorText();
      ASSERT_EQ(0, next.close());
    }
    restart();
    if (isAllBack()) {
      ++wentOn;
      continue;
    }
    ++stood;
    EXPECT_FALSE(whole);
    expectTimes(allStreams()[0], kBoot + kStep, 0);
    expectTimes(allStreams()[1], kBoot + kStep, 50);
    expectTimes(copies()[0], kBoot + kStep, 0);
    EXPECT_EQ(at(kBoot + kStep, 60).seconds, allEvents()[0].startDate);
    EXPECT_EQ(at(kBoot + kStep, 60).milliseconds(), allEvents()[0].startMSec);
  }
  EXPECT_EQ(6u, stood) << "five marks and the decision";
  EXPECT_EQ(6u, wentOn);
  EXPECT_EQ(0u, findings().total()) << texts();
}

// Whoever ends a re-dating that was cut short writes the record that was not written.
TEST_F(RedatingReversalTest, ARedatingThatPowerCutShortHasARecordToo) {
  live();
  stopServer();
  const DB_STREAM row = allStreams().at(1);
  editRow(row, tarn::kStreamStatusOff, row.status & ~tarn::kStatusRedated);
  editRow(row, tarn::kStreamStartDateOff, static_cast<uint32_t>(row.startDate - kStep));
  editRow(row, tarn::kStreamEndDateOff, static_cast<uint32_t>(row.endDate - kStep));
  const DB_STREAM first = allStreams().at(0);
  editRow(first, tarn::kStreamStatusOff, first.status | tarn::kStatusRedating);
  log_.clear();
  restart();
  tarn::RedatingRecord record;
  unsigned records = 0;
  for (const LogLine& line : log_.lines()) records += record.parse(line.text) ? 1 : 0;
  ASSERT_EQ(1u, records);
  startServer();
  ASSERT_EQ(0, undo(record)) << reversal_.errorText();
  EXPECT_TRUE(isAllBack());
}

}  // namespace
}  // namespace tarn_test
