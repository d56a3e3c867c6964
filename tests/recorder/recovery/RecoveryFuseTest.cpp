#include <gmock/gmock.h>

#include "manager/ManageFormat.h"
#include "recorder/RecoveryRig.h"
#include "recorder/recovery/ManageFileRepair.h"
#include "recorder/recovery/RecoveryFuse.h"

namespace tarn_test {
namespace {

using tarn::FusePolicy;
using tarn::ManageRepair;
using tarn::Recovery;
using tarn::RecoveryReport;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

constexpr uint32_t kUsed = 3;  // chunks with recordings, of channels 0 to 2
constexpr uint32_t kChunks = 4;

RecoveryRig::Shape fourChunks() {
  RecoveryRig::Shape shape;
  shape.chunks = kChunks;
  return shape;
}

tarn::RecordingOptions ofChannel(uint32_t channel) {
  tarn::RecordingOptions options;
  options.channel = static_cast<int8_t>(channel);
  return options;
}

class RecoveryFuseTest : public testing::Test {
 protected:
  RecoveryFuseTest() : rig(fourChunks()) {}

  // As after power-on.
  static RecoveryReport boot(FusePolicy policy) {
    RecoveryRig::forget();
    return Recovery(policy).run();
  }
  void recordThreeChannels() {
    for (uint32_t channel = 0; channel < kUsed; ++channel) {
      rig.record(channel * 100, channel * 100 + 40, ofChannel(channel));
    }
    rig.powerOff();
    ASSERT_TRUE(boot(FusePolicy::kStop).ok());
    for (const DB_STREAM& row : allStreams()) used.push_back(row.chunkID);
    std::sort(used.begin(), used.end());
    ASSERT_EQ(used.size(), kUsed);
  }
  void fillJournals(uint8_t byte) {
    for (const int chunk : {2, 3}) {
      rig.card.writeChunk(tarn::kFileJournal, chunk, 0, Bytes(64 * kKiB, byte));
    }
  }
  std::vector<CHUNK_MANAGE> records() const {
    std::vector<CHUNK_MANAGE> list;
    EXPECT_EQ(tarn::judgeManageFile(tarn::kFileStream, &list), ManageRepair::kGood);
    return list;
  }
  std::vector<int> channels() const {
    std::vector<int> list;
    for (const uint32_t chunk : used) list.push_back(records()[chunk].chType);
    return list;
  }
  Bytes footage() const {
    Bytes all;
    for (const uint32_t chunk : used) {
      for (const int type : {tarn::kFileStream, tarn::kFilePicture}) {
        const Bytes bytes =
            rig.card.readChunk(type, static_cast<int>(chunk), 0, rig.card.family(type).chunkSize);
        all.insert(all.end(), bytes.begin(), bytes.end());
      }
    }
    return all;
  }
  void expectASecondRunToChangeNothing(FusePolicy policy) {
    const Bytes after = rig.cardBytes();
    const RecoveryReport again = boot(policy);
    EXPECT_TRUE(again.ok()) << again.error;
    EXPECT_THAT(again.changes, IsEmpty());
    EXPECT_TRUE(rig.cardBytes() == after) << "a second run changed the card";
  }

