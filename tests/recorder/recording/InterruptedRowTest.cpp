#include <gmock/gmock.h>

#include "recorder/RecoveryRig.h"
#include "recorder/check/CardCheck.h"
#include "recorder/recording/RecordFormat.h"

// What recovery makes of recordings that lost power, on cards that do not give everything or give
// something else.

namespace tarn_test {
namespace {

using tarn::RecoveryReport;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr int64_t kSector = 512;

class InterruptedRowTest : public testing::Test {
 protected:
  explicit InterruptedRowTest(const RecoveryRig::Shape& shape = {1024 * kKiB, 64 * kKiB, 2,
                                                                 64 * kKiB})
      : rig(shape), empty(rig.cardBytes()) {}

  static void setZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }

  // Pictures 0 to `pictures` - 1 are safe when the power goes.
  void interrupt(uint32_t pictures, const tarn::RecordingOptions& options = {}) {
    Bytes cut;
    {
      tarn::RecordingSession session;
      ASSERT_TRUE(openSession(session, options));
      ASSERT_TRUE(writePictures(session, 0, pictures));
      ASSERT_EQ(session.flush(), 0);
      cut = rig.cardBytes();
      CApiDb db;
      ASSERT_EQ(db.selectStream(session.streamID(), &row_), 1u);
    }
    rig.powerOff(cut);
    cut_ = cut;
  }

  uint32_t slotOf(uint32_t index) const {
    return (row_.chunkOffset + (index + 1) * 32) % rig.card.family(tarn::kFilePicture).chunkSize;
  }
  // Where on the device an entry, the header, or a picture's data begins.
  int64_t entryByte(uint32_t index) const {
    return static_cast<int64_t>(
               rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(row_.chunkID))) +
           slotOf(index);
  }
  int64_t headerByte() const {
    return static_cast<int64_t>(
               rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(row_.chunkID))) +
           row_.chunkOffset;
  }
  int64_t dataByte(uint32_t index) const {
    tarn::PictureEntry entry;
    const Bytes bytes =
        rig.card.readChunk(tarn::kFilePicture, static_cast<int>(row_.chunkID), slotOf(index), 32);
    EXPECT_TRUE(tarn::decodePictureEntry(bytes.data(), &entry));
    return static_cast<int64_t>(
               rig.card.chunkStart(tarn::kFileStream, static_cast<int>(row_.chunkID))) +
           entry.dataOffset;
  }

  // A start during which the sector at a place is refused, once or as long as it lasts.
  RecoveryReport bootWithBadSector(int64_t place, int times) {
    rig.setCard(cut_);
    IoFaults faults(kCardPath);
    const int64_t sector = place - place % kSector;
    faults.failAt(Call::Read, static_cast<uint64_t>(sector), kSector, EIO, times);
    return rig.boot();
  }
  void expectAll(uint32_t pictures, const std::string& what) {
    CApiDb db;
    DB_STREAM row = {};
    ASSERT_EQ(db.selectStream(row_.streamID, &row), 1u) << what;
    EXPECT_EQ(row.recSize, pictures) << what;
    EXPECT_EQ(verifyRow(row), range(0, pictures)) << what;
    EXPECT_EQ(row.endDate, pictureTime(pictures - 1).seconds) << what;
  }
  // Pictures of the only row that can be read.
  static size_t readable() {
    tarn::RecordingReader reader;
    EXPECT_EQ(reader.open(allStreams().at(0)), 0);
    size_t good = 0;
    for (uint32_t i = 0; i < reader.pictureCount(); ++i) {
      tarn::PictureEntry entry;
      Bytes bytes;
      good += reader.picture(i, &entry) && reader.readPicture(entry, &bytes) &&
                      bytes == pictureBytes(numberAt(entry.presentation), 800)
                  ? 1
                  : 0;
    }
    return good;
  }
  void expectASecondRunToChangeNothing() {
    const Bytes after = rig.cardBytes();
    const RecoveryReport again = rig.boot();
    EXPECT_TRUE(again.ok()) << again.error;
    EXPECT_THAT(again.changes, IsEmpty());
    EXPECT_TRUE(rig.cardBytes() == after) << "a second run changed the card";
  }

  RecoveryRig rig;
  const Bytes empty;
  SyslogCapture log;
  DB_STREAM row_ = {};
  Bytes cut_;
};

