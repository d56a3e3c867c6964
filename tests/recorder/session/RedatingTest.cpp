#include <syslog.h>

#include <cstdio>
#include <cstring>

#include "db/DbRecordFormat.h"
#include "db/RowStatus.h"
#include "recorder/CheckRig.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/rows/ClockEras.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/KeptCopies.h"
#include "recorder/session/KeptMessages.h"

namespace tarn_test {
namespace {

using tarn::PictureTime;
using tarn::RecordingSession;

constexpr int64_t kSecond = 1000000;
constexpr int64_t kBoot = 40;          // a clock without a battery at the first picture
constexpr int64_t kStep = 1700000000;  // what it is wrong by, in seconds

PictureTime at(int64_t base, uint32_t number) {
  return PictureTime::fromMicros(base * kSecond + int64_t{number} * (kSecond / kRate) + 120000);
}

void recordPictures(RecordingSession& session, int64_t base, uint32_t from, uint32_t to) {
  for (uint32_t i = from; i < to; ++i) {
    const Bytes bytes = pictureBytes(i, 700);
    ASSERT_EQ(0, session.writePicture(bytes.data(), bytes.size(), at(base, i), 0, isKey(i)))
        << session.errorText();
  }
}

tarn::RecordingOptions options(int8_t channel, uint32_t segmentSeconds = 2) {
  tarn::RecordingOptions options;
  options.channel = channel;
  options.segmentSeconds = segmentSeconds;
  return options;
}

// Every picture of a row has the time of `base`, to the microsecond.
void expectTimes(const DB_STREAM& row, int64_t base, uint32_t first) {
  EXPECT_EQ(at(base, first).seconds, row.startDate);
  EXPECT_EQ(at(base, first).milliseconds(), row.startMSec);
  tarn::RecordingReader reader;
  ASSERT_EQ(0, reader.open(row));
  ASSERT_EQ(row.recSize, reader.pictureCount());
  tarn::PictureEntry entry;
  Bytes bytes;
  for (uint32_t i = 0; i < row.recSize; ++i) {
    ASSERT_TRUE(reader.picture(i, &entry)) << i;
    EXPECT_EQ(at(base, first + i), entry.presentation) << i;
    ASSERT_TRUE(reader.readPicture(entry, &bytes));
    EXPECT_EQ(pictureBytes(first + i, 700), bytes);
  }
  EXPECT_EQ(at(base, first + row.recSize - 1).seconds, row.endDate);
  EXPECT_EQ(0, reader.findKeyPictureBefore(at(base, first)));
  EXPECT_EQ(static_cast<int64_t>(row.recSize) - 1,
            reader.findPictureFrom(at(base, first + row.recSize - 1)));
}

class Redating : public CheckRig {
 protected:
  void SetUp() override {
    format();
    startServer();
  }
  void expectNoFindings() {
    stopServer();
    EXPECT_EQ(0u, findings().total()) << texts();
  }
  // As a start after a power loss.
  void restart() {
    stopServer();
    unlink("/tmp/DB.dat");
    const tarn::RecoveryReport report = tarn::Recovery().run();
    EXPECT_TRUE(report.ok()) << report.error;
  }
  // Three recordings and an event, which are re-dated.
  void recordAndRedate() {
    RecordingSession session;
    ASSERT_EQ(0, session.open(options(0)));
    recordPictures(session, kBoot, 0, 150);
    const uint32_t event = session.beginEvent(7, at(kBoot, 60), 1);
    ASSERT_EQ(0, session.endEvent(event, at(kBoot, 90)));
    ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond));
    ASSERT_EQ(0, session.close());
  }
  void expectAllRedated() {
    const std::vector<DB_STREAM> rows = allStreams();
    ASSERT_EQ(3u, rows.size());
    for (size_t i = 0; i < 3; ++i) {
      expectTimes(rows[i], kBoot + kStep, static_cast<uint32_t>(i) * 50);
      EXPECT_EQ(tarn::kStatusRedated,
                rows[i].status & (tarn::kStatusRedated | tarn::kStatusRedating));
    }
    ASSERT_EQ(1u, allEvents().size());
    EXPECT_EQ(at(kBoot + kStep, 60).seconds, allEvents()[0].startDate);
    EXPECT_EQ(at(kBoot + kStep, 90).seconds, allEvents()[0].endDate);
  }
};