  RecoveryRig rig;
  SyslogCapture log;
  std::vector<uint32_t> used;
};

TEST_F(RecoveryFuseTest, JournalsThatLostAllRecordingsStopAStartBeforeTheirChunksAreFreed) {
  for (const int byte : {0xFF, 0x00, 0x5A}) {
    if (used.empty()) recordThreeChannels();
    const Bytes good = rig.cardBytes();
    fillJournals(static_cast<uint8_t>(byte));
    for (int start = 0; start < 2; ++start) {
      const RecoveryReport report = boot(FusePolicy::kStop);
      EXPECT_THAT(report.error, HasSubstr(", of 3 with recordings, would become free"));
      EXPECT_THAT(report.error, HasSubstr("--accept"));
      EXPECT_THAT(report.fuse, ElementsAre(report.error));
      EXPECT_THAT(channels(), ElementsAre(0, 1, 2)) << byte;
    }
    rig.setCard(good);
  }
  ASSERT_TRUE(boot(FusePolicy::kStop).ok());
  EXPECT_EQ(verifyAll().size(), 120u);
}

TEST_F(RecoveryFuseTest, AcceptedTheChunksBecomeFree) {
  recordThreeChannels();
  fillJournals(0xFF);
  const RecoveryReport report = boot(FusePolicy::kAccept);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.fuse.size(), 1u);
  EXPECT_THAT(channels(), ElementsAre(-1, -1, -1));
  EXPECT_THAT(boot(FusePolicy::kStop).fuse, IsEmpty());
}

TEST_F(RecoveryFuseTest, UnattendedNothingIsWrittenOverGuardedChunksUntilAPersonAccepts) {
  recordThreeChannels();
  const Bytes before = footage();
  fillJournals(0xFF);
  RecoveryReport report = boot(FusePolicy::kGuard);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.guarded, used);
  EXPECT_THAT(channels(), ElementsAre(-2, -3, -4));
  expectASecondRunToChangeNothing(FusePolicy::kGuard);

  rig.startServer();
  for (uint32_t round = 0; round < 3; ++round) {
    rig.record(1000 + round * 1000, 1250 + round * 1000, ofChannel(round));
  }
  EXPECT_TRUE(footage() == before);
  rig.powerOff();
  report = boot(FusePolicy::kStop);  // recordings are there again, and the guard stays
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.guarded, used);
  EXPECT_TRUE(footage() == before);

  report = boot(FusePolicy::kAccept);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(report.guarded, IsEmpty());
  EXPECT_THAT(channels(), ElementsAre(-1, -1, -1));
}

TEST_F(RecoveryFuseTest, ManagementDataIsNotMadeAnewWhileTheJournalsHoldNothing) {
  recordThreeChannels();
  fillJournals(0xFF);
  rig.spoilManage(tarn::kFileStreamManage, 0);
  rig.spoilManage(tarn::kFileStreamManage, 1);
  const Bytes damaged = rig.cardBytes();
  RecoveryReport report = boot(FusePolicy::kStop);
  EXPECT_THAT(report.error, HasSubstr("would be made anew"));
  EXPECT_TRUE(rig.cardBytes() == damaged);

  report = boot(FusePolicy::kGuard);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.streamManage, ManageRepair::kDefaults);
  EXPECT_EQ(report.guarded, used);
  expectASecondRunToChangeNothing(FusePolicy::kGuard);

  rig.setCard(damaged);
  report = boot(FusePolicy::kAccept);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(channels(), ElementsAre(-1, -1, -1));
}

// The card refuses just what would tell that recordings are there.
TEST_F(RecoveryFuseTest, RefusedEntriesFreeNoChunk) {
  recordThreeChannels();
  const Bytes good = rig.cardBytes();
  for (const bool management : {true, false}) {
    rig.setCard(good);
    fillJournals(0xFF);
    if (!management) {
      rig.spoilManage(tarn::kFileStreamManage, 0);
      rig.spoilManage(tarn::kFileStreamManage, 1);
    }
    IoFaults faults(kCardPath);
    for (const uint32_t chunk : used) {
      faults.failAt(Call::Read, rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(chunk)),
                    4096, EIO);
    }
    RecoveryReport report = boot(FusePolicy::kStop);
    EXPECT_THAT(report.error, HasSubstr("or what is there cannot be read; none of it was done"))
        << management;
    report = boot(FusePolicy::kGuard);
    ASSERT_TRUE(report.ok()) << report.error;
    EXPECT_EQ(report.guarded, used) << management;
  }
}

// What was deleted in order has a record that says so.
TEST_F(RecoveryFuseTest, RecordingsThatWereDeletedDoNotBlowIt) {
  for (uint32_t channel = 0; channel < kUsed; ++channel) {
    rig.record(channel * 100, channel * 100 + 40, ofChannel(channel));
  }
  CApiDb db;
  for (const DB_STREAM& row : allStreams()) db.deleteStream(row.streamID);
  rig.powerOff();
  const RecoveryReport report = boot(FusePolicy::kStop);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_THAT(report.fuse, IsEmpty());
  EXPECT_EQ(report.streamRows, 0u);
}

