#include "dblog/RepairRig.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class StreamRepair : public RepairTest {};
class CutRecording : public RepairTest, public testing::WithParamInterface<uint32_t> {};

TEST_P(CutRecording, IsClosedBehindItsLastPicture) {
  Recording r;
  r.pictures = GetParam();
  lay(r);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, r.pictures)));
  expectClosed(r, r.pictures);
  EXPECT_THAT(repair(), IsEmpty());
  expectClosed(r, r.pictures);
}

TEST_P(CutRecording, IsClosedBehindItsLastPictureAlsoAcrossTheEndOfBothRings) {
  Recording r;
  r.pictures = GetParam();
  r.headerAt = kPictureChunk - 32;  // the header is the last record, the entries begin at 0
  r.dataAt = kStreamChunk - 7;      // a start code straddles the end
  lay(r);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, r.pictures)));
  expectClosed(r, r.pictures);
}

INSTANTIATE_TEST_SUITE_P(Pictures, CutRecording,
                         testing::Values(2, 3, 99, 100, 101, 102, 199, 200, 201, 250));

TEST_F(StreamRepair, RingsMayWrapAnywhereInTheRecording) {
  for (uint32_t before : {1u, 2u, 50u, 99u, 100u, 101u, 102u, 249u, 250u}) {
    Recording r;
    r.headerAt = kPictureChunk - 32 * before;
    r.dataAt = kStreamChunk - r.pictureSize * before - 20;
    lay(r);
    repair();
    expectClosed(r, r.pictures);
  }
}

TEST_F(StreamRepair, ARecordingOfOnePictureIsDeletedWithItsRecordAndLaterEvents) {
  Recording r;
  r.pictures = 1;
  lay(r);
  const DB_EVENT before = event(1, r.start - 1, r.start);
  const DB_EVENT at = event(2, r.start, 0);
  const DB_EVENT after = event(3, r.start + 1000, 0);
  for (const DB_EVENT& row : {before, at, after}) insert(row);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), deletedLine(r)));
  expectDeleted(r);
  EXPECT_EQ(eventBytes(1), eventRecord(before));
  EXPECT_EQ(eventBytes(2), Bytes());
  EXPECT_EQ(eventBytes(3), Bytes());
  expectPair(0, 32, eventRecord(before));
  expectPair(0, 64, eventRecord(at, 0xFFFFFFEF));
  expectPair(0, 96, eventRecord(after, 0xFFFFFFEF));
  // The header stays as it was.
  EXPECT_EQ(pictureChunk(0, 0, 32), headerBytes(r, 0, r.start, 0));
}

TEST_F(StreamRepair, ARecordingWithoutPicturesIsDeleted) {
  Recording r;
  r.pictures = 0;
  lay(r);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), deletedLine(r)));
  expectDeleted(r);
}

TEST_F(StreamRepair, EntriesOfAnOlderRecordingBehindAreNotTaken) {
  for (uint32_t pictures : {2u, 99u, 100u, 101u, 250u}) {
    Recording old;
    old.first = 5000;
    old.pictures = 300;
    old.start = kNoon - 100000;
    layCard(old);
    Recording r;
    r.pictures = pictures;
    lay(r);
    EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, pictures)));
    expectClosed(r, pictures);
  }
}

TEST_F(StreamRepair, AGapInTheNumbersEndsTheRecordingAtTheFirstBadEntry) {
  Recording r;
  lay(r);
  putRing(tarn::kFilePicture, 0, r.entryAt(157), entryBytes(r.first + 158, 0, 512));
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, 157)));
  expectClosed(r, 157);
}

TEST_F(StreamRepair, NumbersMayWrapAndMayBeginAtZero) {
  Recording zero;
  zero.first = 0;
  lay(zero);
  repair();
  expectClosed(zero, 250);
  Recording wrapping;
  wrapping.first = 0xFFFFFFFF - 95;  // 4294967200, a multiple of 100
  wrapping.pictures = 60;
  layHeader(wrapping);
  lay(wrapping);
  layEntry(wrapping, 60);
  putRing(tarn::kFilePicture, 0, wrapping.entryAt(60), Bytes(32, 0xFF));
  repair();
  expectClosed(wrapping, 60);
}

TEST_F(StreamRepair, WithoutAConfirmedPictureTheWayBackLeadsToTheHeaderAndEndsThere) {
  Recording r;
  r.first = 130;  // the first picture looked at would be number 200
  r.pictures = 69;
  lay(r);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), deletedLine(r)));
  expectDeleted(r);
}

TEST_F(StreamRepair, AFirstPictureThatIsNotLookedAtIsTakenOnceALaterOneIsConfirmed) {
  Recording r;
  r.first = 130;
  r.pictures = 150;
  lay(r);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, 150)));
  expectClosed(r, 150);
}

