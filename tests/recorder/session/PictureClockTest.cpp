#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "recorder/session/PictureClock.h"

namespace tarn {
namespace {

constexpr int64_t kWall = int64_t{1700000000} * 1000000;  // wall clock minus monotonic clock
constexpr int64_t kSecond = 1000000;
constexpr int64_t kMs = 1000;

// A picture of a simulated camera.
struct Shot {
  int64_t trueUs;     // monotonic, when it was taken
  int64_t stampUs;    // by the camera's clock
  int64_t arrivalUs;  // monotonic
};

// A camera whose clock is `ppm` fast, behind a network that delays each
// picture by up to `jitterUs`. Every `stallEvery` pictures the camera stands still for three
// seconds, and the network keeps back what comes for two.
class Camera {
 public:
  Camera(int pictures, double ppm, int64_t jitterUs, int stallEvery)
      : stepUs_(kSecond / pictures),
        rate_(1 + ppm / 1e6),
        jitterUs_(jitterUs),
        stallEvery_(stallEvery) {}

  Shot next() {
    ++number_;
    trueUs_ += stepUs_;
    if (stallEvery_ != 0 && number_ % stallEvery_ == 0) trueUs_ += 3 * kSecond;
    if (stallEvery_ != 0 && number_ % stallEvery_ == stallEvery_ / 2)
      heldUntilUs_ = trueUs_ + 2 * kSecond;
    const int64_t arrival = std::max(trueUs_ + jitter(), heldUntilUs_);
    lastArrivalUs_ = std::max(lastArrivalUs_, arrival);
    const auto stamp = static_cast<int64_t>(static_cast<double>(trueUs_) * rate_) + 12345 * kSecond;
    return {trueUs_, stamp, lastArrivalUs_};
  }

 private:
  int64_t jitter() { return static_cast<int64_t>(random_()) % (jitterUs_ + 1); }

  int64_t stepUs_;
  double rate_;
  int64_t jitterUs_;
  int stallEvery_;
  std::mt19937 random_{7};
  int64_t number_ = 0;
  int64_t trueUs_ = 50 * kSecond;
  int64_t heldUntilUs_ = 0;
  int64_t lastArrivalUs_ = 0;
};

// As a recorder does it: pictures wait until the clock has settled.
class Listener {
 public:
  explicit Listener(PictureClock::Stamps stamps) : clock(stamps, kWall) {}

  void take(const Shot& shot) {
    if (clock.begins(shot.arrivalUs, shot.stampUs)) {
      release();
      clock.restart();
      ++beginnings;
    }
    clock.receive(shot.arrivalUs, shot.stampUs);
    waiting_.push_back(shot);
    if (clock.settled()) release();
  }

  void release() {
    for (const Shot& shot : waiting_) {
      const int64_t time = clock.timeOf(shot.arrivalUs, shot.stampUs).totalMicros();
      if (pictures++ > 0 && time < lastUs) ++fallen;
      lastUs = time;
      errorUs = time - kWall - shot.trueUs;
      worstUs = std::max(worstUs, std::abs(errorUs));
    }
    waiting_.clear();
  }

  PictureClock clock;
  int64_t pictures = 0;
  int64_t fallen = 0;
  int64_t beginnings = 0;
  int64_t lastUs = 0;
  int64_t errorUs = 0;  // of the last picture
  int64_t worstUs = 0;

