#include <gmock/gmock.h>

#include "recorder/RecoveryRig.h"
#include "recorder/rows/ServerProbe.h"

namespace tarn_test {
namespace {

using tarn::kServerLockPath;
using tarn::ManageRepair;
using tarn::Recovery;
using tarn::RecoveryReport;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr size_t kManageBytes = 3 * 24 + 2;

class RecoveryTest : public testing::Test {
 protected:
  void expectASecondRunToChangeNothing() {
    const Bytes after = rig.cardBytes();
    const RecoveryReport again = rig.boot();
    EXPECT_TRUE(again.ok()) << again.error;
    EXPECT_THAT(again.changes, IsEmpty());
    EXPECT_TRUE(rig.cardBytes() == after) << "a second run changed the card";
  }

  // Recordings 1, of pictures 0 to 49, and 2, of pictures 5000 to 5049 and with an event.
  void recordBeforeOneWithAnEvent() {
    rig.record(0, 50);
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 5000, 5050));
    const uint32_t event = session.beginEvent(3, pictureTime(5010), 2);
    ASSERT_EQ(session.endEvent(event, pictureTime(5030)), 0);
  }
  // A recording of pictures 0 to 49 that is no video and was not closed.
  DB_STREAM interruptedAudio() {
    rig.record(0, 50);
    const DB_STREAM row = allStreams().at(0);
    rig.powerOff();
    rig.reopenRow(row);
    rig.editRecord(row, tarn::kStreamInTrgOff, 0x80u << 16);  // frameSet beside inTrg
    return row;
  }

  RecoveryRig rig;
  SyslogCapture log;
};

TEST_F(RecoveryTest, ARecordingThatLostPowerComesBackPictureByPicture) {
  Bytes cut;
  {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 130));
    cut = rig.cardBytes();
  }
  rig.powerOff(cut);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingClosed), 1u);
  EXPECT_FALSE(report.fromImage);
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_GE(rows[0].recSize, 130u - kRate - 1) << "at most a second of 25 pictures is lost";
  EXPECT_EQ(verifyAll(), range(0, rows[0].recSize));
  EXPECT_EQ(report.changes[0].pictures, rows[0].recSize);
  EXPECT_THAT(report.changes[0].text,
              HasSubstr("recording 1 of 2023-11-15 00:13:20+02:00 was interrupted"));
  const tarn::StreamHeader header = rig.headerOf(rows[0]);
  EXPECT_EQ(header.pictures, rows[0].recSize);
  EXPECT_EQ(header.gops, (rows[0].recSize + kRate - 1) / kRate);
  EXPECT_EQ(header.lastTime, rows[0].endDate);
  expectASecondRunToChangeNothing();

  rig.startServer();
  rig.record(1000, 1060);
  EXPECT_EQ(allStreams().size(), 2u);
  std::vector<uint32_t> all = range(0, rows[0].recSize);
  for (uint32_t number : range(1000, 1060)) all.push_back(number);
  EXPECT_EQ(verifyAll(), all);
}