// ---- times ----

TEST_F(StreamRepair, MoreThanTenSecondsBetweenTwoPicturesEndTheRecording) {
  Recording r;
  r.pictures = 20;
  lay(r);
  for (uint32_t i = 10; i < 20; ++i) layPicture(r, i, r.start + 11);
  repair();
  expectClosed(r, 10, r.start, 10);
}

TEST_F(StreamRepair, TenSecondsBetweenTwoPicturesDoNot) {
  Recording r;
  r.pictures = 20;
  lay(r);
  for (uint32_t i = 0; i < 10; ++i) layPicture(r, i, r.start);
  for (uint32_t i = 10; i < 20; ++i) layPicture(r, i, r.start + 10);
  repair();
  expectClosed(r, 20, r.start + 10, 20);
}

TEST_F(StreamRepair, MoreThanAThousandSecondsBetweenTwoHundredsAreLookedAtPictureByPicture) {
  Recording r;
  lay(r);
  for (uint32_t i = 0; i < 150; ++i) layPicture(r, i, r.start);
  for (uint32_t i = 150; i < 250; ++i) layPicture(r, i, r.start + 1001);
  repair();
  expectClosed(r, 150, r.start, 150);
}

TEST_F(StreamRepair, AThousandSecondsBetweenTwoHundredsAreNot) {
  Recording r;
  r.pictures = 201;
  lay(r);
  for (uint32_t i = 0; i < 150; ++i) layPicture(r, i, r.start);
  for (uint32_t i = 150; i < 201; ++i) layPicture(r, i, r.start + 1000);
  repair();
  expectClosed(r, 201, r.start + 1000, 201);
}

TEST_F(StreamRepair, AClockThatWasSetBackDoesNotEndARecording) {
  Recording r;
  lay(r);
  for (uint32_t i = 100; i < 250; ++i) layPicture(r, i, r.start - 5000);
  repair();
  expectClosed(r, 250, r.start - 5000, 250);
}

TEST_F(StreamRepair, APictureWithoutATimeCountsAsTimeZeroAndTheNextMustFitTheRow) {
  Recording r;
  r.pictures = 30;
  lay(r);
  putRing(tarn::kFileStream, 0, r.dataOf(20), Bytes(512, 0x55));
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, 30)));
  expectClosed(r, 30);  // picture 21 begins anew, and fits
}

TEST_F(StreamRepair, ATimeThat32BitsCannotHoldEndsARecording) {
  Recording r;
  r.pictures = 30;
  lay(r);
  Bytes picture = pictureBytes(r.start, 512);
  memcpy(picture.data() + 35, "20990101000000", 14);
  putRing(tarn::kFileStream, 0, r.dataOf(20), picture);
  repair();
  expectClosed(r, 20);
}

TEST_F(StreamRepair, AFirstPictureMoreThanTenSecondsBeforeTheRowEndsTheWalk) {
  Recording r;
  lay(r);
  layPicture(r, 0, r.start - 11);
  EXPECT_THAT(repair(),
              ElementsAre(countLine(1),
                          LogLine{LOG_INFO, "unmatched stream data pts (pictureID = 100 stream=" +
                                                number(r.start - 11) +
                                                " startdate=" + number(r.start) + ")."},
                          deletedLine(r)));
  expectDeleted(r);
}

TEST_F(StreamRepair, AFirstPictureTenSecondsBeforeTheRowFits) {
  Recording r;
  lay(r);
  layPicture(r, 0, r.start - 10);
  repair();
  expectClosed(r, 250);
}

TEST_F(StreamRepair, TimesAreLocalAndSummerTimeCounts) {
  setTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  Recording winter;
  winter.start = 1705316400;  // 2024-01-15T12:00:00+01:00
  lay(winter);
  repair();
  expectClosed(winter, 250);
  Recording summer;
  summer.start = 1721037600;  // 2024-07-15T12:00:00+02:00
  lay(summer);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(summer, 250)));
  expectClosed(summer, 250);
}

TEST_F(StreamRepair, ARecordingAcrossTheBeginOfSummerTimeIsWhole) {
  setTimeZone("CET-1CEST,M3.5.0,M10.5.0/3");
  Recording r;
  r.start = 1711846800 - 12;  // 12 s before 2024-03-31T02:00:00+01:00
  lay(r);
  repair();
  expectClosed(r, 250);
}

// ---- kinds of rows ----

