#include <gmock/gmock.h>

#include <algorithm>

#include "recorder/RecoveryRig.h"
#include "recorder/recovery/ManageFileRepair.h"
#include "support/Pace.h"

namespace tarn_test {
namespace {

using tarn::Recovery;
using tarn::RecoveryReport;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

// A card on which everything that recovery can mend is broken at once.
class RecoveryCutTest : public testing::Test {
 protected:
  Bytes damagedCard() {
    Bytes cut;
    {
      tarn::RecordingOptions options;
      options.channel = 5;
      rig.record(0, 60, options);
      rig.record(100, 140, options);
      options.channel = 6;
      rig.record(200, 240, options);
      options.channel = 7;
      tarn::RecordingSession session;
      EXPECT_TRUE(openSession(session, options));
      EXPECT_TRUE(writePictures(session, 300, 460));
      session.beginEvent(3, pictureTime(310), 2);
      session.beginEvent(4, pictureTime(320), 2);
      cut = rig.cardBytes();
    }
    const std::vector<DB_STREAM> rows = allStreams();
    EXPECT_EQ(rows.size(), 4u);
    rig.powerOff(cut);
    rig.reopenRow(rows[0]);  // overtaken by rows[1]
    rig.setPicture(rows[1], 0, Bytes(32, 0x11));
    rig.reopenRow(rows[2]);
    rig.editRecord(rows[2], tarn::kStreamInTrgOff, 0x80u << 16);  // audio
    rig.card.writeChunk(tarn::kFileJournal, 3, rows[2].backOffset, Bytes(64, 0x5A));
    rig.spoilManage(tarn::kFileStreamManage, 0);
    rig.spoilManage(tarn::kFileJournalManage, 0);
    rig.spoilManage(tarn::kFileJournalManage, 1);
    rig.spoilManage(tarn::kFileSyslogManage, 1);
    return rig.cardBytes();
  }

  RecoveryRig rig;
  SyslogCapture log;
};

TEST_F(RecoveryCutTest, AllDamageIsMendedAtOnce) {
  damagedCard();
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u, 2u, 3u, 4u));
  const uint32_t kept = allStreams()[3].recSize;
  EXPECT_GE(kept, 130u);
  std::vector<uint32_t> all = range(0, 60);
  for (uint32_t n : range(100, 140)) all.push_back(n);
  for (uint32_t n : range(200, 240)) all.push_back(n);
  for (uint32_t n : range(300, 300 + kept)) all.push_back(n);
  EXPECT_EQ(verifyAll(), all);
  EXPECT_EQ(report.count(Kind::kRecordingClosed), 3u);
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 0u);
  EXPECT_EQ(report.count(Kind::kEventClosed), 2u);
  EXPECT_EQ(report.startUp.streams.copied, 1u);
}

TEST_F(RecoveryCutTest, WhereverPowerGoesInItTheNextRunEndsInTheSameState) {
  const Bytes damaged = damagedCard();
  size_t writes = 0;
  {
    const IoFaults counted(kCardPath);
    ASSERT_TRUE(rig.boot().ok());
    writes = counted.count(Call::Write);
  }
  const Bytes mended = rig.cardBytes();
  const std::vector<uint32_t> pictures = verifyAll();
  EXPECT_GT(writes, 20u);
  for (size_t k = 1; k <= writes; ++k) {
    rig.setCard(damaged);
    {
      IoFaults faults(kCardPath);
      faults.fail(Call::Write, static_cast<int>(k), EIO, IoFaults::kForever);
      rig.boot();
    }
    const RecoveryReport report = rig.boot();
    ASSERT_TRUE(report.ok()) << k << ": " << report.error;
    const Bytes now = rig.cardBytes();
    if (now == mended) continue;
    for (size_t i = 0; i < now.size(); ++i) {
      if (now[i] == mended[i]) continue;
      ADD_FAILURE() << "stopped at write " << k << ": byte " << i << " is " << int{now[i]}
                    << " instead of " << int{mended[i]};
      break;
    }
  }
  EXPECT_EQ(verifyAll(), pictures);
}

