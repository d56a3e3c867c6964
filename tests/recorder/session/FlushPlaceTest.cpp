#include "fat/CardWear.h"
#include "recorder/RecorderRig.h"
#include "recorder/session/FlushPlace.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

using tarn::FlushPlace;

constexpr int64_t kSecond = 1000000;
constexpr uint32_t kBoundary = 64 * 1024;
constexpr size_t kSize = 40000;  // 8 Mbit/s at 25 pictures a second

TEST(FlushPlace, TheLastBoundaryInsideTheIntervalIsTaken) {
  FlushPlace place;
  place.set(kSecond, 0);
  // Sixteen boundaries a second: what is left must be less than one and a half.
  EXPECT_FALSE(place.isDue(900000, 900000 / 1000 * 1049));
  EXPECT_TRUE(place.isDue(920000, 920000 / 1000 * 1049));
  // One in two seconds: from two thirds of the interval on, as it comes.
  EXPECT_FALSE(place.isDue(600000, 19661));
  EXPECT_TRUE(place.isDue(700000, 22938));
}

TEST(FlushPlace, NothingIsDueWithoutAnIntervalOrWithNothingToMakeSafe) {
  FlushPlace place;
  EXPECT_FALSE(place.isDue(kSecond, 1000));
  place.set(kSecond, 0);
  EXPECT_FALSE(place.isDue(kSecond, 0));
  EXPECT_FALSE(place.isDue(0, 1000));
  EXPECT_FALSE(place.isDue(-kSecond, 1000)) << "a clock that was set back";
}

TEST(FlushPlace, BoundariesAreThoseOfTheDevice) {
  FlushPlace place;
  place.set(kSecond, kBoundary * 3 + 4096);
  EXPECT_EQ(place.distance(0, 8 * kBoundary, 0), kBoundary - 4096);
  EXPECT_EQ(place.distance(0, 8 * kBoundary, kBoundary - 4096), 0u);
  EXPECT_EQ(place.distance(3, 8 * kBoundary + 4096, 1), kBoundary - 4 * 4096 - 1);
  place.set(kSecond, uint64_t{1} << 40);
  EXPECT_EQ(place.distance(32767, 0x7FFF0000, 5), kBoundary - 5);
}

class EarlyFlushTest : public RecorderRig, public testing::Test {
 protected:
  EarlyFlushTest() : RecorderRig(shape()) {}
  static Shape shape() {
    Shape shape;
    shape.streamChunk = 16 * 1024 * kKiB;
    return shape;
  }
  // Flushes of all kinds of chunks, of what a recording of `seconds` asks the card for.
  static uint64_t flushesOf(uint32_t from, uint32_t seconds) {
    tarn::RecordingSession session;
    EXPECT_TRUE(openSession(session));
    EXPECT_TRUE(writePictures(session, from, from + kRate, kSize));
    const tarn::CardWear before = tarn::cardWear();
    EXPECT_TRUE(writePictures(session, from + kRate, from + kRate * (seconds + 1), kSize));
    const tarn::CardWear wear = tarn::cardWear().since(before);
    EXPECT_EQ(session.close(), 0) << session.errorText();
    return wear.kinds[tarn::kFileStream].flushes + wear.kinds[tarn::kFilePicture].flushes;
  }
};

TEST_F(EarlyFlushTest, ASecondCostsOneFlushOfTheDataAndOneOfTheEntries) {
  constexpr uint32_t kSeconds = 10;
  EXPECT_LE(flushesOf(0, kSeconds), kSeconds * 5 / 2);
  EXPECT_EQ(verifyAll(kSize), range(0, kRate * (kSeconds + 1)));
}

// What was confirmed has its bytes on the device, all of them, also where the flush came in the
// midst of the next picture; and never more is at stake than the interval.
TEST_F(EarlyFlushTest, NothingIsConfirmedBeforeItsBytesAndNothingWaitsForLongerThanTheInterval) {
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  uint64_t midst = 0;
  for (uint32_t i = 0; i < 5 * kRate; ++i) {
    const uint64_t safe = session.statistics().confirmed;
    ASSERT_TRUE(writePictures(session, i, i + 1, kSize));
    const tarn::RecordingStatistics& now = session.statistics();
    EXPECT_LE(now.pictures - now.confirmed, kRate);
    // A flush inside the call, of everything but the picture that the call brought.
    if (now.confirmed != safe && now.confirmed == now.pictures - 1) ++midst;
  }
  EXPECT_GE(midst, 4u);
  ASSERT_EQ(session.close(), 0);
  EXPECT_EQ(verifyAll(kSize), range(0, 5 * kRate));
}

TEST_F(EarlyFlushTest, AFlushInTheMidstOfAPictureThatFailsConfirmsNothing) {
  tarn::RecordingSession session;
  ASSERT_TRUE(openSession(session));
  ASSERT_TRUE(writePictures(session, 0, 20, kSize));
  const uint64_t safe = session.statistics().confirmed;
  IoFaults device(kCardPath);
  device.fail(Call::Fsync, 1, EIO, IoFaults::kForever);
  EXPECT_FALSE(writePictures(session, 20, 60, kSize));
  EXPECT_EQ(session.statistics().confirmed, safe);
  EXPECT_EQ(session.error(), tarn::RecordingError::kCard);
  EXPECT_LT(session.statistics().pictures, uint64_t{kRate}) << "before the interval was over";
  session.close();
  unlink("/tmp/sd_err_mem_write");
}

}  // namespace
}  // namespace tarn_test