TEST_F(StreamRepair, ARecordingInTheHourThatEndsSummerTimeIsWholeBothTimes) {
  // The clock shows 02:00 to 03:00 (01:30 to 02:00) twice.
  const std::vector<std::pair<const char*, uint32_t>> ends = {
      {"CET-1CEST,M3.5.0,M10.5.0/3", 1698541200},         // 2023-10-29T01:00:00 UTC
      {"LHST-10:30LHDT-11,M10.1.0,M4.1.0", 1680361200}};  // 2023-04-01T15:00:00 UTC
  for (const auto& [zone, end] : ends) {
    setTimeZone(zone);
    for (const int before :
         {4000, 3600, 3000, 1800, 1000, 20, 5, 0, -5, -900, -1795, -3000, -4000}) {
      SCOPED_TRACE(std::string(zone) + " " + std::to_string(before));
      Recording r;
      r.start = end - static_cast<uint32_t>(before);
      r.pictures = 150;
      lay(r);
      repair();
      expectClosed(r, r.pictures);
      run("DELETE FROM STREAM");
    }
  }
}

TEST_F(StreamRepair, AClosedHeaderDeletesTheRowItsRecordAndLaterEvents) {
  Recording r;
  r.marker = 0x4D525453;
  lay(r);
  const DB_EVENT before = event(1, r.start - 1, 5);
  const DB_EVENT at = event(2, r.start, 5);
  insert(before);
  insert(at);
  EXPECT_THAT(repair(),
              ElementsAre(countLine(1),
                          LogLine{LOG_INFO, "MARKER illegal : 4d525453 sql=" + deleteSql(r)}));
  expectDeleted(r);
  EXPECT_EQ(eventBytes(1), eventRecord(before));
  EXPECT_EQ(eventBytes(2), Bytes());
  expectPair(0, 32, eventRecord(before));
  expectPair(0, 64, eventRecord(at, 0xFFFFFFEF));
  EXPECT_EQ(pictureChunk(0, 0, 32), headerBytes(r, 0, r.start, 0));
}

TEST_F(StreamRepair, AMarkerOfZeroIsPrintedWithEightDigits) {
  Recording r;
  r.marker = 0;
  lay(r);
  EXPECT_THAT(repair(),
              ElementsAre(countLine(1),
                          LogLine{LOG_INFO, "MARKER illegal : 00000000 sql=" + deleteSql(r)}));
}

TEST_F(StreamRepair, AHeaderWithoutGopsIsReportedAndRepaired) {
  Recording r;
  r.gops = 0;
  lay(r);
  EXPECT_THAT(repair(),
              ElementsAre(countLine(1), LogLine{LOG_ERR, ">>>> streamHeader restore GOPS is 0"},
                          closedLine(r, 250)));
  expectClosed(r, 250);
}

TEST_F(StreamRepair, AudioStaysAsItIs) {
  Recording r;
  r.frameSet = 0x0080;
  r.status = 0x300;
  lay(r);
  const DB_EVENT later = event(2, r.start, 0);
  insert(later);
  EXPECT_THAT(repair(), ElementsAre(countLine(1)));
  expectUntouched(r);
  EXPECT_EQ(eventBytes(2), eventRecord(later));
  EXPECT_EQ(pictureChunk(0, 0, 32), headerBytes(r, 0, r.start, 0));
}

TEST_F(StreamRepair, KindsThatCannotBeWalkedStayAsTheyAre) {
  for (uint32_t status : {0x100u, 0x200u, 0x80000301u}) {
    Recording r;
    r.status = status;
    lay(r);
    char text[80];
    snprintf(text, sizeof text, " record type is %08x. this record can't recover.", status);
    EXPECT_THAT(repair(), ElementsAre(countLine(1), LogLine{LOG_ERR, text}));
    expectUntouched(r);
  }
}

TEST_F(StreamRepair, OnlyTheTwoBitsOfTheStatusChange) {
  for (uint32_t status : {0u, 1u, 0x10000u, 0x10001u, 0xFFFFFCFFu, 0x400u}) {
    Recording r;
    r.status = status;
    r.pictures = 5;
    lay(r);
    repair();
    expectClosed(r, 5);
  }
  EXPECT_EQ(repairedStatus(0xFFFFFCFF), 0xFFFFFCFEu);
}

TEST_F(StreamRepair, ClosedRowsAreNotTouched) {
  Recording r;
  layCard(r);
  DB_STREAM row = openRow(r);
  row.recSize = 1;
  insert(row);
  EXPECT_THAT(repair(), IsEmpty());
  EXPECT_EQ(rowBytes(r.id), streamRecord(row));
  expectPair(2, r.backOffset, streamRecord(row));
}

TEST_F(StreamRepair, RowsOfSeveralChunksAreRepairedInTheirOrder) {
  Recording one;
  Recording two;
  two.id = 8;
  two.chunk = 2;
  two.headerAt = 3200;
  two.dataAt = 4096;
  two.pictures = 130;
  two.start = kNoon + 500;
  two.backOffset = 128;
  Recording lost = two;
  lost.id = 9;
  lost.chunk = 1;
  lost.pictures = 1;
  lost.backOffset = 192;
  for (const Recording& r : {one, two, lost}) lay(r);
  EXPECT_THAT(repair(), ElementsAre(countLine(3), closedLine(one, 250), closedLine(two, 130),
                                    deletedLine(lost)));
  expectClosed(one, 250);
  expectClosed(two, 130);
  expectDeleted(lost);
}