// A row of which nothing was safe goes, and with it what only it could show.
TEST_F(RecoveryTest, EventsOfOtherRecordingsStayWhenARecordingIsLostInTheirSecond) {
  Bytes cut;
  {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 30));
    const uint32_t before = session.beginEvent(1, pictureTime(27), 0);
    ASSERT_EQ(session.endEvent(before, pictureTime(29)), 0);
    ASSERT_EQ(session.close(), 0);
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 30, 31, 800, 1));
    const uint32_t lost = session.beginEvent(2, pictureTime(31), 0);
    ASSERT_EQ(session.endEvent(lost, pictureTime(32)), 0);
    cut = rig.cardBytes();  // both begin in the same second as the row
  }
  rig.powerOff(cut);
  RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 1u);
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u));
  std::vector<DB_EVENT> events = allEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].extTrg, 1u);
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, EventsOfAnotherChannelStayWhenARecordingIsLost) {
  Bytes cut;
  {
    tarn::RecordingSession session;
    tarn::RecordingSession other;
    tarn::RecordingOptions options;
    options.channel = 1;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 60));
    ASSERT_TRUE(openSession(other, options));
    ASSERT_TRUE(writePictures(other, 50, 51));
    const uint32_t event = session.beginEvent(1, pictureTime(55), 0);
    ASSERT_EQ(session.endEvent(event, pictureTime(57)), 0);
    ASSERT_EQ(session.flush(), 0);
    cut = rig.cardBytes();
  }
  rig.powerOff(cut);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u));
  EXPECT_EQ(allEvents().size(), 1u);
  EXPECT_EQ(verifyAll(), range(0, 60));
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, PowerMayGoBehindAnyPicture) {
  std::vector<Bytes> cuts;
  {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    for (uint32_t i = 0; i < 60; i += 5) {
      ASSERT_TRUE(writePictures(session, i, i + 5));
      if (i % 15 == 0) {
        ASSERT_EQ(session.flush(), 0);
      }
      cuts.push_back(rig.cardBytes());
    }
    ASSERT_EQ(session.close(), 0);
    cuts.push_back(rig.cardBytes());
  }
  rig.powerOff();
  for (size_t i = 0; i < cuts.size(); ++i) {
    rig.setCard(cuts[i]);
    const RecoveryReport report = rig.boot();
    ASSERT_TRUE(report.ok()) << i << report.error;
    const std::vector<uint32_t> found = verifyAll();
    const auto written = static_cast<uint32_t>(i + 1) * 5;
    const uint32_t flushed = i == cuts.size() - 1 ? 60 : static_cast<uint32_t>(i / 3) * 15 + 5;
    EXPECT_EQ(found, range(0, static_cast<uint32_t>(found.size())));
    EXPECT_GE(found.size(), flushed) << i;
    EXPECT_LE(found.size(), written) << i;
    expectASecondRunToChangeNothing();
  }
}

TEST_F(RecoveryTest, RecordingWithoutPicturesIsDeletedWithItsEvents) {
  Bytes cut;
  {
    rig.record(0, 50);
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 100, 101));
    EXPECT_NE(session.beginEvent(3, pictureTime(100), 2), 0u);
    cut = rig.cardBytes();
  }
  rig.powerOff(cut);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 1u);
  EXPECT_EQ(report.count(Kind::kEventDeleted), 1u);
  EXPECT_EQ(verifyAll(), range(0, 50));
  EXPECT_THAT(allEvents(), IsEmpty());
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, EveryOpenEventEndsWithTheNewestRecording) {
  Bytes cut;
  {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    ASSERT_TRUE(writePictures(session, 0, 100));
    EXPECT_NE(session.beginEvent(3, pictureTime(10), 2), 0u);
    EXPECT_NE(session.beginEvent(4, pictureTime(30), 2), 0u);
    EXPECT_NE(session.beginEvent(5, pictureTime(3000), 2), 0u);
    ASSERT_EQ(session.flush(), 0);
    cut = rig.cardBytes();
  }
  rig.powerOff(cut);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kEventClosed), 2u);
  EXPECT_EQ(report.count(Kind::kEventDeleted), 1u) << "it began behind the last recording";
  const std::vector<DB_EVENT> events = allEvents();
  ASSERT_EQ(events.size(), 2u);
  const uint32_t end = allStreams()[0].endDate;
  EXPECT_EQ(events[0].endDate, end);
  EXPECT_EQ(events[1].endDate, end);
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, AnOpenEventWithoutAnyRecordingIsDeleted) {
  {
    CApiDb db;
    DB_EVENT event = {};
    event.startDate = kStart;
    ASSERT_EQ(db.insertEvent(&event), 1u);
  }
  rig.powerOff();
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kEventDeleted), 1u);
  EXPECT_THAT(allEvents(), IsEmpty());
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, ALeftOverOfDaysAgoIsClosedAndLeavesLaterEventsAlone) {
  recordBeforeOneWithAnEvent();
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(rows.size(), 2u);
  ASSERT_EQ(rows[0].chunkID, rows[1].chunkID);
  rig.powerOff();
  rig.reopenRow(rows[0]);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  ASSERT_EQ(report.changes.size(), 1u);
  EXPECT_EQ(report.changes[0].kind, Kind::kRecordingClosed);
  EXPECT_EQ(report.changes[0].key, 1u);
  EXPECT_EQ(rig.headerOf(allStreams()[0]).pictures, 50u);
  std::vector<uint32_t> all = range(0, 50);
  for (uint32_t number : range(5000, 5050)) all.push_back(number);
  EXPECT_EQ(verifyAll(), all);
  EXPECT_EQ(allEvents().size(), 1u);
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, AudioIsClosedWhereItsEntriesConfirmIt) {
  interruptedAudio();
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].recSize, 50u);
  EXPECT_EQ(rows[0].chunkSize, 51u * 32);
  EXPECT_EQ(rows[0].endDate, kStart + 1);
  EXPECT_EQ(rows[0].status, 0x10000u);
  EXPECT_EQ(report.count(Kind::kRecordingClosed), 1u);
  EXPECT_EQ(rig.headerOf(rows[0]).pictures, 50u);
  EXPECT_EQ(rig.headerOf(rows[0]).dataSize, 50u * (800 + 50)) << "time stamp units included";
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, ALeftOverOfWhichNothingIsThereGoesAloneWhenANewerOneFollows) {
  recordBeforeOneWithAnEvent();
  const std::vector<DB_STREAM> rows = allStreams();
  rig.powerOff();
  rig.reopenRow(rows[0]);
  rig.setPicture(rows[0], 1, Bytes(50 * 32, 0xFF));
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 1u);
  EXPECT_EQ(verifyAll(), range(5000, 5050));
  EXPECT_EQ(allEvents().size(), 1u);
  expectASecondRunToChangeNothing();
}