 private:
  std::vector<Shot> waiting_;
};

void expectADayWithin100Ms(double ppm) {
  // Five pictures a second: fewer to learn from than any camera gives.
  Camera camera(5, ppm, 200 * kMs, 10000);
  Listener listener(PictureClock::Stamps::kOfSource);
  constexpr int64_t kDay = int64_t{24} * 3600 * kSecond;
  for (Shot shot = camera.next(); shot.trueUs < kDay; shot = camera.next()) listener.take(shot);
  listener.release();
  EXPECT_GT(listener.pictures, 24 * 3600 * 4);
  EXPECT_EQ(listener.fallen, 0);
  EXPECT_EQ(listener.beginnings, 0);
  EXPECT_LT(listener.worstUs, 100 * kMs);
}

TEST(PictureClock, DayOfACameraWhoseClockIsFastStaysWithin100Ms) { expectADayWithin100Ms(100); }

TEST(PictureClock, DayOfACameraWhoseClockIsSlowStaysWithin100Ms) { expectADayWithin100Ms(-100); }

TEST(PictureClock, JitterOfTheNetworkDoesNotShow) {
  Camera camera(25, 50, 200 * kMs, 0);
  Listener listener(PictureClock::Stamps::kOfSource);
  for (int i = 0; i < 1000; ++i) listener.take(camera.next());
  int64_t last = listener.lastUs;
  for (int i = 0; i < 5000; ++i) {
    listener.take(camera.next());
    ASSERT_NEAR(static_cast<double>(listener.lastUs - last), 40.0 * kMs, 1.0 * kMs);
    last = listener.lastUs;
  }
}

TEST(PictureClock, PicturesThatWaitedForTheirReaderGetTheirOwnTimes) {
  Listener listener(PictureClock::Stamps::kOfSource);
  // Two seconds of pictures come at once, because the reader looked at the stream first.
  for (int64_t i = 0; i < 100; ++i) {
    const int64_t taken = 100 * kSecond + i * 40 * kMs;
    listener.take({taken, taken, std::max(taken, 102 * kSecond)});
  }
  EXPECT_EQ(listener.pictures, 100);
  EXPECT_EQ(listener.worstUs, 0);
}

TEST(PictureClock, StampsThatBeginAnewAreNoticed) {
  Listener listener(PictureClock::Stamps::kOfSource);
  int64_t taken = 100 * kSecond;
  // Forwards, back, and on where the camera stood still with its clock.
  for (const int64_t offset : {int64_t{0}, 5000 * kSecond, -90 * kSecond, -97 * kSecond}) {
    for (int i = 0; i < 2000; ++i, taken += 40 * kMs) listener.take({taken, taken + offset, taken});
  }
  listener.release();
  EXPECT_EQ(listener.beginnings, 3);
  EXPECT_EQ(listener.fallen, 0);
  EXPECT_EQ(listener.errorUs, 0);
}

TEST(PictureClock, CountedTimesFollowTheArrival) {
  Listener listener(PictureClock::Stamps::kCounted);
  std::mt19937 random(3);
  int64_t taken = 106 * kSecond;
  // The stream says 25 pictures a second and has 24 and later 28; seven are missing, it stalls.
  for (int64_t i = 0; i < 20000; ++i) {
    taken += i < 10000 ? 41667 : 35714;
    if (i == 5000) taken += 5 * kSecond;
    if (i == 7000) taken += 7 * 40 * kMs;
    listener.take({taken, i * 40 * kMs, taken + static_cast<int64_t>(random() % 60000)});
  }
  EXPECT_EQ(listener.pictures, 20000);
  EXPECT_EQ(listener.fallen, 0);
  EXPECT_LE(listener.worstUs, 100 * kMs);
}

TEST(PictureClock, FirstPictureMayComeLate) {
  PictureClock clock(PictureClock::Stamps::kCounted, kWall);
  clock.receive(6 * kSecond, 0);
  EXPECT_EQ(clock.timeOf(6 * kSecond, 0).totalMicros(), kWall + 6 * kSecond);
}

TEST(PictureClock, WallClockThatIsSetMovesWhatComesNext) {
  PictureClock clock(PictureClock::Stamps::kOfSource, kWall);
  clock.receive(kSecond, 0);
  EXPECT_EQ(clock.timeOf(kSecond, 0).totalMicros(), kWall + kSecond);
  clock.setWallOffset(kWall - 3600 * kSecond);
  clock.receive(2 * kSecond, kSecond);
  EXPECT_EQ(clock.timeOf(2 * kSecond, kSecond).totalMicros(), kWall - 3598 * kSecond);
}

}  // namespace
}  // namespace tarn
