#include <gtest/gtest.h>

#include <cstdlib>

#include "recorder/session/ClockWatch.h"

namespace tarn_test {
namespace {

using Verdict = tarn::ClockWatch::Verdict;
using Reading = tarn::ClockWatch::Reading;

constexpr int64_t kSecond = 1000000;
constexpr int64_t kToday = 1700000000 * kSecond;

TEST(ClockWatch, ClockThatRunsOnIsTheSameHoweverItDrifts) {
  tarn::ClockWatch watch({kToday, 5 * kSecond, false});
  for (int64_t i = 1; i < 100; ++i)
    EXPECT_EQ(Verdict::kSame,
              watch.look({kToday + i * kSecond + i * 100, (5 + i) * kSecond, false}));
  EXPECT_EQ(kToday - 5 * kSecond, watch.offsetUs());
}

TEST(ClockWatch, SlowDriftBecomesAStepOnce) {
  tarn::ClockWatch watch({kToday, 0, true});
  EXPECT_EQ(Verdict::kSame, watch.look({kToday + kSecond + 499999, kSecond, true}));
  EXPECT_EQ(Verdict::kStepped, watch.look({kToday + 2 * kSecond + 500000, 2 * kSecond, true}));
  EXPECT_EQ(500000, watch.stepUs());
  EXPECT_EQ(Verdict::kSame, watch.look({kToday + 3 * kSecond + 500000, 3 * kSecond, true}));
}

TEST(ClockWatch, SomebodyWhoSetsTheClockBackAnHourMakesAStep) {
  for (const bool synchronised : {false, true}) {
    tarn::ClockWatch watch({kToday, 0, synchronised});
    EXPECT_EQ(Verdict::kStepped, watch.look({kToday - 3599 * kSecond, kSecond, synchronised}));
    EXPECT_EQ(-3600 * kSecond, watch.stepUs());
  }
}

TEST(ClockWatch, ClockOf1970BecomesKnownByWhateverSetsIt) {
  tarn::ClockWatch watch({30 * kSecond, 30 * kSecond, false});
  EXPECT_EQ(Verdict::kBecameKnown, watch.look({kToday + 31 * kSecond, 31 * kSecond, false}));
  EXPECT_EQ(kToday, watch.stepUs());
  EXPECT_EQ(Verdict::kStepped, watch.look({kToday + 92 * kSecond, 32 * kSecond, false}));
}

TEST(ClockWatch, ClockOfTheLastStopBecomesKnownWhenItIsSynchronised) {
  tarn::ClockWatch watch({kToday, 0, false});
  EXPECT_EQ(Verdict::kBecameKnown, watch.look({kToday + 601 * kSecond, kSecond, true}));
  EXPECT_EQ(600 * kSecond, watch.stepUs());
  // Known is known.
  EXPECT_EQ(Verdict::kStepped, watch.look({kToday + 1202 * kSecond, 2 * kSecond, true}));
}

TEST(ClockWatch, ClockThatLosesItsSourceAndGetsItBackMaySlewWithoutAStep) {
  tarn::ClockWatch watch({kToday, 0, true});
  EXPECT_EQ(Verdict::kSame, watch.look({kToday + kSecond, kSecond, false}));
  EXPECT_EQ(Verdict::kSame, watch.look({kToday + 2 * kSecond, 2 * kSecond, true}));
}

TEST(ClockWatch, MachinesClocksAreRead) {
  const Reading first = tarn::ClockWatch::read();
  const Reading second = tarn::ClockWatch::read();
  EXPECT_GE(second.monotonicUs, first.monotonicUs);
  EXPECT_LT(std::abs(second.wallUs - time(nullptr) * kSecond), 5 * kSecond);
}

}  // namespace
}  // namespace tarn_test