TEST_F(InterruptedRowTest, AReadThatIsRefusedOnceCostsNothing) {
  interrupt(260);
  std::vector<int64_t> places = {headerByte()};
  for (const uint32_t i : {0u, 1u, 100u, 200u, 259u}) {
    places.push_back(entryByte(i));
    places.push_back(dataByte(i));
  }
  for (const int64_t place : places) {
    const RecoveryReport report = bootWithBadSector(place, 1);
    ASSERT_TRUE(report.ok()) << place << report.error;
    EXPECT_THAT(report.problems, IsEmpty()) << place;
    expectAll(260, "place " + std::to_string(place));
  }
}

TEST_F(InterruptedRowTest, ABadSectorUnderAPictureCostsNoOther) {
  interrupt(260);
  for (const uint32_t i : {0u, 100u, 200u, 259u}) {
    const RecoveryReport report = bootWithBadSector(dataByte(i), IoFaults::kForever);
    ASSERT_TRUE(report.ok()) << i << report.error;
    expectAll(260, "picture " + std::to_string(i));
  }
}

TEST_F(InterruptedRowTest, ABadSectorOfEntriesCostsOnlyThoseInIt) {
  interrupt(260);
  ASSERT_TRUE(bootWithBadSector(entryByte(100), IoFaults::kForever).ok());
  expectAll(260, "readable again");
  IoFaults faults(kCardPath);
  const int64_t sector = entryByte(100) - entryByte(100) % kSector;
  faults.failAt(Call::Read, static_cast<uint64_t>(sector), kSector, EIO);
  EXPECT_EQ(readable(), 260u - 16);
}

TEST_F(InterruptedRowTest, ItStaysOpenWhileItsHeaderOrItsLastEntriesAreRefused) {
  interrupt(260);
  for (const int64_t place : {headerByte(), entryByte(259), entryByte(260)}) {
    const RecoveryReport report = bootWithBadSector(place, IoFaults::kForever);
    ASSERT_TRUE(report.ok()) << place << report.error;
    ASSERT_EQ(allStreams().size(), 1u) << place;
    EXPECT_EQ(allStreams()[0].recSize, 0u) << place;
    EXPECT_THAT(report.problems, ElementsAre(HasSubstr("it stays open"))) << place;
    ASSERT_TRUE(rig.boot().ok());
    expectAll(260, "place " + std::to_string(place));
    expectASecondRunToChangeNothing();
  }
}

// Its sums would lack them, and it would end in 1970.
TEST_F(InterruptedRowTest, ItStaysOpenWhenEntriesAreRefusedThatWereThereAMomentAgo) {
  interrupt(260);
  rig.setCard(cut_);
  const int64_t place = entryByte(0);
  int second = 0;  // read of the first entries
  {
    const IoFaults counted(kCardPath);
    ASSERT_TRUE(rig.boot().ok());
    int reads = 0;
    int ofEntries = 0;
    for (const IoRecord& call : counted.calls()) {
      if (call.call != Call::Read) continue;
      ++reads;
      const bool there = call.offset <= place && call.offset > headerByte() - 4096 &&
                         place < call.offset + static_cast<int64_t>(call.length);
      if (there && ++ofEntries == 2) second = reads;
    }
  }
  ASSERT_GT(second, 0);
  rig.setCard(cut_);
  {
    IoFaults faults(kCardPath);
    faults.fail(Call::Read, second, EIO, 12);
    const RecoveryReport report = rig.boot();
    ASSERT_TRUE(report.ok()) << report.error;
    EXPECT_GT(faults.count(Call::Read), 0u);
  }
  const DB_STREAM row = allStreams().at(0);
  if (row.recSize != 0) expectAll(260, "closed");
  ASSERT_TRUE(rig.boot().ok());
  expectAll(260, "readable again");
}

TEST_F(InterruptedRowTest, NothingIsWrittenOverOneThatStaysOpen) {
  interrupt(260);
  ASSERT_TRUE(bootWithBadSector(headerByte(), IoFaults::kForever).ok());
  rig.startServer();
  {
    IoFaults faults(kCardPath);
    const int64_t sector = headerByte() - headerByte() % kSector;
    faults.failAt(Call::Read, static_cast<uint64_t>(sector), kSector, EIO);
    rig.record(1000, 1040);
  }
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  std::vector<uint32_t> all = range(0, 260);
  for (uint32_t number : range(1000, 1040)) all.push_back(number);
  EXPECT_EQ(verifyAll(), all);
}

