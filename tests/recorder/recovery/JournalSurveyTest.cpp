#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"
#include "recorder/recovery/JournalSurvey.h"
#include "recorder/recovery/StartUp.h"

namespace tarn_test {
namespace {

using tarn::JournalKind;
using tarn::JournalSurvey;

// Journals with rows 1 to 12, of which a device does not give everything.
class JournalSurveyTest : public CardTest {
 protected:
  static constexpr uint32_t kRows = 12;

  JournalSurveyTest() {
    for (uint32_t i = 0; i < kRows; ++i) {
      setPair(2, i * 64, streamRecord(rowAt(i + 1, i * 64)));
      DB_EVENT event = eventRow(i + 1);
      event.backOffset = i * 32;
      setPair(0, i * 32, eventRecord(event));
    }
    setManagement({kRows * 32, kRows * 32, kRows * 64, kRows * 64});
  }
  static DB_STREAM rowAt(uint32_t key, uint32_t offset) {
    DB_STREAM row = streamRow(key);
    row.backOffset = offset;
    return row;
  }
  uint64_t place(int chunk, uint32_t offset) const {
    return card.chunkStart(tarn::kFileJournal, chunk) + offset;
  }
  Bytes all() const { return card.read(0, static_cast<size_t>(card.size())); }
  // Of both journals, as the start does; the survey is that of the streams.
  static int scrub(JournalSurvey* streams) {
    JournalSurvey events;
    return tarn::scrubJournals(&events, streams);
  }
  static std::vector<uint32_t> streamKeys() {
    CApiDb db;
    db.setSql("SELECT streamID FROM STREAM ORDER BY streamID");
    std::vector<uint32_t> keys;
    for (uint32_t i = 0; i < db.getNTuple(); ++i)
      keys.push_back(db.getValue(static_cast<long>(i), 0));
    return keys;
  }
};

TEST_F(JournalSurveyTest, APlaceThatIsRefusedStopsTheStartAndNothingIsWritten) {
  setJournal(1, 0, Bytes(32, 0x5A));   // would be mended
  setJournal(2, 64, Bytes(64, 0x5A));  // this too
  const Bytes before = all();
  {
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, place(2, 512), 512, EIO);
    faults.failAt(Call::Read, place(3, 512), 512, EIO);
    const tarn::StartUpReport report = tarn::StartUp().run();
    EXPECT_EQ(report.failed, uint32_t{tarn::StartUpReport::kSurvey});
    EXPECT_EQ(report.error,
              "the stream journal chunk 2 at byte 512 cannot be read; nothing was changed, and the "
              "next start tries again");
    EXPECT_EQ(faults.count(Call::Write), 0u);
  }
  EXPECT_EQ(all(), before);
  const tarn::StartUpReport report = tarn::StartUp().run();
  EXPECT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(streamKeys().size(), kRows);
  EXPECT_EQ(report.streams.copied, 1u);
}

TEST_F(JournalSurveyTest, ReadsThatAreRefusedForAWhileChangeNothing) {
  ASSERT_TRUE(tarn::StartUp().run().ok());
  const Bytes before = all();
  for (const int times : {1, 3, 5}) {
    IoFaults faults(kCardPath);
    for (const int chunk : {0, 1, 2, 3}) {
      faults.failAt(Call::Read, place(chunk, 0), kJournalSize, EIO, times);
    }
    const tarn::StartUpReport report = tarn::StartUp().run();
    EXPECT_TRUE(report.ok()) << times << report.error;
    EXPECT_EQ(report.streams.bridged + report.events.bridged, 0u);
    EXPECT_EQ(streamKeys().size(), kRows);
    EXPECT_EQ(all(), before);
  }
}

TEST_F(JournalSurveyTest, AHoleThatReadsAsErasedInBothCopiesHidesNothingBehindIt) {
  for (const int chunk : {0, 1, 2, 3}) setJournal(chunk, 64, Bytes(64, 0xFF));
  const tarn::StartUpReport report = tarn::StartUp().run();
  EXPECT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(streamKeys(), (std::vector<uint32_t>{1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}));
  EXPECT_EQ(report.streams.bridged, 1u);
  EXPECT_EQ(report.events.bridged, 2u);
  EXPECT_EQ(report.eventRows, kRows - 2);
  const Bytes before = all();
  const tarn::StartUpReport again = tarn::StartUp().run();
  EXPECT_EQ(again.streams.bridged + again.events.bridged, 0u);
  EXPECT_EQ(all(), before);
}

// The ring has come round, its free offset lies in front, and only its last place tells of it.
TEST_F(JournalSurveyTest, AHoleInARingThatHasComeRoundIsBridgedToItsEnd) {
  for (uint32_t offset = kRows * 64; offset < kJournalSize; offset += 64) {
    setPair(2, offset, streamRecord(rowAt(offset / 64 + 1, offset)));
  }
  setManagement({0, 0, 64, 64});
  setPair(2, 0, streamRecord(rowAt(kJournalSize / 64 + 1, 0)));
  for (const int chunk : {2, 3}) setJournal(chunk, 128, Bytes(512, 0xFF));
  JournalSurvey survey;
  ASSERT_EQ(scrub(&survey), 0) << survey.error;
  EXPECT_EQ(survey.bridged, 512u / 64);
  EXPECT_EQ(survey.liveKeys, kJournalSize / 64 - 512 / 64);
}

TEST_F(JournalSurveyTest, WhatIsErasedBehindTheNewestRecordStaysErased) {
  const Bytes before = journal(2, kRows * 64, 1024);
  JournalSurvey survey;
  ASSERT_EQ(scrub(&survey), 0) << survey.error;
  EXPECT_EQ(survey.bridged, 0u);
  EXPECT_EQ(survey.records, kRows);
  EXPECT_EQ(journal(2, kRows * 64, 1024), before);
}

TEST_F(JournalSurveyTest, ACopyThatStaysRefusedIsNotWrittenOver) {
  for (const int chunk : {2, 3}) {
    const Bytes before = all();
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, place(chunk, 0), 512, EIO);
    JournalSurvey survey;
    EXPECT_EQ(scrub(&survey), 0) << survey.error;
    EXPECT_EQ(survey.liveKeys, kRows);
    EXPECT_EQ(survey.unread, 512u / 64);
    EXPECT_EQ(survey.unreadText, "stream journal chunk " + std::to_string(chunk) + " at byte 0");
    EXPECT_EQ(faults.count(Call::Write), 0u);
    EXPECT_EQ(all(), before);
  }
}

