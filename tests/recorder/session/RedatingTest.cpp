#include <syslog.h>

#include <cstdio>
#include <cstring>

#include "db/DbRecordFormat.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/ClockEras.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/session/KeptMessages.h"
#include "recorder/session/RedatingRig.h"

namespace tarn_test {
namespace {

using RedatingTest = RedatingRig;

TEST_F(RedatingTest, RecordingsAndEventsOfThisStartGetTheirTimesWhenTheClockBecomesKnown) {
  RecordingSession session;
  ASSERT_EQ(0, session.open(options(0)));
  recordPictures(session, kBoot, 0, 110);  // rows of 50, 50 and 10
  const uint32_t event = session.beginEvent(7, at(kBoot, 60), 1);
  ASSERT_NE(0u, event);
  ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond + 900000)) << session.errorText();
  recordPictures(session, kBoot + kStep, 125, 150);
  ASSERT_EQ(0, session.endEvent(event, at(kBoot + kStep, 140)));
  ASSERT_EQ(0, session.close());

  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(4u, rows.size());
  expectTimes(rows[0], kBoot + kStep, 0);
  expectTimes(rows[1], kBoot + kStep, 50);
  expectTimes(rows[2], kBoot + kStep, 100);
  expectTimes(rows[3], kBoot + kStep, 125);
  for (size_t i = 0; i < 4; ++i)
    EXPECT_EQ(i < 3 ? tarn::kStatusRedated : 0u,
              rows[i].status & (tarn::kStatusRedated | tarn::kStatusRedating));
  const std::vector<DB_EVENT> events = allEvents();
  ASSERT_EQ(1u, events.size());
  EXPECT_EQ(at(kBoot + kStep, 60).seconds, events[0].startDate);
  EXPECT_EQ(at(kBoot + kStep, 140).seconds, events[0].endDate);
  EXPECT_TRUE(
      log_.has(LOG_NOTICE,
               "RecordingSession: channel 0: re-dated 3 of recordings 1 to 3 and 1 of events "
               "1 to 1 by 1700000000 s"));
  expectNoFindings();
}

TEST_F(RedatingTest, ACopyThatIsKeptLaterHasTheTimesOfTheRowAndNoFinding) {
  recordAndRedate();
  tarn::KeptCopies kept;
  ASSERT_EQ(0, kept.open({})) << kept.errorText();
  tarn::KeepWanted wanted;
  wanted.from = at(kBoot + kStep, 0);
  wanted.to = at(kBoot + kStep, 149);
  tarn::KeepResult result;
  ASSERT_EQ(tarn::KeepOutcome::kDone, kept.keep(wanted, nullptr, &result)) << kept.errorText();
  kept.close();
  EXPECT_EQ(150u, result.pictures);
  for (uint32_t i = 0; i < 3; ++i) {
    CApiDb db;
    DB_STREAM copy = {};
    ASSERT_EQ(1u, db.selectStream(4 + i, &copy));
    expectTimes(copy, kBoot + kStep, i * 50);
  }
  expectNoFindings();
}

TEST_F(RedatingTest, WhatAnEarlierStartRecordedKeepsItsTime) {
  {
    RecordingSession before;
    ASSERT_EQ(0, before.open(options(0)));
    recordPictures(before, kBoot, 0, 50);
    ASSERT_EQ(0, before.close());
  }
  tarn::ClockEras::forget();  // as a recovery does
  RecordingSession session;
  ASSERT_EQ(0, session.open(options(0)));
  recordPictures(session, kBoot, 50, 100);
  ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond));
  ASSERT_EQ(0, session.close());
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(2u, rows.size());
  expectTimes(rows[0], kBoot, 0);
  expectTimes(rows[1], kBoot + kStep, 50);
}