// The entries of the last flush may have reached the card in any order.
TEST_F(RecoveryTest, AudioEntriesCountUpToAHoleInTheLastFlush) {
  const DB_STREAM row = interruptedAudio();
  rig.setPicture(row, 16, Bytes(16 * 32, 0xFF));  // a sector: entries 15 to 30
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(verifyAll(), range(0, 15));
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, AudioWithoutAnyEntryIsDeletedAlone) {
  const DB_STREAM row = interruptedAudio();
  rig.setPicture(row, 1, Bytes(50 * 32, 0xFF));
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 1u);
  EXPECT_THAT(allStreams(), IsEmpty());
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, HeadersOfTheOldestAndTheNewestAreRewrittenFromTheirEntries) {
  rig.record(0, 40);
  rig.record(100, 140);
  rig.record(200, 240);
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(rows.size(), 3u);
  ASSERT_EQ(rows[0].chunkID, rows[2].chunkID);
  rig.powerOff();
  const int chunk = static_cast<int>(rows[0].chunkID);
  const Bytes good = rig.card.readChunk(tarn::kFilePicture, chunk, 0, 16 * kKiB);
  rig.setPicture(rows[0], 0, Bytes(32, 0x77));
  tarn::StreamHeader wrong = rig.headerOf(rows[2]);
  wrong.dataSize += 100;
  rig.setHeader(rows[2], wrong);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kHeaderRewritten), 2u);
  EXPECT_TRUE(rig.card.readChunk(tarn::kFilePicture, chunk, 0, 16 * kKiB) == good);
  std::vector<uint32_t> all = range(0, 40);
  for (uint32_t n : range(100, 140)) all.push_back(n);
  for (uint32_t n : range(200, 240)) all.push_back(n);
  EXPECT_EQ(verifyAll(), all);
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, ARecordingOfWhichNoEntryIsLeftStaysAndTheNextOneIsLookedAt) {
  rig.record(0, 40);
  rig.record(100, 140);
  rig.record(200, 240);
  const std::vector<DB_STREAM> rows = allStreams();
  rig.powerOff();
  rig.setPicture(rows[0], 0, Bytes(41 * 32, 0));
  rig.setPicture(rows[1], 0, Bytes(32, 0));
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 0u);
  EXPECT_EQ(report.count(Kind::kHeaderRewritten), 1u);
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u, 2u, 3u));
  expectASecondRunToChangeNothing();

  rig.forget();
  EXPECT_EQ(tarn::Recovery(tarn::FusePolicy::kAccept).run().count(Kind::kRecordingDeleted), 1u);
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(2u, 3u));
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, ChannelsOfChunksAreKept) {
  tarn::RecordingOptions options;
  rig.record(0, 40, options);
  options.channel = 7;
  options.recType = 2;
  rig.record(100, 140, options);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes manage = rig.manageBytes(tarn::kFileStreamManage, 0, kManageBytes);
  EXPECT_EQ(manage[24 + 6], 0);
  EXPECT_EQ(manage[48 + 6], 7);
  EXPECT_EQ(manage[48 + 7], 2);
  EXPECT_EQ(manage[6], 0xFF) << "a free chunk";
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, WithoutKnownChannelsUsedChunksGetChannelZero) {
  tarn::RecordingOptions options;
  options.channel = 7;
  rig.record(0, 40, options);
  rig.powerOff();
  rig.spoilManage(tarn::kFileStreamManage, 0);
  rig.spoilManage(tarn::kFileStreamManage, 1);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.streamManage, ManageRepair::kDefaults);
  const Bytes manage = rig.manageBytes(tarn::kFileStreamManage, 0, kManageBytes);
  EXPECT_EQ(manage[24 + 6], 0);
  EXPECT_EQ(manage[6], 0xFF);
  EXPECT_EQ(verifyAll(), range(0, 40));
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, EachManagementFileComesBackFromEitherCopyAndFromNone) {
  tarn::RecordingOptions options;
  options.channel = 7;
  rig.record(0, 40, options);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  for (int type : {tarn::kFileStreamManage, tarn::kFileSyslogManage, tarn::kFileJournalManage}) {
    const auto result = [type](const RecoveryReport& report) {
      if (type == tarn::kFileStreamManage) return report.streamManage;
      return type == tarn::kFileSyslogManage ? report.syslogManage : report.journalManage;
    };
    rig.setCard(good);
    rig.spoilManage(type, 0);
    EXPECT_EQ(result(rig.boot()), ManageRepair::kMainCopied) << type;
    EXPECT_TRUE(rig.cardBytes() == good) << type;
    rig.spoilManage(type, 1);
    EXPECT_EQ(result(rig.boot()), ManageRepair::kBackupCopied) << type;
    EXPECT_TRUE(rig.cardBytes() == good) << type;
    rig.spoilManage(type, 0);
    rig.spoilManage(type, 1);
    EXPECT_EQ(result(rig.boot()), ManageRepair::kDefaults) << type;
    if (type != tarn::kFileStreamManage) {
      EXPECT_TRUE(rig.cardBytes() == good) << type;
    }
    EXPECT_EQ(verifyAll(), range(0, 40)) << type;
    expectASecondRunToChangeNothing();
  }
}