// What lies beside it proves nothing: zeros have the checksum of zeros, and an erased copy may be
// the mirror of the newest record.
TEST_F(JournalSurveyTest, BesideARefusedCopyNothingButARecordInItsPlaceCounts) {
  for (const uint8_t fill : {0x00, 0xFF, 0x5A}) {
    const Bytes was = journal(3, 704, 64);
    setJournal(3, 704, Bytes(64, fill));
    const Bytes before = all();
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, place(2, 704), 64, EIO);
    JournalSurvey survey;
    EXPECT_EQ(scrub(&survey), -1) << int{fill};
    EXPECT_EQ(all(), before);
    setJournal(3, 704, was);
  }
}

// A record lies in both copies before anybody is told of it: beside an erased copy there is none.
TEST_F(JournalSurveyTest, AJournalEndsWhereOneCopyIsErasedAndTheOtherRefused) {
  for (const int chunk : {2, 3}) {
    const Bytes before = all();
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, place(chunk, 512), 512, EIO);
    const tarn::StartUpReport report = tarn::StartUp().run();
    EXPECT_TRUE(report.ok()) << chunk << report.error;
    EXPECT_EQ(streamKeys().size(), kRows);
    EXPECT_EQ(report.streams.unread, 4u + 1) << "records of that sector, and the place behind them";
    EXPECT_EQ(all(), before);
  }
}

TEST_F(JournalSurveyTest, AnEmptyJournalStartsThoughACopyOfItIsRefused) {
  for (const int chunk : {0, 1, 2, 3}) setJournal(chunk, 0, Bytes(kJournalSize, 0xFF));
  setManagement({0, 0, 0, 0});
  const Bytes before = all();
  for (const int chunk : {0, 1, 2, 3}) {
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, place(chunk, 0), 512, EIO);
    const tarn::StartUpReport report = tarn::StartUp().run();
    EXPECT_TRUE(report.ok()) << chunk << report.error;
    EXPECT_EQ(streamKeys().size(), 0u);
    EXPECT_EQ(all(), before);
  }
}