TEST_F(InterruptedRowTest, DamagedEntriesInTheMiddleEndNothing) {
  interrupt(260);
  const uint32_t begin = slotOf(100) / 512 * 512;
  rig.card.writeChunk(tarn::kFilePicture, static_cast<int>(row_.chunkID), begin, Bytes(512, 0x5A));
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(allStreams().at(0).recSize, 260u);
  EXPECT_EQ(readable(), 260u - 16);
  expectASecondRunToChangeNothing();
}

TEST_F(InterruptedRowTest, ADamagedFirstEntryOrHeaderEndsNothing) {
  interrupt(260);
  rig.setPicture(row_, 0, Bytes(64, 0x5A));  // the header and the first entry
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(allStreams().at(0).recSize, 260u);
  EXPECT_EQ(readable(), 259u);
  expectASecondRunToChangeNothing();
}

TEST_F(InterruptedRowTest, DamagedPicturesInTheMiddleEndNothing) {
  interrupt(260);
  for (const uint32_t i : {0u, 100u, 200u, 201u}) {
    rig.card.write(static_cast<uint64_t>(dataByte(i)), Bytes(512, 0x5A));
  }
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(allStreams().at(0).recSize, 260u);
  EXPECT_EQ(readable(), 260u - 4);
  expectASecondRunToChangeNothing();
}

TEST_F(InterruptedRowTest, PicturesAtTheEndWhoseDataNeverCameAreNotCounted) {
  interrupt(260);
  for (uint32_t i = 250; i < 260; ++i) {
    rig.card.write(static_cast<uint64_t>(dataByte(i)), Bytes(512, 0));
  }
  ASSERT_TRUE(rig.boot().ok());
  expectAll(250, "ten of them never came");
  expectASecondRunToChangeNothing();
}

// Stale entries follow on the last one's sector, or garbage that no recording wrote.
TEST_F(InterruptedRowTest, AHoleAmongTheEntriesOfTheLastFlushEndsItThere) {
  interrupt(260);
  const uint32_t begin = slotOf(245) / 512 * 512;
  rig.card.writeChunk(tarn::kFilePicture, static_cast<int>(row_.chunkID), begin, Bytes(512, 0));
  ASSERT_TRUE(rig.boot().ok());
  const uint32_t kept = (begin - row_.chunkOffset) / 32 - 1;
  expectAll(kept, "torn");
}

// A sector that a torn write left out holds whole records or nothing, never garbage.
TEST_F(InterruptedRowTest, GarbageAmongTheEntriesOfTheLastFlushEndsNothing) {
  interrupt(260);
  const uint32_t begin = slotOf(240) / 512 * 512;
  rig.card.writeChunk(tarn::kFilePicture, static_cast<int>(row_.chunkID), begin, Bytes(512, 0x5A));
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(allStreams().at(0).recSize, 260u);
  EXPECT_EQ(readable(), 260u - 16);
  expectASecondRunToChangeNothing();
}

// The header is on the card before the row: its sector was written once, however new all else is.
TEST_F(InterruptedRowTest, ALostSectorWithTheHeaderEndsNothingHoweverNewTheEntries) {
  for (const uint8_t byte : {0x00, 0xFF}) {
    rig.powerOff(empty);
    ASSERT_TRUE(rig.boot().ok());
    rig.startServer();
    interrupt(24);
    const uint32_t begin = row_.chunkOffset / 512 * 512;
    rig.card.writeChunk(tarn::kFilePicture, static_cast<int>(row_.chunkID), begin,
                        Bytes(512, byte));
    ASSERT_TRUE(rig.boot().ok());
    ASSERT_EQ(allStreams().size(), 1u) << int{byte};
    EXPECT_EQ(allStreams()[0].recSize, 24u) << int{byte};
    EXPECT_EQ(readable(), 24u - 15) << int{byte};
    expectASecondRunToChangeNothing();
  }
}

