#include <gtest/gtest.h>

#include <algorithm>

#include "db/RowStatus.h"
#include "recorder/RecoveryRig.h"
#include "recorder/check/CardCheck.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/KeptCopies.h"
#include "recorder/session/KeptMessages.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/SoundSession.h"

using namespace tarn_test;

namespace tarn {
namespace {

RecoveryRig::Shape shapeOf(uint32_t chunks) {
  RecoveryRig::Shape shape;
  shape.chunks = chunks;
  return shape;
}

RecordingOptions withSegments(uint32_t seconds, int8_t channel = 0) {
  RecordingOptions options;
  options.segmentSeconds = seconds;
  options.channel = channel;
  return options;
}

std::vector<DB_STREAM> rowsOf(const char* condition) {
  CApiDb db;
  RowQueries queries(&db, nullptr);
  std::vector<DB_STREAM> rows;
  EXPECT_TRUE(queries.streams(
      (std::string("SELECT * FROM STREAM WHERE ") + condition + " ORDER BY streamID").c_str(),
      &rows));
  return rows;
}
std::vector<DB_STREAM> copies() { return rowsOf(TARN_SQL_KEPT); }
std::vector<DB_STREAM> cameras() { return rowsOf(TARN_SQL_NOT_KEPT); }

KeepWanted wanted(uint32_t from, uint32_t to, int channel = -1) {
  KeepWanted wanted;
  wanted.from = pictureTime(from);
  wanted.to = pictureTime(to);
  wanted.channel = channel;
  return wanted;
}

testing::AssertionResult keep(KeptCopies& kept, const KeepWanted& what,
                              KeepResult* result = nullptr) {
  KeepResult own;
  const KeepOutcome outcome = kept.keep(what, nullptr, result != nullptr ? result : &own);
  if (outcome == KeepOutcome::kDone) return testing::AssertionSuccess();
  return testing::AssertionFailure() << static_cast<int>(outcome) << " " << kept.errorText();
}

testing::AssertionResult keep(const KeepWanted& what, const KeepOptions& options = {}) {
  KeptCopies kept;
  if (kept.open(options) != 0) return testing::AssertionFailure() << kept.errorText();
  return keep(kept, what);
}

std::vector<uint32_t> numbersOf(const std::vector<DB_STREAM>& rows) {
  std::vector<uint32_t> numbers;
  for (const DB_STREAM& row : rows) {
    const auto more = verifyRow(row);
    numbers.insert(numbers.end(), more.begin(), more.end());
  }
  return numbers;
}

TEST(KeptCopies, CopiesTheGroupsOfPicturesThatShowTheTime) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 200, withSegments(4));
  ASSERT_TRUE(keep(wanted(60, 110)));
  const auto rows = copies();
  ASSERT_EQ(rows.size(), 2u);  // of each recording that it touches
  EXPECT_EQ(numbersOf(rows), range(50, 125));
  EXPECT_EQ(rows[0].bitrateSet, cameras()[0].streamID);
  EXPECT_EQ(rows[1].bitrateSet, cameras()[1].streamID);
  for (const DB_STREAM& row : rows) {
    EXPECT_TRUE(isWholeCopy(row));
    EXPECT_EQ(keptChannel(row), 0);
    EXPECT_EQ(row.status & kStatusRecording, 0u);
  }
  EXPECT_EQ(pictureTime(50).seconds, rows[0].startDate);
}

TEST(KeptCopies, ListsNoPictureTwiceWhileItsRecordingIsThere) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 200, withSegments(4));
  ASSERT_TRUE(keep(wanted(60, 110)));
  EXPECT_EQ(verifyAll(), range(0, 200));
}