// Zeros have the checksum of zeros.
TEST_F(RecoveryTest, AManagementFileThatTheCardLostAsZerosComesBackFromItsBackup) {
  tarn::RecordingOptions options;
  options.channel = 7;
  rig.record(0, 40, options);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  rig.card.writeChunk(tarn::kFileStreamManage, 0, 0, Bytes(kManageBytes, 0));
  EXPECT_EQ(rig.boot().streamManage, ManageRepair::kMainCopied);
  EXPECT_TRUE(rig.cardBytes() == good);
}

TEST_F(RecoveryTest, OfTwoDifferentGoodManagementCopiesTheMainOneStays) {
  rig.record(0, 40);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  Bytes records = rig.manageBytes(tarn::kFileStreamManage, 0, 72);
  records[6] = 9;
  rig.card.writeManagement(tarn::kFileStreamManage, 1, records);
  EXPECT_EQ(rig.boot().streamManage, ManageRepair::kBackupCopied);
  EXPECT_TRUE(rig.cardBytes() == good);
}

TEST_F(RecoveryTest, ASystemLogChunkThatDoesNotExistIsCorrected) {
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  Bytes records = rig.manageBytes(tarn::kFileSyslogManage, 0, 5 * 24);
  for (uint8_t active : {uint8_t{5}, uint8_t{0xFF}}) {
    records[6] = active;
    rig.card.writeManagement(tarn::kFileSyslogManage, 0, records);
    rig.card.writeManagement(tarn::kFileSyslogManage, 1, records);
    const RecoveryReport report = rig.boot();
    EXPECT_TRUE(report.ok()) << report.error;
    EXPECT_EQ(report.syslogManage, ManageRepair::kCorrected);
    EXPECT_TRUE(rig.cardBytes() == good);
  }
}