TEST_F(RedatingTest, ProcessThatWasStartedAgainRedatesWhatTheFirstOneRecorded) {
  {
    RecordingSession before;
    ASSERT_EQ(0, before.open(options(0)));
    recordPictures(before, kBoot, 0, 50);
    ASSERT_NE(0u, before.beginEvent(3, at(kBoot, 10), 0));
    ASSERT_EQ(0, before.close());
  }
  RecordingSession session;
  ASSERT_EQ(0, session.open(options(0)));
  ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond));
  ASSERT_EQ(0, session.close());
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(1u, rows.size());
  expectTimes(rows[0], kBoot + kStep, 0);
  ASSERT_EQ(1u, allEvents().size());
  EXPECT_EQ(at(kBoot + kStep, 10).seconds, allEvents()[0].startDate);
}

TEST_F(RedatingTest, ClockThatIsKnownAlreadyAndIsSetMovesNothing) {
  RecordingSession session;
  ASSERT_EQ(0, session.open(options(0)));
  recordPictures(session, kBoot, 0, 50);
  ASSERT_EQ(0, session.clockStepped(kStep * kSecond));
  recordPictures(session, kBoot + kStep, 50, 100);
  // What was recorded in front of the last time that it was set is of another error.
  ASSERT_EQ(0, session.clockBecameKnown(3600 * kSecond));
  ASSERT_EQ(0, session.close());
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(2u, rows.size());
  expectTimes(rows[0], kBoot, 0);
  expectTimes(rows[1], kBoot + kStep + 3600, 50);
}

TEST_F(RedatingTest, EachChannelMovesItsOwnRecordingsAndEachEventOnce) {
  RecordingSession first;
  RecordingSession second;
  ASSERT_EQ(0, first.open(options(0)));
  ASSERT_EQ(0, second.open(options(1)));
  recordPictures(first, kBoot, 0, 50);
  recordPictures(second, kBoot, 0, 50);
  const uint32_t event = second.beginEvent(7, at(kBoot, 20), 0);
  ASSERT_EQ(0, first.clockBecameKnown(kStep * kSecond));
  recordPictures(first, kBoot + kStep, 50, 75);
  ASSERT_EQ(0, second.clockBecameKnown(kStep * kSecond));
  ASSERT_EQ(0, second.endEvent(event, at(kBoot + kStep, 40)));
  ASSERT_EQ(0, first.close());
  ASSERT_EQ(0, second.close());
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(3u, rows.size());
  expectTimes(rows[0], kBoot + kStep, 0);
  expectTimes(rows[1], kBoot + kStep, 0);
  expectTimes(rows[2], kBoot + kStep, 50);
  ASSERT_EQ(1u, allEvents().size());
  EXPECT_EQ(at(kBoot + kStep, 20).seconds, allEvents()[0].startDate);
  expectNoFindings();
}

TEST_F(RedatingTest, HeaderTellsTheCorrectionWhereTheFirstEntryIsDamaged) {
  RecordingSession session;
  ASSERT_EQ(0, session.open(options(0)));
  recordPictures(session, kBoot, 0, 50);
  ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond));
  ASSERT_EQ(0, session.close());
  const DB_STREAM row = allStreams().at(0);
  for (const bool headerToo : {false, true}) {
    write(entryByte(row, 0), Bytes(tarn::kRecordSize, 0xFF));
    if (headerToo) write(entryByte(row, 0) - tarn::kRecordSize, Bytes(tarn::kRecordSize, 0xFF));
    tarn::RecordingReader reader;
    ASSERT_EQ(0, reader.open(row));
    tarn::PictureEntry entry;
    ASSERT_TRUE(reader.picture(20, &entry));
    EXPECT_EQ(at(kBoot + kStep, 20), entry.presentation) << headerToo;
  }
}

TEST_F(RedatingTest, RecoveryLeavesRedatedRecordingsAsTheyAre) {
  recordAndRedate();
  const Bytes before = wholeCard();
  for (int start = 0; start < 2; ++start) {
    restart();
    expectAllRedated();
  }
  EXPECT_TRUE(before == wholeCard());
  expectNoFindings();
}