TEST(KeptCopies, StaysWhenTheRingHasComeRound) {
  RecoveryRig rig(shapeOf(4));
  RecoveryRig::record(0, 200, withSegments(4));
  ASSERT_TRUE(keep(wanted(60, 110)));
  RecoveryRig::record(200, 2000, withSegments(4));
  EXPECT_EQ(numbersOf(copies()), range(50, 125));
  ASSERT_GT(numberAt({cameras().front().startDate, 0}), 125u);
  std::vector<uint32_t> all = verifyAll();
  std::sort(all.begin(), all.end());
  EXPECT_EQ(std::vector<uint32_t>(all.begin(), all.begin() + 75), range(50, 125));
  EXPECT_EQ(std::unique(all.begin(), all.end()), all.end());
}

TEST(KeptCopies, CopiesWhatIsKeptAlreadyNotAgain) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 250, withSegments(60));
  KeptCopies kept;
  ASSERT_EQ(kept.open({}), 0) << kept.errorText();
  ASSERT_TRUE(keep(kept, wanted(60, 110)));
  KeepResult result;
  ASSERT_TRUE(keep(kept, wanted(60, 110), &result));
  EXPECT_EQ(result.copies, 0u);
  ASSERT_TRUE(keep(kept, wanted(30, 170), &result));
  EXPECT_EQ(result.pictures, 25u + 50u);
  auto numbers = numbersOf(copies());
  std::sort(numbers.begin(), numbers.end());
  EXPECT_EQ(numbers, range(25, 175));
}

TEST(KeptCopies, KeepsEachChannelAsItsOwn) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 100, withSegments(60, 3));
  RecoveryRig::record(0, 100, withSegments(60, 5));
  ASSERT_TRUE(keep(wanted(0, 20, 5)));
  ASSERT_EQ(copies().size(), 1u);
  EXPECT_EQ(keptChannel(copies()[0]), 5);
  ASSERT_TRUE(keep(wanted(0, 20)));
  ASSERT_EQ(copies().size(), 2u);
  EXPECT_EQ(keptChannel(copies()[1]), 3);
}

TEST(KeptCopies, KeepsTheSoundOfThatTimeToo) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 200, withSegments(60));
  SoundSession sound;
  SoundOptions options;
  options.format = {SoundCodec::kAlaw, 1, 8000, {}};
  ASSERT_EQ(sound.open(options), 0) << sound.errorText();
  const Bytes frame(160, 0x55);
  for (uint32_t i = 0; i < 400; ++i) {
    const auto at = PictureTime::fromMicros(pictureTime(0).totalMicros() + int64_t{i} * 20000);
    ASSERT_EQ(sound.writeFrame(frame.data(), frame.size(), at, 160), 0) << sound.errorText();
  }
  ASSERT_EQ(sound.close(), 0);
  ASSERT_TRUE(keep(wanted(60, 110)));
  const auto rows = copies();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_FALSE(isSound(rows[0]));
  ASSERT_TRUE(isSound(rows[1]));
  EXPECT_EQ(keptChannel(rows[1]), 0);
  EXPECT_LT(rows[1].recSize, 8u);  // blocks of half a second
  RecordingReader reader;
  PictureEntry entry;
  ASSERT_EQ(reader.open(rows[1]), 0);
  ASSERT_TRUE(reader.picture(reader.pictureCount() - 1, &entry));
  EXPECT_LT(pictureTime(90), entry.presentation);
  Bytes bytes;
  ASSERT_TRUE(reader.readPicture(entry, &bytes, true));
  EXPECT_FALSE(reader.isDamaged());
  CardCheck check;
  std::string error;
  ASSERT_EQ(check.run(rig.card.path(), {}, &error), 0) << error;
  for (const CardFinding& finding : check.findings().list())
    EXPECT_EQ(finding.streamID, 0u) << finding.text;
}

TEST(KeptCopies, SaysWhenNothingWasRecorded) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 100);
  KeptCopies kept;
  KeepResult result;
  ASSERT_EQ(kept.open({}), 0);
  EXPECT_EQ(kept.keep(wanted(5000, 6000), nullptr, &result), KeepOutcome::kNothing);
  EXPECT_STREQ(kept.errorText(), kErrKeepNothing);
}