TEST_F(RecoveryTest, EitherCopyOfAJournalBringsAllRowsBack) {
  rig.record(0, 40);
  rig.record(100, 140);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  for (int chunk : {2, 3}) {
    rig.card.writeChunk(tarn::kFileJournal, chunk, 0, Bytes(70, 0x5A));
    const RecoveryReport report = rig.boot();
    EXPECT_TRUE(report.ok()) << report.error;
    EXPECT_EQ(report.startUp.streams.copied, 2u);
    EXPECT_TRUE(rig.cardBytes() == good) << chunk;
  }
}

TEST_F(RecoveryTest, OfTwoValidRecordsTheOriginalsIsTaken) {
  rig.record(0, 40);
  const DB_STREAM row = allStreams()[0];
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  Bytes record = rig.card.readChunk(tarn::kFileJournal, 3, row.backOffset, 64);
  tarn::putLe32(record.data() + 4 + tarn::kStreamRecSizeOff, 0);
  tarn::sealJournalRecord(record.data(), tarn::kStreamRecordCrcLength);
  rig.card.writeChunk(tarn::kFileJournal, 3, row.backOffset, record);
  const RecoveryReport report = rig.boot();
  EXPECT_EQ(report.startUp.streams.unlike, 1u);
  EXPECT_TRUE(rig.cardBytes() == good);
}

TEST_F(RecoveryTest, ARecordThatReadsAsZerosIsTakenFromTheOtherCopy) {
  rig.record(0, 40);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  for (const int copy : {2, 3}) {
    rig.card.writeChunk(tarn::kFileJournal, copy, 0, Bytes(64, 0));  // zeros have a checksum of 0
    const RecoveryReport report = rig.boot();
    EXPECT_EQ(report.startUp.streams.copied + report.startUp.streams.unlike, 1u) << copy;
    EXPECT_EQ(report.streamRows, 1u) << copy;
    EXPECT_TRUE(rig.cardBytes() == good) << copy;
  }
}

TEST_F(RecoveryTest, WhatAPassingReadErrorHidesIsNotWrittenOver) {
  rig.record(0, 40);
  const int chunk = static_cast<int>(allStreams()[0].chunkID);
  rig.powerOff();
  const Bytes good = rig.cardBytes();
  const auto header = static_cast<int64_t>(rig.card.chunkStart(tarn::kFilePicture, chunk));
  // Of one start, every read that reaches the header fails. Which those are changes with each that
  // fails.
  std::vector<int> failing;
  RecoveryReport report;
  for (bool found = true; found;) {
    found = false;
    rig.setCard(good);
    IoFaults faults(kCardPath);
    for (const int n : failing) faults.fail(Call::Read, n, EIO);
    report = rig.boot();
    int n = 0;
    for (const IoRecord& call : faults.calls()) {
      if (call.call != Call::Read) continue;
      ++n;
      const bool reaches =
          call.offset <= header && header < call.offset + static_cast<int64_t>(call.length);
      if (!reaches || call.result < 0) continue;
      failing.push_back(n);
      found = true;
      break;
    }
    ASSERT_LT(failing.size(), 50u);
  }
  ASSERT_FALSE(failing.empty());
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(report.problems, ElementsAre(HasSubstr("the card does not deliver its header")));
  rig.startServer();
  rig.record(100, 140);
  std::vector<uint32_t> all = range(0, 40);
  for (uint32_t number : range(100, 140)) all.push_back(number);
  EXPECT_EQ(verifyAll(), all);
  rig.powerOff();
  EXPECT_TRUE(rig.boot().ok());
  EXPECT_EQ(verifyAll(), all);
}