TEST_F(Redating, RecordingsAndEventsOfThisStartGetTheirTimesWhenTheClockBecomesKnown) {
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

TEST_F(Redating, ACopyThatIsKeptLaterHasTheTimesOfTheRowAndNoFinding) {
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

TEST_F(Redating, WhatAnEarlierStartRecordedKeepsItsTime) {
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

TEST_F(Redating, ProcessThatWasStartedAgainRedatesWhatTheFirstOneRecorded) {
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

// The log's line says all that it takes: the channel, the keys and the seconds.
TEST_F(Redating, TheLogsRecordOfItTakesItBack) {
  std::vector<DB_STREAM> rows;
  std::vector<DB_EVENT> events;
  {
    RecordingSession session;
    RecordingSession other;
    ASSERT_EQ(0, session.open(options(0)));
    ASSERT_EQ(0, other.open(options(1)));
    recordPictures(session, kBoot, 0, 100);
    recordPictures(other, kBoot, 0, 50);
    const uint32_t event = session.beginEvent(7, at(kBoot, 60), 1);
    ASSERT_EQ(0, session.endEvent(event, at(kBoot, 90)));
    ASSERT_EQ(0, session.clockStepped(1));  // what is closed now is what is moved then
    ASSERT_EQ(0, session.close());
    ASSERT_EQ(0, other.close());
  }
  rows = allStreams();
  events = allEvents();
  tarn::ClockEras::forget();
  tarn::ClockEras::enter(0, {1, 1});
  {
    RecordingSession session;
    ASSERT_EQ(0, session.open(options(0)));
    ASSERT_EQ(0, session.clockBecameKnown(kStep * kSecond));
    ASSERT_EQ(0, session.close());
  }
  int channel = -1;
  unsigned first = 0, last = 0, firstEvent = 0, lastEvent = 0, moved = 0, movedEvents = 0;
  long long seconds = 0;
  for (const LogLine& line : log_.lines())
    sscanf(
        line.text.c_str(),
        "RecordingSession: channel %d: re-dated %u of recordings %u to %u and %u of events %u to "
        "%u by %lld s",
        &channel, &moved, &first, &last, &movedEvents, &firstEvent, &lastEvent, &seconds);
  EXPECT_EQ(kStep, seconds);
  CApiDb db;
  tarn::JournaledRows changes(&db);
  for (const DB_STREAM& row : allStreams()) {
    const bool ofChannel = row.chunkID == rows[0].chunkID && channel == 0;
    if (row.streamID < first || row.streamID > last || !ofChannel) continue;
    DB_STREAM back = row;
    back.startDate -= static_cast<uint32_t>(seconds);
    back.endDate -= static_cast<uint32_t>(seconds);
    back.status &= ~tarn::kStatusRedated;
    ASSERT_EQ(
        tarn::JournaledRows::Outcome::kDone,
        changes.update(kStreamRegStatus | kStreamRegStartDate | kStreamRegEndDate, row, back));
    --moved;
  }
  for (const DB_EVENT& event : allEvents()) {
    if (event.eventID < firstEvent || event.eventID > lastEvent) continue;
    DB_EVENT back = event;
    back.startDate -= static_cast<uint32_t>(seconds);
    back.endDate -= static_cast<uint32_t>(seconds);
    ASSERT_EQ(tarn::JournaledRows::Outcome::kDone,
              changes.update(kEventRegStartDate | kEventRegEndDate, event, back));
    --movedEvents;
  }
  EXPECT_EQ(0u, moved);
  EXPECT_EQ(0u, movedEvents);
  restart();
  ASSERT_EQ(rows.size(), allStreams().size());
  for (size_t i = 0; i < rows.size(); ++i)
    EXPECT_EQ(0, memcmp(&rows[i], &allStreams()[i], sizeof rows[i])) << i;
  EXPECT_EQ(0, memcmp(events.data(), allEvents().data(), events.size() * sizeof events[0]));
  EXPECT_EQ(0u, findings().total()) << texts();
}

TEST_F(Redating, ClockThatIsKnownAlreadyAndIsSetMovesNothing) {
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

TEST_F(Redating, EachChannelMovesItsOwnRecordingsAndEachEventOnce) {
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

TEST_F(Redating, HeaderTellsTheCorrectionWhereTheFirstEntryIsDamaged) {
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

TEST_F(Redating, RecoveryLeavesRedatedRecordingsAsTheyAre) {
  recordAndRedate();
  const Bytes before = wholeCard();
  for (int start = 0; start < 2; ++start) {
    restart();
    expectAllRedated();
  }
  EXPECT_TRUE(before == wholeCard());
  expectNoFindings();
}

TEST_F(Redating, RecoveryMakesTheHeaderOfARedatedRecordingByItsEntriesClock) {
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

// Keeps pictures `from` to `to` of channel 0, by the times of `base`.
uint32_t keep(tarn::KeptCopies* kept, int64_t base, uint32_t from, uint32_t to) {
  tarn::KeepWanted wanted;
  wanted.from = at(base, from);
  wanted.to = at(base, to);
  wanted.asItIs = true;
  tarn::KeepResult result;
  EXPECT_EQ(tarn::KeepOutcome::kDone, kept->keep(wanted, nullptr, &result)) << kept->errorText();
  return result.copies;
}

std::vector<DB_STREAM> copies() {
  CApiDb db;
  tarn::RowQueries queries(&db, nullptr);
  std::vector<DB_STREAM> rows;
  EXPECT_TRUE(queries.streams(
      "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT_WHOLE " ORDER BY streamID", &rows));
  return rows;
}

TEST_F(Redating, CopiesThatWereKeptBeforeGoAlongWithTheirRecordings) {
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

TEST_F(Redating, CopyThatIsBeingMadeMeanwhileIsMadeAgainWithTheRightTimes) {
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
TEST_F(Redating, CopiesThatPowerLeftInTheOldTimesAreMovedByTheNextStart) {
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
TEST_F(Redating, PowerThatGoesInTheMiddleLeavesTheRestToTheNextStart) {
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

TEST_F(Redating, ProcessThatWasKilledInTheMiddleLeavesTheRestToTheNextSession) {
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
