#include <gmock/gmock.h>

#include "manager/ManageFormat.h"
#include "recorder/RecoveryRig.h"
#include "recorder/check/CardCheck.h"
#include "recorder/recovery/HeaderRepair.h"
#include "recorder/recovery/ManageFileRepair.h"

namespace tarn_test {
namespace {

using tarn::FusePolicy;
using tarn::RecoveryReport;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kEach = 40;  // pictures

// Three closed recordings of one chunk: the oldest, one between, the newest.
class HeaderRepairTest : public testing::Test {
 protected:
  void SetUp() override {
    for (const uint32_t first : {0u, 100u, 200u}) rig.record(first, first + kEach);
    rows = allStreams();
    ASSERT_EQ(rows.size(), 3u);
    ASSERT_EQ(rows[0].chunkID, rows[2].chunkID);
    rig.powerOff();
    ASSERT_TRUE(rig.boot().ok());
    CDbLog::getInstance()->finish();
    good = rig.cardBytes();
    management = records();
  }
  static std::vector<CHUNK_MANAGE> records() {
    std::vector<CHUNK_MANAGE> list;
    EXPECT_EQ(tarn::judgeManageFile(tarn::kFileStream, &list), tarn::ManageRepair::kGood);
    return list;
  }
  const CHUNK_MANAGE& chunkNow() const {
    static CHUNK_MANAGE record;
    record = records().at(rows[0].chunkID);
    return record;
  }
  void lose(const DB_STREAM& row, uint8_t byte) {
    rig.setPicture(row, 0, Bytes((kEach + 1) * 32, byte));
  }
  // The sectors that went bad come back.
  void giveBack(const DB_STREAM& row) {
    const auto from = static_cast<std::ptrdiff_t>(
        rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(row.chunkID)) + row.chunkOffset);
    rig.card.write(static_cast<uint64_t>(from),
                   Bytes(good.begin() + from, good.begin() + from + (kEach + 1) * 32));
  }
  void expectAnotherStartToChangeNothing(FusePolicy policy = FusePolicy::kStop) {
    const Bytes before = rig.cardBytes();
    rig.forget();
    const RecoveryReport again = tarn::Recovery(policy).run();
    EXPECT_TRUE(again.ok()) << again.error;
    EXPECT_THAT(again.changes, IsEmpty());
    EXPECT_TRUE(rig.cardBytes() == before);
  }
  static std::vector<uint32_t> all() {
    std::vector<uint32_t> numbers = range(0, kEach);
    for (const uint32_t n : range(100, 100 + kEach)) numbers.push_back(n);
    for (const uint32_t n : range(200, 200 + kEach)) numbers.push_back(n);
    return numbers;
  }

  RecoveryRig rig;
  SyslogCapture log;
  std::vector<DB_STREAM> rows;
  Bytes good;
  std::vector<CHUNK_MANAGE> management;
};

TEST_F(HeaderRepairTest, AClosedRecordingWithoutHeaderAndEntriesStaysWithItsRoomAndComesBack) {
  for (const size_t lost : {size_t{0}, size_t{2}}) {
    for (const int byte : {0x00, 0x5A, 0xFF}) {
      rig.setCard(good);
      lose(rows[lost], static_cast<uint8_t>(byte));
      const RecoveryReport report = rig.boot();
      ASSERT_TRUE(report.ok()) << report.error;
      EXPECT_THAT(report.changes, IsEmpty());
      EXPECT_THAT(report.problems, Contains(HasSubstr("it stays until its room is needed")));
      EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u, 2u, 3u));
      EXPECT_EQ(memcmp(records().data(), management.data(), sizeof management[0]), 0) << lost;
      EXPECT_THAT(report.guarded, IsEmpty());
      expectAnotherStartToChangeNothing();

      giveBack(rows[lost]);
      EXPECT_THAT(rig.boot().problems, IsEmpty());
      EXPECT_EQ(verifyAll(), all());
      EXPECT_TRUE(rig.cardBytes() == good);
    }
  }
}

// The only one of its chunk is oldest and newest.
TEST_F(HeaderRepairTest, ALostRecordingAloneInItsChunkStays) {
  for (const DB_STREAM& row : rows) lose(row, 0);
  const RecoveryReport report = [this] {
    rig.forget();
    return tarn::Recovery(FusePolicy::kAccept).run();
  }();
  ASSERT_TRUE(report.ok()) << report.error;
  ASSERT_THAT(allStreams(), IsEmpty());
  rig.startServer();
  rig.record(1000, 1000 + kEach);
  const DB_STREAM row = allStreams().at(0);
  rig.powerOff();
  const Bytes before = rig.cardBytes();
  lose(row, 0x5A);
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(row.streamID));
  rig.setCard(before);
  ASSERT_TRUE(rig.boot().ok());
  EXPECT_EQ(verifyAll(), range(1000, 1000 + kEach));
}