TEST_F(RecoveryTest, ALostRecordDoesNotHideThoseBehindIt) {
  rig.record(0, 40);
  rig.record(100, 140);
  rig.powerOff();
  // The original's is torn, the mirror's erased: a rebuild alone would end here.
  rig.card.writeChunk(tarn::kFileJournal, 2, 0, Bytes(64, 0x5A));
  rig.card.writeChunk(tarn::kFileJournal, 3, 0, Bytes(64, 0xFF));
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.startUp.streams.unreadable, 1u);
  EXPECT_EQ(report.startUp.streams.bridged, 1u);
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(2u));
  expectASecondRunToChangeNothing();
}

TEST_F(RecoveryTest, ARecordThatWasTornBeforeItsMirrorBeganIsErased) {
  rig.record(0, 40);
  rig.powerOff();
  ASSERT_TRUE(rig.boot().ok());
  const Bytes good = rig.cardBytes();
  for (const int copy : {2, 3}) {
    rig.card.writeChunk(tarn::kFileJournal, copy, 64, Bytes(30, 0x5A));
    const RecoveryReport report = rig.boot();
    EXPECT_TRUE(report.ok()) << report.error;
    EXPECT_EQ(report.startUp.streams.unfinished, 1u) << copy;
    EXPECT_EQ(report.streamRows, 1u) << copy;
    EXPECT_TRUE(rig.cardBytes() == good) << copy;
  }
}

TEST_F(RecoveryTest, ARunningServerIsLeftAlone) {
  const IoFaults card(kCardPath);
  const RecoveryReport report = Recovery().run();
  EXPECT_FALSE(report.ok());
  EXPECT_TRUE(report.refused);
  EXPECT_EQ(report.error, "a management server is running; recovery must run before it starts");
  std::string error;
  EXPECT_EQ(Recovery().saveImage(&error), -1);
  EXPECT_EQ(card.sequence(), "");
}

TEST_F(RecoveryTest, ALockThatCannotBeHadIsNoServerAndNoRecording) {
  rig.powerOff();
  ASSERT_TRUE(Recovery().run().ok());
  ASSERT_EQ(symlink("/tmp/elsewhere", "/tmp/tarn-channel-7.lock"), 0);
  std::string error;
  EXPECT_EQ(Recovery().saveImage(&error), -1);
  EXPECT_EQ(
      error,
      "the lock of a recording in /tmp cannot be taken, so nobody knows whether it is running");
  unlink("/tmp/tarn-channel-7.lock");
  unlink(kServerLockPath);
  ASSERT_EQ(symlink("/tmp/elsewhere", kServerLockPath), 0);
  EXPECT_EQ(Recovery().run().error, "the management server's lock in /tmp cannot be taken");
  EXPECT_EQ(Recovery().saveImage(&error), -1);
  EXPECT_EQ(error, "the management server's lock in /tmp cannot be taken");
  unlink(kServerLockPath);
  EXPECT_EQ(Recovery().saveImage(&error), 0) << error;
}

TEST_F(RecoveryTest, CardsOfZerosOnesAndNoiseAreRefusedWithAReason) {
  rig.powerOff();
  const auto size = static_cast<size_t>(rig.card.size());
  for (const Bytes& bytes : {Bytes(size, 0), Bytes(size, 0xFF), patternBytes(size)}) {
    rig.setCard(bytes);
    const RecoveryReport report = rig.boot();
    EXPECT_EQ(
        report.error,
        "/dev/sdblk0p1: not a FAT32 volume, so not a card of the recorder; nothing was written; "
        "format it, or use another");
    EXPECT_TRUE(rig.cardBytes() == bytes);
  }
}

TEST_F(RecoveryTest, ChunksOfNoiseGiveAnEmptyRecorder) {
  rig.powerOff();
  for (int type = tarn::kFileJournalManage; type < tarn::kFileTypeCount; ++type) {
    const CardFamily& family = rig.card.family(type);
    for (uint32_t n = 0; n < family.count; ++n) {
      rig.card.writeChunk(type, static_cast<int>(n), 0, patternBytes(family.chunkSize, n + 7));
    }
  }
  const RecoveryReport report = rig.boot();
  EXPECT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.streamRows, 0u);
  expectASecondRunToChangeNothing();
  rig.startServer();
  rig.record(0, 40);
  EXPECT_EQ(verifyAll(), range(0, 40));
}

}  // namespace
}  // namespace tarn_test