// Records follow: what the refused copy holds may be one of them.
TEST_F(JournalSurveyTest, AnErasedCopyInFrontOfRecordsProvesNothingBesideARefusedOne) {
  setManagement({kRows * 32, kRows * 32, 0, 0});
  for (const uint32_t erased : {64u * 4, 64u * 5}) {
    setPair(2, 64 * 4, Bytes(64, 0xFF));
    setJournal(3, erased, Bytes(64, 0xFF));
    const Bytes before = all();
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, place(2, erased), 64, EIO);
    JournalSurvey survey;
    EXPECT_EQ(scrub(&survey), -1) << erased;
    EXPECT_NE(survey.error.find("stream journal chunk 2 at byte"), std::string::npos);
    EXPECT_EQ(all(), before);
  }
}

TEST_F(JournalSurveyTest, ACopyLostAsZerosIsTakenFromTheOtherInWhicheverItIs) {
  for (const int chunk : {2, 3}) {
    const Bytes was = journal(chunk, 0, 512);
    setJournal(chunk, 0, Bytes(512, 0));
    JournalSurvey survey;
    EXPECT_EQ(scrub(&survey), 0);
    EXPECT_EQ(survey.liveKeys, kRows);
    expectPair(2, 0, was);
  }
}

// The record of an insert that failed, under the key of a recording that is there and safe.
TEST_F(JournalSurveyTest, ARecordOfARowThatNeverWasDoesNotReplaceTheRowThatIs) {
  DB_STREAM phantom = rowAt(12, kRows * 64);
  phantom.recSize = 0;
  setPair(2, kRows * 64, streamRecord(phantom));
  DB_STREAM nobody = rowAt(0, (kRows + 1) * 64);
  setPair(2, (kRows + 1) * 64, streamRecord(nobody));
  setManagement({kRows * 32, kRows * 32, (kRows + 2) * 64, (kRows + 2) * 64});
  const tarn::StartUpReport report = tarn::StartUp().run();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.streams.phantoms, 2u);
  EXPECT_EQ(report.streamRows, kRows);
  CApiDb db;
  DB_STREAM row = {};
  ASSERT_EQ(db.selectStream(12, &row), 1u);
  EXPECT_EQ(row.recSize, streamRow(12).recSize);
  EXPECT_EQ(row.backOffset, 11u * 64);
  expectPair(2, kRows * 64, streamRecord(phantom, 0xFFFFFFEE));
  EXPECT_EQ(savedFree()[2], kRows * 64) << "its place is the next one";
  const Bytes before = all();
  EXPECT_EQ(tarn::StartUp().run().streams.phantoms, 0u);
  EXPECT_EQ(all(), before);
}

TEST_F(JournalSurveyTest, WhereverPowerGoesAPhantomIsGoneInTheEnd) {
  DB_STREAM phantom = rowAt(7, kRows * 64);
  setPair(2, kRows * 64, streamRecord(phantom));
  const Bytes before = all();
  for (int n = 1; n <= 2; ++n) {
    card.write(0, before);
    {
      IoFaults faults(kCardPath);
      faults.fail(Call::Write, n, EIO, IoFaults::kForever);
      JournalSurvey survey;
      EXPECT_EQ(scrub(&survey), 0);
      EXPECT_GT(survey.refused, 0u);
    }
    JournalSurvey survey;
    EXPECT_EQ(scrub(&survey), 0);
    EXPECT_EQ(survey.liveKeys, kRows);
    expectPair(2, kRows * 64, streamRecord(phantom, 0xFFFFFFEE));
  }
}

TEST_F(JournalSurveyTest, TheDigestChangesWithEveryLiveRecord) {
  JournalSurvey before;
  ASSERT_EQ(tarn::surveyJournal(JournalKind::kStream, &before), 0);
  EXPECT_EQ(before.newestKey, kRows);
  EXPECT_EQ(before.newestPlace, (kRows - 1) * 64);
  DB_STREAM row = rowAt(3, 128);
  row.endDate += 1;
  JournalSurvey after;
  for (const Bytes& record : {streamRecord(row), streamRecord(row, 0xFFFFFFEE)}) {
    setPair(2, 128, record);
    ASSERT_EQ(tarn::surveyJournal(JournalKind::kStream, &after), 0);
    EXPECT_NE(after.digest, before.digest);
  }
}

}  // namespace
}  // namespace tarn_test