TEST_F(RecoveryCutTest, ReadsThatFailNeverLoseARowSilently) {
  rig.record(0, 60);
  rig.record(100, 140);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  size_t reads = 0;
  {
    const IoFaults counted(kCardPath);
    ASSERT_TRUE(rig.boot().ok());
    reads = counted.count(Call::Read);
  }
  // Four starts of a recorder at each place, so a few places here, with a real server; the rig of
  // the power cuts refuses each read of many more recoveries.
  constexpr size_t kPlaces = 24 / tarn_test::kPlaceStep;
  const size_t step = std::max<size_t>(1, reads / kPlaces);
  for (size_t k = 1; k <= reads; k += step) {
    for (int times : {1, 3}) {
      rig.setCard(good);
      RecoveryReport report;
      {
        IoFaults faults(kCardPath);
        faults.fail(Call::Read, static_cast<int>(k), EIO, times);
        report = rig.boot();
      }
      EXPECT_TRUE(report.ok() || times > 1) << k << ": " << report.error;
      if (report.ok()) {
        EXPECT_EQ(report.streamRows, 2u) << k;
      }
      ASSERT_TRUE(rig.boot().ok()) << k;
      EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u, 2u)) << k;
      ASSERT_EQ(verifyAll().size(), 100u) << k;
    }
  }
}

TEST_F(RecoveryCutTest, ACardThatGivesNothingStopsTheStart) {
  rig.record(0, 60);
  rig.powerOff();
  {
    IoFaults faults(kCardPath);
    faults.fail(Call::Read, 1, EIO, IoFaults::kForever);
    EXPECT_FALSE(rig.boot().ok());
  }
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(verifyAll().size(), 60u);
}

TEST_F(RecoveryCutTest, ARecoveryThatIsTriedAgainTellsAllThatItChanged) {
  const Bytes cut = damagedCard();
  rig.setCard(cut);
  size_t reads = 0;
  size_t changes = 0;
  {
    const IoFaults counted(kCardPath);
    changes = rig.boot().changes.size();
    reads = counted.count(Call::Read);
  }
  ASSERT_GT(changes, 0u);
  rig.setCard(cut);
  IoFaults faults(kCardPath);
  faults.fail(Call::Read, static_cast<int>(reads), EIO);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.changes.size(), changes);
}

class DatabaseImageTest : public testing::Test {
 protected:
  // Everything has ended in order.
  void stopCleanly() {
    CDbLog::getInstance()->finish();
    rig.stopServer();
    std::string error;
    ASSERT_EQ(Recovery().saveImage(&error), 0) << error;
  }
  int32_t imageSize() const {
    const Bytes bytes = rig.card.readChunk(tarn::kFileDbImage, 0, 0, 4);
    return static_cast<int32_t>(tarn::getLe32(bytes.data()));
  }

  RecoveryRig rig;
  SyslogCapture log;
};

TEST_F(DatabaseImageTest, ACleanStopIsFollowedByAStartWithoutAReplay) {
  rig.record(0, 40);
  stopCleanly();
  EXPECT_GT(imageSize(), 0);
  const Bytes record = rig.card.readChunk(tarn::kFileJournal, 3, 0, 64);
  rig.card.fill(rig.card.chunkStart(tarn::kFileJournal, 3), 64, 0x5A);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_TRUE(report.fromImage);
  EXPECT_EQ(report.startUp.streamRows, 0u) << "the journal was replayed";
  EXPECT_EQ(report.startUp.streams.copied, 1u) << "it would go on without its mirror";
  EXPECT_EQ(rig.card.readChunk(tarn::kFileJournal, 3, 0, 64), record);
  EXPECT_EQ(report.streamRows, 1u);
  EXPECT_EQ(imageSize(), 0) << "marked empty at once";
  EXPECT_EQ(access("/tmp/DB.dat.image", F_OK), -1);
  EXPECT_EQ(verifyAll(), range(0, 40));
  // The next one has no image.
  const RecoveryReport again = rig.boot();
  EXPECT_TRUE(again.ok()) << again.error;
  EXPECT_FALSE(again.fromImage);
  EXPECT_EQ(verifyAll(), range(0, 40));
}