TEST(KeptCopies, WaitsForTheEndOfARecordingThatRuns) {
  RecoveryRig rig(shapeOf(8));
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 60));
  ASSERT_EQ(session.flush(), 0);
  KeptCopies kept;
  KeepResult result;
  ASSERT_EQ(kept.open({}), 0) << kept.errorText();
  EXPECT_EQ(kept.keep(wanted(10, 55), nullptr, &result), KeepOutcome::kNotYet);
  EXPECT_TRUE(copies().empty());
  ASSERT_TRUE(writePictures(session, 60, 80));
  ASSERT_EQ(session.flush(), 0);
  EXPECT_TRUE(keep(kept, wanted(10, 55)));
  EXPECT_EQ(numbersOf(copies()), range(0, 75));
  ASSERT_TRUE(writePictures(session, 80, 100));
  EXPECT_EQ(session.close(), 0) << session.errorText();
}

TEST(KeptCopies, KeepsWhatIsThereWhenToldSo) {
  RecoveryRig rig(shapeOf(8));
  RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 60));
  ASSERT_EQ(session.flush(), 0);
  KeepWanted what = wanted(10, 55);
  what.asItIs = true;
  EXPECT_TRUE(keep(what));
  EXPECT_EQ(numbersOf(copies()), range(0, 60));
  EXPECT_EQ(session.close(), 0);
}

TEST(KeptCopies, LetsTheOldestCopyGoWhenTheBudgetIsFull) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 1000, withSegments(4));
  KeptCopies kept;
  KeepOptions options;
  options.budgetChunks = 1;
  ASSERT_EQ(kept.open(options), 0);
  KeepResult result;
  for (uint32_t from = 0; from < 1000; from += 100)
    ASSERT_TRUE(keep(kept, wanted(from, from + 90), &result)) << from;
  EXPECT_GT(result.givenUp, 0u);
  const auto rows = copies();
  for (const DB_STREAM& row : rows) EXPECT_EQ(row.chunkID, rows[0].chunkID);
  const auto numbers = numbersOf(rows);
  EXPECT_EQ(numbers, range(1000 - static_cast<uint32_t>(numbers.size()), 1000));
}

TEST(KeptCopies, RefusesWhatIsNewWhenTheBudgetIsStrict) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 1000, withSegments(4));
  KeptCopies kept;
  KeepOptions options;
  options.budgetChunks = 1;
  options.strict = true;
  ASSERT_EQ(kept.open(options), 0);
  KeepResult result;
  uint32_t from = 0;
  while (from < 1000 && kept.keep(wanted(from, from + 90), nullptr, &result) == KeepOutcome::kDone)
    from += 100;
  EXPECT_STREQ(kept.errorText(), kErrKeepFull);
  EXPECT_EQ(numbersOf(copies()), range(0, from));
}

TEST(KeptCopies, RefusesWhatTheWholeBudgetDoesNotHold) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 1000, withSegments(4));
  KeptCopies kept;
  KeepOptions options;
  options.budgetChunks = 1;
  ASSERT_EQ(kept.open(options), 0);
  ASSERT_TRUE(keep(kept, wanted(0, 90)));
  KeepResult result;
  EXPECT_EQ(kept.keep(wanted(0, 900), nullptr, &result), KeepOutcome::kFull);
  EXPECT_STREQ(kept.errorText(), kErrKeepTooLarge);
  EXPECT_EQ(numbersOf(copies()), range(0, 100));  // nothing went for it
}