TEST_F(RedatingTest, RecoveryMakesTheHeaderOfARedatedRecordingByItsEntriesClock) {
  recordAndRedate();
  const DB_STREAM row = allStreams().at(0);
  write(entryByte(row, 0) - tarn::kRecordSize, Bytes(tarn::kRecordSize, 0xFF));
  restart();
  expectAllRedated();
  tarn::RecordingReader reader;
  ASSERT_EQ(0, reader.open(row));
  EXPECT_EQ(at(kBoot, 49).seconds, reader.header().lastTime);
  expectNoFindings();
}

TEST_F(RedatingTest, CopiesThatWereKeptBeforeGoAlongWithTheirRecordings) {
  {
    RecordingSession before;
    ASSERT_EQ(0, before.open(options(0)));
    recordPictures(before, kBoot + 1000, 0, 50);
    ASSERT_EQ(0, before.close());
  }
  tarn::ClockEras::forget();  // as a recovery does
  RecordingSession session;
  ASSERT_EQ(0, session.open(options(0)));
  recordPictures(session, kBoot, 0, 110);
  tarn::KeptCopies kept;
  ASSERT_EQ(0, kept.open({})) << kept.errorText();
  ASSERT_EQ(1u, keep(&kept, kBoot + 1000, 0, 10));  // of an earlier start
  ASSERT_EQ(2u, keep(&kept, kBoot, 30, 60));        // of this one, of two recordings
  ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond)) << session.errorText();
  EXPECT_EQ(0u, keep(&kept, kBoot + kStep, 30, 60)) << "they are known as what they are";
  kept.close();
  ASSERT_EQ(0, session.close());
  ASSERT_EQ(3u, copies().size());
  for (int start = 0; start < 2; ++start) {
    expectTimes(copies()[0], kBoot + 1000, 0);
    expectTimes(copies()[1], kBoot + kStep, 25);
    expectTimes(copies()[2], kBoot + kStep, 50);
    restart();
  }
  EXPECT_EQ(0u, findings().total()) << texts();
}

TEST_F(RedatingTest, CopyThatIsBeingMadeMeanwhileIsMadeAgainWithTheRightTimes) {
  RecordingSession session;
  ASSERT_EQ(0, session.open(options(0)));
  recordPictures(session, kBoot, 0, 110);
  tarn::KeptCopies kept;
  ASSERT_EQ(0, kept.open({})) << kept.errorText();
  tarn::KeepWanted wanted;
  wanted.from = at(kBoot, 0);
  wanted.to = at(kBoot, 20);
  tarn::KeepResult result;
  const auto clock = [&](uint32_t) {
    EXPECT_EQ(0, session.clockBecameKnown(kStep * kSecond));
    return true;
  };
  EXPECT_EQ(tarn::KeepOutcome::kNotYet, kept.keep(wanted, clock, &result));
  EXPECT_STREQ(tarn::kErrKeepRedated, kept.errorText());
  EXPECT_TRUE(copies().empty());
  ASSERT_EQ(1u, keep(&kept, kBoot + kStep, 0, 20));
  kept.close();
  ASSERT_EQ(0, session.close());
  ASSERT_EQ(1u, copies().size());
  expectTimes(copies()[0], kBoot + kStep, 0);
  expectNoFindings();
}