// What lists or exports recordings changes nothing, and need not wear the card, or wait for it.
TEST_F(DatabaseImageTest, AfterARunThatChangedNothingOnlyItsSizeIsWritten) {
  rig.record(0, 40);
  stopCleanly();
  const Bytes image = rig.card.readChunk(tarn::kFileDbImage, 0, 0, kMiB);
  ASSERT_TRUE(rig.boot().fromImage);
  ASSERT_EQ(imageSize(), 0);
  const uint64_t begin = rig.card.chunkStart(tarn::kFileDbImage, 0);
  {
    const IoFaults counted(kCardPath);
    stopCleanly();
    for (const WriteRecord& write : counted.writes()) {
      EXPECT_EQ(write.offset, static_cast<int64_t>(begin));
      EXPECT_LE(write.length, 512u);
    }
    EXPECT_GE(counted.count(Call::Fsync), 1u);
  }
  EXPECT_EQ(rig.card.readChunk(tarn::kFileDbImage, 0, 0, kMiB), image);
  EXPECT_TRUE(rig.boot().fromImage);
  EXPECT_EQ(verifyAll(), range(0, 40));
}

// A whole image is half a second and the size of the database: more than who only reads should
// cost.
TEST_F(DatabaseImageTest, WhoOnlyReadsLeavesTheImageOfBeforeOrNone) {
  rig.record(0, 40);
  stopCleanly();
  ASSERT_TRUE(rig.boot().fromImage);
  std::string error;
  EXPECT_EQ(Recovery().keepImage(&error), 0) << error;
  ASSERT_TRUE(rig.boot().fromImage);
  rig.startServer();
  rig.record(50, 90);
  CDbLog::getInstance()->finish();
  rig.stopServer();
  const auto begin = static_cast<int64_t>(rig.card.chunkStart(tarn::kFileDbImage, 0));
  {
    const IoFaults counted(kCardPath);
    EXPECT_EQ(Recovery().keepImage(&error), -1);
    EXPECT_EQ(error, "the card has no image of this database");
    for (const WriteRecord& write : counted.writes()) {
      EXPECT_EQ(write.offset, begin);
      EXPECT_LE(write.length, 512u);
    }
  }
  EXPECT_EQ(imageSize(), 0);
  EXPECT_FALSE(rig.boot().fromImage);
  EXPECT_EQ(verifyAll().size(), 80u);
}

// Nor is what lies there taken for what was saved, because its seal says so.
TEST_F(DatabaseImageTest, ADamagedOneIsNotAnnouncedAgain) {
  rig.record(0, 40);
  stopCleanly();
  ASSERT_TRUE(rig.boot().fromImage);
  rig.card.fill(rig.card.chunkStart(tarn::kFileDbImage, 0) + 4 + 100, 64, 0x5A);
  stopCleanly();
  EXPECT_TRUE(rig.boot().fromImage);
  EXPECT_EQ(verifyAll(), range(0, 40));
}

TEST_F(DatabaseImageTest, IsNotSavedWhileARecordingRunsOrAServerDoes) {
  std::string error;
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 40));
  const Bytes before = rig.cardBytes();
  EXPECT_EQ(Recovery().saveImage(&error), -1);
  EXPECT_EQ(error, "a management server is running; the database is saved when it has stopped");
  EXPECT_TRUE(rig.cardBytes() == before);
  rig.stopServer();  // its session goes on for a while
  const Bytes stopped = rig.cardBytes();
  EXPECT_EQ(Recovery().saveImage(&error), -1);
  EXPECT_EQ(error, "a recording is running; the database is saved when it has ended");
  EXPECT_TRUE(rig.cardBytes() == stopped);
  rig.startServer();  // it ends without waiting for one
}

TEST_F(DatabaseImageTest, OfALostDatabaseIsNotReplaced) {
  rig.record(0, 40);
  stopCleanly();
  rig.forget();
  const Bytes before = rig.cardBytes();
  std::string error;
  EXPECT_EQ(Recovery().saveImage(&error), -1);
  EXPECT_EQ(error, "there is no database /tmp/DB.dat to save");
  EXPECT_TRUE(rig.cardBytes() == before);
  EXPECT_TRUE(rig.boot().fromImage);
}

TEST_F(DatabaseImageTest, KeysGoOnBehindTheImage) {
  rig.record(0, 40);
  rig.record(100, 140);
  {
    CApiDb db;
    db.deleteStream(2);
  }
  stopCleanly();
  ASSERT_TRUE(rig.boot().fromImage);
  rig.startServer();
  rig.record(200, 240);
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u, 3u));
}