TEST_F(InterruptedRowTest, AnyZoneOfTheRecoveryComesToTheSameEnd) {
  for (const char* recorded : {"XYZ-02:00", "XYZ+09:30"}) {
    setZone(recorded);
    rig.powerOff(empty);
    ASSERT_TRUE(rig.boot().ok());
    rig.startServer();
    interrupt(230);
    for (const char* now : {"UTC0", "XYZ-02:00", "XYZ-05:45", "XYZ-14:00", "XYZ+03:30", "XYZ+12:00",
                            "CET-1CEST,M3.5.0,M10.5.0/3"}) {
      setZone(now);
      rig.setCard(cut_);
      ASSERT_TRUE(rig.boot().ok()) << recorded << now;
      expectAll(230, std::string(recorded) + " read in " + now);
    }
  }
}

// A chunk that is full in the middle of a group of pictures; the next recording goes on there.
class MidGroupTest : public InterruptedRowTest {
 protected:
  MidGroupTest() : InterruptedRowTest({64 * kKiB, 16 * kKiB, 3, 64 * kKiB}) {}
};

TEST_F(MidGroupTest, ARecordingWithoutAnyKeyPictureIsInOrder) {
  Bytes cut;
  {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 110, 800, 1000));
    ASSERT_EQ(session.flush(), 0);
    cut = rig.cardBytes();
    ASSERT_EQ(allStreams().size(), 2u);
  }
  rig.powerOff(cut);
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(rig.headerOf(allStreams()[1]).gops, 0u);
  EXPECT_EQ(verifyAll(800, 1000), range(0, 110));
  tarn::CardCheck check;
  std::string error;
  ASSERT_EQ(check.run(kCardPath, {}, &error), 0) << error;
  for (const tarn::FindingKind kind : {tarn::FindingKind::kHeader, tarn::FindingKind::kEntry,
                                       tarn::FindingKind::kData, tarn::FindingKind::kRow}) {
    EXPECT_EQ(check.findings().count(kind), 0u);
  }
}

// One chunk, and a recording that begins in the last 4 KiB of its entries' ring.
class WrappedRowTest : public InterruptedRowTest {
 protected:
  WrappedRowTest() : InterruptedRowTest({1024 * kKiB, 16 * kKiB, 1, 64 * kKiB}) {}
};

TEST_F(WrappedRowTest, ARefusedReadAcrossTheEndOfTheRingCostsNothing) {
  rig.record(1000, 1200);
  rig.record(1200, 1440);
  rig.record(1440, 1489);
  interrupt(150);
  ASSERT_GT(row_.chunkOffset, 12u * kKiB);
  const auto end = static_cast<int64_t>(
      rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(row_.chunkID)) + 16 * kKiB);
  for (const int64_t place : {headerByte(), entryByte(0), end - 32}) {
    ASSERT_TRUE(bootWithBadSector(place, 1).ok());
    expectAll(150, "place " + std::to_string(place));
  }
  // And of a reader.
  for (const int64_t place : {headerByte(), entryByte(0), end - 32}) {
    IoFaults faults(kCardPath);
    faults.failAt(Call::Read, static_cast<uint64_t>(place), 32, EIO, 1);
    expectAll(150, "place " + std::to_string(place));
  }
}

// What was written over is never blank again: zeros in front of older records are damage.
TEST_F(WrappedRowTest, AnUnusedPlaceInFrontOfAUsedOneIsDamage) {
  rig.record(1000, 1200);
  rig.record(1200, 1440);
  rig.record(1440, 1540);
  interrupt(150);
  ASSERT_LT(row_.chunkOffset, 8u * kKiB);  // and records of another behind it
  const uint32_t begin = slotOf(130) / 512 * 512;
  for (const uint8_t byte : {0x00, 0xFF}) {
    rig.setCard(cut_);
    rig.card.writeChunk(tarn::kFilePicture, static_cast<int>(row_.chunkID), begin,
                        Bytes(512, byte));
    ASSERT_TRUE(rig.boot().ok());
    CApiDb db;
    DB_STREAM row = {};
    ASSERT_EQ(db.selectStream(row_.streamID, &row), 1u);
    EXPECT_EQ(row.recSize, 150u) << int{byte};
  }
}

TEST_F(InterruptedRowTest, AReaderIsNotEndedByAReadThatIsRefusedOnce) {
  rig.record(0, 60);
  row_ = allStreams()[0];
  for (int n = 1; n < 60; n += 7) {
    IoFaults faults(kCardPath);
    faults.fail(Call::Read, n, EIO);
    EXPECT_EQ(verifyAll(), range(0, 60)) << n;
  }
}

}  // namespace
}  // namespace tarn_test