// A copy whose recording has been overwritten is the first to be moved, and the one with the mark.
TEST_F(RedatingTest, CopiesThatPowerLeftInTheOldTimesAreMovedByTheNextStart) {
  {
    RecordingSession session;
    ASSERT_EQ(0, session.open(options(0)));
    recordPictures(session, kBoot, 0, 150);
    tarn::KeptCopies kept;
    ASSERT_EQ(0, kept.open({})) << kept.errorText();
    ASSERT_EQ(2u, keep(&kept, kBoot, 0, 60));
    kept.close();
    CApiDb db;
    ASSERT_EQ(1u, db.deleteStream(1));
    ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond)) << session.errorText();
    ASSERT_EQ(0, session.close());
  }
  const DB_STREAM first = copies().at(0);
  const DB_STREAM second = copies().at(1);
  EXPECT_EQ(1u, tarn::originalKey(first));
  expectTimes(first, kBoot + kStep, 0);
  stopServer();
  editRow(first, tarn::kStreamStatusOff, first.status | tarn::kStatusRedating);
  editRow(second, tarn::kStreamStartDateOff, static_cast<uint32_t>(second.startDate - kStep));
  editRow(second, tarn::kStreamEndDateOff, static_cast<uint32_t>(second.endDate - kStep));
  editRow(second, tarn::kStreamStatusOff, second.status & ~tarn::kStatusRedated);
  restart();
  ASSERT_EQ(2u, copies().size());
  expectTimes(copies()[0], kBoot + kStep, 0);
  expectTimes(copies()[1], kBoot + kStep, 50);
  EXPECT_EQ(0u, copies()[0].status & tarn::kStatusRedating);
}

// The order of the changes: the first recording with the mark, the event, the other recordings, the
// mark goes. Power may go behind each of them.
TEST_F(RedatingTest, PowerThatGoesInTheMiddleLeavesTheRestToTheNextStart) {
  recordAndRedate();
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(3u, rows.size());
  const DB_EVENT event = allEvents().at(0);
  const auto undo = [&](const DB_STREAM& row) {
    editRow(row, tarn::kStreamStartDateOff, static_cast<uint32_t>(row.startDate - kStep));
    editRow(row, tarn::kStreamEndDateOff, static_cast<uint32_t>(row.endDate - kStep));
    editRow(row, tarn::kStreamStatusOff, row.status & ~tarn::kStatusRedated);
  };
  stopServer();
  const Bytes done = wholeCard();
  for (int cut = 1; cut <= 4; ++cut) {
    write(0, done);
    editRow(rows[0], tarn::kStreamStatusOff, rows[0].status | tarn::kStatusRedating);
    if (cut < 4) undo(rows[2]);
    if (cut < 3) undo(rows[1]);
    if (cut < 2) {
      editRecord(0, event.backOffset, tarn::kEventRecordCrcLength, tarn::kEventStartDateOff,
                 static_cast<uint32_t>(event.startDate - kStep));
      editRecord(0, event.backOffset, tarn::kEventRecordCrcLength, tarn::kEventEndDateOff,
                 static_cast<uint32_t>(event.endDate - kStep));
    }
    restart();
    expectAllRedated();
    EXPECT_EQ(0u, findings().total()) << cut << " " << texts();
  }
}

TEST_F(RedatingTest, ProcessThatWasKilledInTheMiddleLeavesTheRestToTheNextSession) {
  recordAndRedate();
  {
    CApiDb db;
    tarn::JournaledRows changes(&db);
    const std::vector<DB_STREAM> rows = allStreams();
    DB_STREAM marked = rows[0];
    marked.status |= tarn::kStatusRedating;
    ASSERT_EQ(tarn::JournaledRows::Outcome::kDone,
              changes.update(kStreamRegStatus, rows[0], marked));
    DB_STREAM undone = rows[2];
    undone.startDate -= static_cast<uint32_t>(kStep);
    undone.endDate -= static_cast<uint32_t>(kStep);
    undone.status &= ~tarn::kStatusRedated;
    ASSERT_EQ(tarn::JournaledRows::Outcome::kDone,
              changes.update(kStreamRegStatus | kStreamRegStartDate | kStreamRegEndDate, rows[2],
                             undone));
  }
  RecordingSession session;
  ASSERT_EQ(0, session.open(options(0)));
  ASSERT_EQ(0, session.close());
  expectAllRedated();
}

}  // namespace
}  // namespace tarn_test