TEST_F(DatabaseImageTest, AnImageOlderThanTheJournalIsNotTrusted) {
  rig.record(0, 40);
  stopCleanly();
  const Bytes image = rig.card.readChunk(tarn::kFileDbImage, 0, 0, kMiB);
  ASSERT_TRUE(rig.boot().fromImage);
  rig.startServer();
  {
    CApiDb db;
    db.deleteStream(1);
  }
  rig.record(100, 140);
  rig.powerOff();
  rig.card.writeChunk(tarn::kFileDbImage, 0, 0, image);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_FALSE(report.fromImage);
  EXPECT_THAT(report.problems, ElementsAre("the database image is older than the journal"));
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(2u));
  EXPECT_EQ(imageSize(), 0);
}

TEST_F(DatabaseImageTest, ADamagedImageIsReplacedByTheJournal) {
  rig.record(0, 40);
  stopCleanly();
  const Bytes good = rig.cardBytes();
  const auto size = static_cast<uint32_t>(imageSize());
  for (const Bytes& head : {Bytes(4096, 0x33), Bytes(16, 0)}) {
    rig.setCard(good);
    rig.card.writeChunk(tarn::kFileDbImage, 0, 4, head);
    const RecoveryReport report = rig.boot();
    ASSERT_TRUE(report.ok()) << report.error;
    EXPECT_FALSE(report.fromImage);
    EXPECT_EQ(report.problems.size(), 1u);
    EXPECT_EQ(verifyAll(), range(0, 40));
    EXPECT_EQ(imageSize(), 0);
  }
  EXPECT_GT(size, 0u);
}

TEST_F(DatabaseImageTest, AnImageOfAnImpossibleSizeIsReplacedByTheJournal) {
  rig.record(0, 40);
  stopCleanly();
  const Bytes good = rig.cardBytes();
  for (uint32_t size : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 100u, kMiB - 3}) {
    rig.setCard(good);
    Bytes bytes(4);
    tarn::putLe32(bytes.data(), size);
    rig.card.writeChunk(tarn::kFileDbImage, 0, 0, bytes);
    const RecoveryReport report = rig.boot();
    ASSERT_TRUE(report.ok()) << report.error;
    EXPECT_FALSE(report.fromImage) << size;
    EXPECT_EQ(imageSize(), 0);
    EXPECT_EQ(verifyAll(), range(0, 40));
  }
}

TEST_F(DatabaseImageTest, WhereverPowerGoesInASaveTheDatabaseComesBack) {
  rig.record(0, 40);
  CDbLog::getInstance()->finish();
  rig.stopServer();
  const Bytes before = rig.cardBytes();
  Bytes database;
  for (int k = 1;; ++k) {
    rig.setCard(before);
    ASSERT_TRUE(rig.boot().ok());
    std::string error;
    int saved = 0;
    {
      IoFaults faults(kCardPath);
      faults.fail(Call::Write, k, EIO, IoFaults::kForever);
      saved = Recovery().saveImage(&error);
    }
    const RecoveryReport report = rig.boot();
    ASSERT_TRUE(report.ok()) << k << report.error;
    EXPECT_EQ(report.fromImage, saved == 0) << k;
    EXPECT_EQ(verifyAll(), range(0, 40)) << k;
    if (saved == 0) break;
    ASSERT_LT(k, 50);
    k += k > 3 ? 3 : 0;
  }
}

TEST_F(DatabaseImageTest, ADatabaseThatDoesNotFitIsRebuiltFromTheJournal) {
  rig.record(0, 40);
  {
    CApiDb db;
    db.setSqlNoResult("CREATE TABLE BALLAST( x BLOB )");
    db.setSqlNoResult("INSERT INTO BALLAST VALUES( zeroblob( 1100000 ) )");
  }
  CDbLog::getInstance()->finish();
  rig.stopServer();
  std::string error;
  EXPECT_EQ(Recovery().saveImage(&error), -1);
  EXPECT_EQ(error, "the database does not fit into its image or cannot be written");
  EXPECT_EQ(imageSize(), 0);
  const RecoveryReport report = rig.boot();
  EXPECT_TRUE(report.ok());
  EXPECT_FALSE(report.fromImage);
  EXPECT_EQ(verifyAll(), range(0, 40));
}