TEST(KeptCopies, ReleaseGivesTheRoomBack) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 300, withSegments(4));
  KeptCopies kept;
  uint32_t count = 0;
  ASSERT_EQ(kept.open({}), 0);
  for (uint32_t from : {0u, 100u, 200u}) ASSERT_TRUE(keep(kept, wanted(from, from + 90)));
  ASSERT_EQ(kept.release(pictureTime(100), pictureTime(190), &count), 0);
  EXPECT_EQ(count, 1u);
  std::vector<uint32_t> left = range(0, 100);
  for (uint32_t number : range(200, 300)) left.push_back(number);
  EXPECT_EQ(numbersOf(copies()), left);
  ASSERT_EQ(kept.release(pictureTime(0), pictureTime(90), &count), 0);
  ASSERT_EQ(kept.release(pictureTime(200), pictureTime(290), &count), 0);
  kept.close();
  EXPECT_TRUE(copies().empty());
  RecoveryRig::record(300, 2300, withSegments(4));  // all chunks are the recorder's again
  EXPECT_EQ(cameras().size(), allStreams().size());
}

TEST(KeptCopies, EventOfACopyStaysWhenItsRecordingIsOverwritten) {
  RecoveryRig rig(shapeOf(4));
  RecordingSession session;
  ASSERT_TRUE(openSession(session, withSegments(4)));
  ASSERT_TRUE(writePictures(session, 0, 60));
  const uint32_t kept = session.beginEvent(7, pictureTime(60), 0);
  ASSERT_TRUE(writePictures(session, 60, 110));
  ASSERT_EQ(session.endEvent(kept, pictureTime(110)), 0);
  ASSERT_TRUE(writePictures(session, 110, 260));
  const uint32_t other = session.beginEvent(7, pictureTime(260), 0);
  ASSERT_TRUE(writePictures(session, 260, 300));
  ASSERT_EQ(session.endEvent(other, pictureTime(300)), 0);
  ASSERT_TRUE(keep(wanted(60, 110)));
  ASSERT_TRUE(writePictures(session, 300, 2000));
  ASSERT_EQ(session.close(), 0) << session.errorText();
  const auto events = allEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].eventID, kept);
}

TEST(KeptCopies, StaysWhenTheJournalHasComeRound) {
  RecoveryRig::Shape shape = shapeOf(4);
  shape.journalChunk = 4096;  // 64 recordings
  RecoveryRig rig(shape);
  RecoveryRig::record(0, 100, withSegments(1));
  ASSERT_TRUE(keep(wanted(10, 40)));
  const auto before = copies();
  for (uint32_t from = 100; from < 4100; from += 2000) {
    RecoveryRig::record(from, from + 2000, withSegments(1));
    EXPECT_EQ(numbersOf(copies()), range(0, 50));
    rig.powerOff();
    EXPECT_EQ(RecoveryRig::boot().error, "");
    rig.startServer();
    ASSERT_EQ(copies().size(), before.size());
    EXPECT_EQ(copies()[0].backOffset, before[0].backOffset);
  }
  ASSERT_GT(cameras().back().streamID, 2 * 64u);
  EXPECT_EQ(verifyRow(cameras().back()).back(), 4099u);
}

TEST(KeptCopies, PowerLossWhileCopyingLeavesNothingHalf) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 600, withSegments(60));
  KeptCopies kept;
  ASSERT_EQ(kept.open({}), 0);
  Bytes cut;
  KeepResult result;
  kept.keep(
      wanted(10, 190),
      [&](uint32_t) {
        cut = rig.cardBytes();
        return true;
      },
      &result);
  ASSERT_FALSE(cut.empty());
  kept.close();
  rig.powerOff(cut);
  const RecoveryReport report = RecoveryRig::boot();
  EXPECT_EQ(report.error, "");
  EXPECT_EQ(report.changes.size(), 1u);  // the copy that was being made
  EXPECT_EQ(copies().size(), result.copies - 1);
  for (const DB_STREAM& row : copies()) EXPECT_TRUE(isWholeCopy(row));
  rig.startServer();
  EXPECT_EQ(verifyAll(), range(0, 600));
}