TEST_F(RecoveryFuseTest, ClosedRecordingsAreNotDeletedInBulk) {
  for (uint32_t i = 0; i < 5; ++i) rig.record(i * 100, i * 100 + 30);
  const uint32_t chunk = allStreams()[0].chunkID;
  rig.powerOff();
  const Bytes good = rig.cardBytes();
  rig.card.writeChunk(tarn::kFilePicture, static_cast<int>(chunk), 0, Bytes(16 * kKiB, 0));
  RecoveryReport report = boot(FusePolicy::kStop);
  EXPECT_THAT(report.error, HasSubstr("5 closed recordings of 5 would be deleted"));
  EXPECT_THAT(report.changes, IsEmpty());

  report = boot(FusePolicy::kGuard);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.streamRows, 5u);
  EXPECT_THAT(report.guarded, ElementsAre(chunk));
  expectASecondRunToChangeNothing(FusePolicy::kGuard);
  rig.startServer();
  for (uint32_t round = 1; round < 8; ++round) rig.record(round * 1000, round * 1000 + 250);
  rig.powerOff();

  // The damage is undone: all of them come back.
  const uint64_t pictures = rig.card.chunkStart(tarn::kFilePicture, static_cast<int>(chunk));
  rig.card.write(pictures, Bytes(good.begin() + static_cast<long>(pictures),
                                 good.begin() + static_cast<long>(pictures) + 16 * kKiB));
  report = boot(FusePolicy::kAccept);
  ASSERT_TRUE(report.ok()) << report.error;
  std::vector<uint32_t> first;
  for (uint32_t i = 0; i < 5; ++i) {
    for (const uint32_t number : range(i * 100, i * 100 + 30)) first.push_back(number);
  }
  std::vector<uint32_t> all = verifyAll();
  ASSERT_GE(all.size(), first.size());
  all.resize(first.size());
  EXPECT_EQ(all, first);
}

TEST_F(RecoveryFuseTest, AcceptedClosedRecordingsWithoutEntriesAreDeleted) {
  for (uint32_t i = 0; i < 5; ++i) rig.record(i * 100, i * 100 + 30);
  const uint32_t chunk = allStreams()[0].chunkID;
  rig.powerOff();
  rig.card.writeChunk(tarn::kFilePicture, static_cast<int>(chunk), 0, Bytes(16 * kKiB, 0));
  const RecoveryReport report = boot(FusePolicy::kAccept);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.count(Kind::kRecordingDeleted), 5u);
  EXPECT_EQ(report.streamRows, 0u);
}

// Both copies of `count` records of a journal, from the `first` on.
void spoilRecords(RecoveryRig& rig, int journal, uint32_t recordSize, uint32_t first,
                  uint32_t count, uint8_t byte) {
  for (const int chunk : {journal, journal + 1})
    rig.card.writeChunk(tarn::kFileJournal, chunk, first * recordSize,
                        Bytes(count * recordSize, byte));
}

constexpr uint32_t kEvents = 12;

void recordEvents() {
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 50));
  for (uint32_t i = 0; i < kEvents; ++i) {
    const uint32_t event = session.beginEvent(3, pictureTime(i), 0);
    ASSERT_EQ(session.endEvent(event, pictureTime(i + 10)), 0);
  }
  ASSERT_EQ(session.close(), 0);
}