TEST_F(DatabaseImageTest, ACardThatDoesNotLetTheImageBeMarkedEmptyStopsTheStart) {
  rig.record(0, 40);
  stopCleanly();
  const uint64_t place = rig.card.chunkStart(tarn::kFileDbImage, 0);
  size_t write = 0;
  const Bytes saved = rig.cardBytes();
  {
    const IoFaults counted(kCardPath);
    ASSERT_TRUE(rig.boot().ok());
    for (const WriteRecord& record : counted.writes()) {
      ++write;
      if (record.offset == static_cast<int64_t>(place)) break;
    }
  }
  rig.setCard(saved);
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, static_cast<int>(write), EIO, IoFaults::kForever);
  EXPECT_EQ(rig.boot().error, "the card's database image could not be marked empty");
}

TEST_F(DatabaseImageTest, IsDroppedWhenTheServerStartsWithoutARecovery) {
  rig.record(0, 40);
  stopCleanly();
  EXPECT_GT(imageSize(), 0);
  rig.startServer();
  EXPECT_EQ(imageSize(), 0);
  rig.record(100, 140);  // the row that the image knows as the newest stays in the journal
  rig.powerOff();
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_FALSE(report.fromImage);
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u, 2u));
}

TEST_F(DatabaseImageTest, IsDroppedAlsoWhenAReadErrorHidesIt) {
  rig.record(0, 40);
  stopCleanly();
  {
    IoFaults faults(kCardPath);
    faults.fail(Call::Read, 1, EIO);
    rig.startServer();
  }
  EXPECT_EQ(imageSize(), 0);
}

TEST_F(DatabaseImageTest, NoServerStartsThatCannotDropIt) {
  rig.record(0, 40);
  stopCleanly();
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 1, EIO, IoFaults::kForever);
  tarn::ManagementServer server;
  testing::internal::CaptureStderr();
  EXPECT_EQ(server.start(), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "tarn-server: the card's database image can't be marked empty\n");
  EXPECT_GT(imageSize(), 0);
}

// The checksum covers every byte, the size in front of them too; a seal that lost its mark is no
// image of before there were seals.
TEST_F(DatabaseImageTest, OneFlippedBitAnywhereSendsTheStartToTheJournal) {
  rig.record(0, 40);
  stopCleanly();
  const Bytes good = rig.cardBytes();
  const auto size = static_cast<uint32_t>(imageSize());
  const auto seal =
      static_cast<uint32_t>(rig.card.readChunk(tarn::kFileDbImage, 0, 0, kMiB).size()) - 512;
  for (const uint32_t byte : {0u, 1u, 4u, 28u, 4u + size / 2, 4u + size / 3, 3u + size, seal,
                              seal + 7, seal + 8, seal + 60}) {
    rig.setCard(good);
    Bytes bytes = rig.card.readChunk(tarn::kFileDbImage, 0, byte, 1);
    bytes[0] ^= 0x10;
    rig.card.writeChunk(tarn::kFileDbImage, 0, byte, bytes);
    const RecoveryReport report = rig.boot();
    ASSERT_TRUE(report.ok()) << byte << report.error;
    EXPECT_FALSE(report.fromImage) << byte;
    EXPECT_EQ(report.streamRows, 1u);
  }
}

// Rows that change without a newer one.
TEST_F(DatabaseImageTest, AnImageFromBeforeAChangeOfARowIsNotTrusted) {
  rig.record(0, 40);
  stopCleanly();
  const Bytes image = rig.card.readChunk(tarn::kFileDbImage, 0, 0, kMiB);
  ASSERT_TRUE(rig.boot().fromImage);
  rig.startServer();
  {
    CApiDb db;
    DB_STREAM row = {};
    ASSERT_EQ(db.selectStream(1, &row), 1u);
    row.inTrg = 77;
    db.updateStream(0x02, &row);
  }
  rig.powerOff();
  rig.card.writeChunk(tarn::kFileDbImage, 0, 0, image);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(report.problems, ElementsAre("the database image is older than the journal"));
  EXPECT_EQ(allStreams()[0].inTrg, 77u);
}