TEST_F(StreamRepair, ManagementFilesAreNotWritten) {
  const Bytes main = card.readChunk(tarn::kFileStreamManage, 0, 0, 100);
  lay(Recording());
  repair();
  EXPECT_EQ(card.readChunk(tarn::kFileStreamManage, 0, 0, 100), main);
  EXPECT_FALSE(log.has(LOG_INFO, " saveManageData (ST) "));
}

TEST_F(StreamRepair, NothingIsWrittenButTheRecordsAndTheHeader) {
  Recording r;
  lay(r);
  IoFaults io(kCardPath);
  repair();
  const auto journal = static_cast<int64_t>(card.chunkStart(tarn::kFileJournal, 2)) + 64;
  const auto header = static_cast<int64_t>(card.chunkStart(tarn::kFilePicture, 0));
  EXPECT_THAT(io.writes(),
              ElementsAre(WriteRecord{journal, 64}, WriteRecord{journal + kJournalSize, 64},
                          WriteRecord{header, 32}));
  EXPECT_EQ(io.sequence().back(), 'c');
  EXPECT_GE(io.count(Call::Fsync), 3u);
}

// ---- the operation on one row ----

class OneStream : public RepairTest {
 protected:
  OneStream() { EXPECT_EQ(store.openManageData('3'), 0); }
  int fix(const Recording& r, unsigned long* latest) {
    log.clear();
    return restore.fixUpVideoStream(&store, &picture, &stream, r.id, r.frameSet, r.chunk,
                                    r.headerAt, r.status, r.start, r.backOffset, latest);
  }
  CTARNStreamManagerNative store;
  CTARNStreamChunk picture{0};
  CTARNStreamChunk stream{1};
};

TEST_F(OneStream, TheLatestEndIsRaisedButNeverLowered) {
  Recording r;
  lay(r);
  unsigned long latest = 0;
  EXPECT_EQ(fix(r, &latest), 1);
  EXPECT_EQ(latest, r.timeOf(249));
  latest = r.timeOf(249) + 1;
  EXPECT_EQ(fix(r, &latest), 1);
  EXPECT_EQ(latest, r.timeOf(249) + 1);
  EXPECT_FALSE(picture.isOpen());
  EXPECT_FALSE(stream.isOpen());
}

TEST_F(OneStream, ADeletedRowLeavesTheLatestEnd) {
  Recording r;
  r.pictures = 1;
  lay(r);
  unsigned long latest = 5;
  EXPECT_EQ(fix(r, &latest), 1);
  EXPECT_EQ(latest, 5u);
  EXPECT_FALSE(picture.isOpen());
  EXPECT_FALSE(stream.isOpen());
}

TEST_F(OneStream, AudioIsNotRepaired) {
  unsigned long latest = 5;
  EXPECT_EQ(restore.fixUpAudioStream(&store, &picture, &stream, &latest), 0);
  EXPECT_EQ(latest, 5u);
  EXPECT_THAT(lines(), IsEmpty());
}

// A bare walk reads each block of entries and the head of each hundredth picture, with a seek.
TEST_F(OneStream, TheWalkMakesFewDeviceCalls) {
  Recording r;
  r.pictures = 1901;
  r.pictureSize = 128;
  lay(r);
  unsigned long latest = 0;
  IoFaults io(kCardPath);
  EXPECT_EQ(fix(r, &latest), 1);
  expectClosed(r, 1901);
  const auto within = [this, &io](Call kind, int type) {
    const auto start = static_cast<int64_t>(card.chunkStart(type, 0));
    const auto size = static_cast<int64_t>(card.family(type).chunkSize);
    size_t count = 0;
    for (const IoRecord& call : io.calls()) {
      const int64_t at = kind == Call::Lseek ? call.result : call.offset;
      if (call.call == kind && at >= start && at < start + size) ++count;
    }
    return count;
  };
  // 1902 records and the one behind them are 15 blocks; the last one again from the last hundred
  // on. A seek each for opening, for going back, and two for writing the header.
  EXPECT_EQ(within(Call::Read, tarn::kFilePicture), 16u);
  EXPECT_LE(within(Call::Lseek, tarn::kFilePicture), 5u);
  // Of the pictures numbered 100, 200 ... 2000: a read, and a seek before which and one after which
  // the position is asked for; two for opening.
  EXPECT_EQ(within(Call::Read, tarn::kFileStream), 20u);
  EXPECT_LE(within(Call::Lseek, tarn::kFileStream), 2u * 20 + 2);
}

}  // namespace
}  // namespace tarn_test