// Most of the records, also all of them, and whatever stands there now.
TEST_F(RecoveryFuseTest, AnEventJournalThatLostManyRecordsStopsAStart) {
  recordEvents();
  rig.powerOff();
  ASSERT_TRUE(boot(FusePolicy::kStop).ok());
  const Bytes good = rig.cardBytes();
  for (const int byte : {0x5A, 0x00, 0xFF}) {
    for (const auto& [first, count] : {std::pair{4u, 4u}, std::pair{0u, kEvents}}) {
      spoilRecords(rig, 0, 32, first, count, static_cast<uint8_t>(byte));
      const Bytes damaged = rig.cardBytes();
      RecoveryReport report = boot(FusePolicy::kStop);
      EXPECT_THAT(report.error, HasSubstr(std::to_string(count) + " records of 12 in the event "
                                                                  "journal would be given up"))
          << byte;
      EXPECT_TRUE(rig.cardBytes() == damaged);

      report = boot(FusePolicy::kGuard);
      EXPECT_TRUE(report.ok()) << report.error;
      EXPECT_EQ(report.eventRows, kEvents - count);
      EXPECT_EQ(report.fuse.size(), 1u);
      rig.setCard(good);
    }
  }
  ASSERT_TRUE(boot(FusePolicy::kStop).ok());
  EXPECT_EQ(allEvents().size(), size_t{kEvents});
}

TEST_F(RecoveryFuseTest, OneRecordThatIsBadInBothCopiesIsNoReasonToStop) {
  recordEvents();
  rig.powerOff();
  spoilRecords(rig, 0, 32, 3, 1, 0x5A);
  const RecoveryReport report = boot(FusePolicy::kStop);
  EXPECT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.eventRows, kEvents - 1);
}

TEST_F(RecoveryFuseTest, AStreamJournalThatLostAPartStopsAStartAndItsChunksAreGuarded) {
  for (uint32_t i = 0; i < 5; ++i) rig.record(i * 100, i * 100 + 30);
  const uint32_t chunk = allStreams()[0].chunkID;
  rig.powerOff();
  ASSERT_TRUE(boot(FusePolicy::kStop).ok());
  const Bytes good = rig.cardBytes();
  spoilRecords(rig, 2, 64, 0, 3, 0x5A);
  const Bytes damaged = rig.cardBytes();
  RecoveryReport report = boot(FusePolicy::kStop);
  EXPECT_THAT(report.error, HasSubstr("3 records of 5 in the stream journal would be given up"));
  EXPECT_TRUE(rig.cardBytes() == damaged);

  report = boot(FusePolicy::kGuard);
  ASSERT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.streamRows, 2u);
  EXPECT_THAT(report.guarded, ElementsAre(chunk));
  expectASecondRunToChangeNothing(FusePolicy::kGuard);
  const uint64_t from = rig.card.chunkStart(tarn::kFileStream, static_cast<int>(chunk));
  const auto data = good.begin() + static_cast<std::ptrdiff_t>(from);
  rig.startServer();
  for (uint32_t round = 1; round < 8; ++round) rig.record(round * 1000, round * 1000 + 250);
  rig.powerOff();
  EXPECT_TRUE(rig.card.readChunk(tarn::kFileStream, static_cast<int>(chunk), 0, 5 * 30 * 800) ==
              Bytes(data, data + 5 * 30 * 800));
}

TEST_F(RecoveryFuseTest, MoreThanTwoAndMoreThanATenthIsBulk) {
  EXPECT_FALSE(tarn::isBulk(0, 0));
  EXPECT_FALSE(tarn::isBulk(2, 2));
  EXPECT_TRUE(tarn::isBulk(3, 29));
  EXPECT_FALSE(tarn::isBulk(3, 30));
}

TEST_F(RecoveryFuseTest, AGuardMarkIsNoChannelAndKeepsItsOwn) {
  for (int channel = 0; channel <= tarn::kLastGuardedChannel; ++channel) {
    const int8_t mark = tarn::guardMark(static_cast<int8_t>(channel));
    EXPECT_TRUE(tarn::isGuarded(mark)) << channel;
    EXPECT_EQ(tarn::guardedChannel(mark), channel);
  }
  EXPECT_FALSE(tarn::isGuarded(tarn::kChannelUnused));
  EXPECT_EQ(tarn::guardMark(127), tarn::guardMark(126));
  EXPECT_EQ(tarn::guardedChannel(tarn::guardMark(tarn::kChannelUnused)), 0);
}

}  // namespace
}  // namespace tarn_test