TEST(KeptCopies, KilledCopyIsDroppedByTheNext) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 600, withSegments(60));
  rig.startServerProcess();
  const pid_t child = fork();
  if (child == 0) {
    KeptCopies kept;
    KeepResult result;
    if (kept.open({}) != 0) _exit(1);
    kept.keep(
        wanted(10, 190), [](uint32_t) -> bool { _exit(0); }, &result);
    _exit(1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_EQ(status, 0);
  ASSERT_EQ(copies().size(), 1u);
  EXPECT_FALSE(isWholeCopy(copies()[0]));
  EXPECT_EQ(verifyAll(), range(0, 600));
  ASSERT_TRUE(keep(wanted(10, 90)));
  EXPECT_EQ(numbersOf(copies()), range(0, 100));
}

TEST(KeptCopies, SurvivesAPowerLossAndStaysApartFromTheRing) {
  RecoveryRig rig(shapeOf(4));
  RecoveryRig::record(0, 200, withSegments(4));
  ASSERT_TRUE(keep(wanted(60, 110)));
  RecoveryRig::record(200, 1000, withSegments(4));
  rig.powerOff();
  EXPECT_EQ(RecoveryRig::boot().error, "");
  rig.startServer();
  EXPECT_EQ(numbersOf(copies()), range(50, 125));
  RecoveryRig::record(1000, 2000, withSegments(4));
  EXPECT_EQ(numbersOf(copies()), range(50, 125));
}

TEST(KeptCopies, PictureThatTheCardRefusesIsLeftOut) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 100, withSegments(60));
  const DB_STREAM row = cameras()[0];
  RecordingReader reader;
  PictureEntry entry;
  ASSERT_EQ(reader.open(row), 0);
  ASSERT_TRUE(reader.picture(60, &entry));
  const uint64_t at = rig.card.chunkStart(kFileStream, static_cast<int>(row.chunkID));
  KeptCopies kept;
  ASSERT_EQ(kept.open({}), 0);
  KeepResult result;
  {
    IoFaults faults(rig.card.path());
    faults.failAt(Call::Read, at + entry.dataOffset, 512, EIO);
    EXPECT_TRUE(keep(kept, wanted(0, 90), &result));
  }
  EXPECT_GT(result.missing, 0u);
  std::vector<uint32_t> left = numbersOf(copies());
  EXPECT_EQ(std::count(left.begin(), left.end(), 60u), 0);
  EXPECT_EQ(std::count(left.begin(), left.end(), 80u), 1);
}

TEST(KeptCopies, DamagedPictureIsStillKnownToBeOne) {
  RecoveryRig rig(shapeOf(8));
  RecoveryRig::record(0, 100, withSegments(60));
  const DB_STREAM row = cameras()[0];
  RecordingReader reader;
  PictureEntry entry;
  Bytes bytes;
  ASSERT_EQ(reader.open(row), 0);
  ASSERT_TRUE(reader.picture(30, &entry));
  rig.card.writeChunk(kFileStream, static_cast<int>(row.chunkID), entry.dataOffset + 400,
                      Bytes{1, 2, 3});
  ASSERT_TRUE(keep(wanted(0, 90)));
  ASSERT_EQ(reader.open(copies()[0]), 0);
  ASSERT_TRUE(reader.picture(30, &entry));
  ASSERT_TRUE(reader.readPicture(entry, &bytes));
  EXPECT_TRUE(reader.isDamaged());
}

TEST(KeptCopies, ItsChannelTakesNoCamera) {
  RecoveryRig rig(shapeOf(4));
  RecordingSession session;
  EXPECT_EQ(session.open(withSegments(60, kKeptChannel)), -1);
  EXPECT_STREQ(session.errorText(), kErrKeptChannel);
}

TEST(KeptCopies, OneKeepsAtATime) {
  RecoveryRig rig(shapeOf(4));
  KeptCopies first;
  KeptCopies second;
  ASSERT_EQ(first.open({}), 0);
  EXPECT_EQ(second.open({}), -1);
  EXPECT_STREQ(second.errorText(), kErrKeepBusy);
}

}  // namespace
}  // namespace tarn