TEST_F(DatabaseImageTest, AnImageWithoutASealIsTakenByItsRows) {
  rig.record(0, 40);
  stopCleanly();
  const uint64_t seal = rig.card.chunkStart(tarn::kFileDbImage, 0) +
                        rig.card.readChunk(tarn::kFileDbImage, 0, 0, kMiB).size() - 512;
  ASSERT_EQ(rig.card.read(seal, 8), (Bytes{'T', 'A', 'R', 'N', 'S', 'E', 'A', 'L'}));
  rig.card.fill(seal, 64, 0xFF);
  EXPECT_TRUE(rig.boot().fromImage);
  EXPECT_EQ(verifyAll(), range(0, 40));
}

TEST_F(DatabaseImageTest, AReadErrorOnTheDatabaseLeavesNoImage) {
  rig.record(0, 40);
  CDbLog::getInstance()->finish();
  rig.stopServer();
  const Bytes before = rig.cardBytes();
  int reads = 0;
  {
    const IoFaults counted("/tmp/DB.dat");
    std::string error;
    ASSERT_EQ(Recovery().saveImage(&error), 0) << error;
    reads = static_cast<int>(counted.count(Call::Read));
  }
  ASSERT_GT(reads, 2);
  for (int n = 1; n <= reads; n += 3) {
    rig.setCard(before);
    std::string error;
    IoFaults faults("/tmp/DB.dat");
    faults.fail(Call::Read, n, EIO, IoFaults::kForever);
    // The last one only asks whether there is more: what it refuses loses nothing.
    const bool loses = n < reads;
    EXPECT_EQ(Recovery().saveImage(&error), loses ? -1 : 0) << n;
    if (loses) {
      EXPECT_FALSE(error.empty());
    }
    EXPECT_EQ(imageSize() == 0, loses) << n;
  }
}

TEST_F(DatabaseImageTest, NothingThatAnImageDefinesIsRun) {
  rig.record(0, 40);
  {
    CApiDb db;
    db.setSqlNoResult("CREATE TRIGGER t AFTER INSERT ON STREAM BEGIN DELETE FROM EVENT; END");
  }
  stopCleanly();
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_FALSE(report.fromImage);
  EXPECT_THAT(report.problems,
              ElementsAre("the database image has other tables than the recorder's"));
  EXPECT_EQ(verifyAll(), range(0, 40));
}

class ManageCopies : public DatabaseImageTest {};

TEST_F(ManageCopies, OnesThatAreRefusedAreNeitherMadeAnewNorWrittenOver) {
  rig.record(0, 40);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes before = rig.cardBytes();
  for (const int type : {tarn::kFileStreamManage, tarn::kFileSyslogManage}) {
    for (const int copies : {1, 2, 3}) {
      RecoveryReport report;
      {
        IoFaults faults(kCardPath);
        for (int copy = 0; copy < 2; ++copy) {
          if ((copies & (1 << copy)) == 0) continue;
          faults.failAt(Call::Read, rig.card.chunkStart(type, copy), 512, EIO);
        }
        std::vector<CHUNK_MANAGE> records;
        std::string unread;
        const auto chunkType =
            type == tarn::kFileStreamManage ? tarn::kFileStream : tarn::kFileSyslog;
        const tarn::ManageRepair expected[] = {
            tarn::ManageRepair::kGood, tarn::ManageRepair::kMainUnread,
            tarn::ManageRepair::kBackupUnread, tarn::ManageRepair::kUnreadable};
        EXPECT_EQ(tarn::repairManageFile(chunkType, &records, &unread), expected[copies]);
        EXPECT_EQ(unread, std::string(type == tarn::kFileStreamManage ? "MGST" : "MGSL") +
                              (copies == 2 ? "0001" : "0000"));
        EXPECT_EQ(faults.count(Call::Write), 0u);
        if (copies == 3) {
          report = rig.boot();
          EXPECT_NE(report.error.find("cannot be read"), std::string::npos) << report.error;
          EXPECT_EQ(faults.count(Call::Write), 0u);
        }
      }
      EXPECT_TRUE(rig.cardBytes() == before) << type << " " << copies;
    }
  }
  EXPECT_TRUE(rig.boot().ok());
  EXPECT_EQ(verifyAll(), range(0, 40));
}

}  // namespace
}  // namespace tarn_test