TEST_F(HeaderRepairTest, WhatIsRecordedNextLeavesTheRoomOfALostRecordingAlone) {
  for (const size_t lost : {size_t{0}, size_t{2}}) {
    rig.setCard(good);
    lose(rows[lost], 0);
    ASSERT_TRUE(rig.boot().ok());
    rig.startServer();
    rig.record(1000, 1000 + kEach);
    EXPECT_THAT(keysOf(allStreams()), ElementsAre(1u, 2u, 3u, 4u));
    rig.powerOff();
    giveBack(rows[lost]);
    ASSERT_TRUE(rig.boot().ok());
    std::vector<uint32_t> expected = all();
    for (const uint32_t n : range(1000, 1000 + kEach)) expected.push_back(n);
    EXPECT_EQ(verifyAll(), expected);
  }
}

TEST_F(HeaderRepairTest, ALostRecordingGoesWhenItsRoomIsNeeded) {
  lose(rows[0], 0);
  ASSERT_TRUE(rig.boot().ok());
  rig.startServer();
  for (uint32_t round = 1; round < 20; ++round) rig.record(round * 1000, round * 1000 + 250);
  std::vector<uint32_t> keys = keysOf(allStreams());
  EXPECT_GT(keys.front(), rows[0].streamID);
  rig.powerOff();
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(report.changes, IsEmpty());
  EXPECT_EQ(keysOf(allStreams()), keys);
  verifyAll();
}

// Where the saved management data do not say where its data lies, nothing is recorded beside it.
TEST_F(HeaderRepairTest, TheChunkOfALostRecordingIsGuardedWhenItsRoomIsNotKnown) {
  lose(rows[2], 0);
  for (const int copy : {0, 1}) rig.spoilManage(tarn::kFileStreamManage, copy);
  RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(report.guarded, ElementsAre(rows[0].chunkID));
  EXPECT_TRUE(tarn::isGuarded(chunkNow().chType));
  expectAnotherStartToChangeNothing();
  rig.startServer();
  for (uint32_t round = 1; round < 12; ++round) rig.record(round * 1000, round * 1000 + 250);
  rig.powerOff();
  giveBack(rows[2]);
  rig.forget();
  report = tarn::Recovery(FusePolicy::kAccept).run();
  ASSERT_TRUE(report.ok()) << report.error;
  std::vector<uint32_t> back = verifyAll();
  ASSERT_GE(back.size(), all().size());
  back.resize(all().size());
  EXPECT_EQ(back, all());
}

// Rows are deleted before their room is used again: this one's record came back by mistake.
TEST_F(HeaderRepairTest, ARecordingWhoseRoomAnotherOneHasIsDeleted) {
  Bytes foreign = rig.card.readChunk(tarn::kFilePicture, static_cast<int>(rows[1].chunkID),
                                     rows[1].chunkOffset, (kEach + 1) * 32);
  rig.setPicture(rows[0], 0, foreign);
  const RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 1u);
  EXPECT_THAT(keysOf(allStreams()), ElementsAre(2u, 3u));
}

// The chunk was full in the middle of a group of pictures.
TEST(RecoveryWithoutAKeyPicture, ClosesARowOfNoGroupAndTheCheckIsClean) {
  RecoveryRig rig;
  tarn::RecordingOptions options;
  options.segmentSeconds = 0;
  Bytes cut;
  {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session, options));
    ASSERT_TRUE(writePictures(session, 0, 400, 800, 100000));  // one key picture only
    cut = rig.cardBytes();
  }
  rig.powerOff(cut);
  const tarn::RecoveryReport report = rig.boot();
  ASSERT_TRUE(report.ok()) << report.error;
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_GT(rows[1].recSize, 1u);
  EXPECT_EQ(rig.headerOf(rows[1]).gops, 0u);
  tarn::CardCheck check;
  std::string error;
  ASSERT_EQ(check.run(kCardPath, {}, &error), 0) << error;
  // The rig's card has no file system to speak of.
  for (const tarn::CardFinding& finding : check.findings().list())
    EXPECT_EQ(finding.streamID + finding.eventID, 0u) << finding.text;
}

}  // namespace
}  // namespace tarn_test
