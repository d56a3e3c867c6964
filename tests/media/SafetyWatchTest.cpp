#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "media/record/SafetyWatch.h"

namespace {

using tarn::SafetyWatch;
using Verdict = SafetyWatch::Verdict;

constexpr int64_t kSecond = 1000000;

TEST(SafetyWatch, FeedsOnlyWhenMoreIsSafeAndFourTimesInTheLimitAtMost) {
  SafetyWatch watch(40 * kSecond, 0);
  EXPECT_EQ(watch.look(0, kSecond), Verdict::kNothing);
  EXPECT_EQ(watch.look(5, 2 * kSecond), Verdict::kFeed);
  EXPECT_EQ(watch.look(9, 11 * kSecond), Verdict::kNothing);
  EXPECT_EQ(watch.look(10, 12 * kSecond), Verdict::kFeed);
  EXPECT_EQ(watch.look(10, 25 * kSecond), Verdict::kNothing);
}

TEST(SafetyWatch, WarnsOnceWhenNothingBecameSafeForHalfOfTheLimit) {
  SafetyWatch watch(40 * kSecond, 0);
  EXPECT_EQ(watch.look(0, 19 * kSecond), Verdict::kNothing);
  EXPECT_EQ(watch.look(0, 20 * kSecond), Verdict::kWarn);
  EXPECT_EQ(watch.look(0, 39 * kSecond), Verdict::kNothing);
  EXPECT_EQ(watch.look(1, 40 * kSecond), Verdict::kFeed);
  EXPECT_EQ(watch.look(1, 60 * kSecond), Verdict::kWarn) << "again, since it grew in between";
}

TEST(SafetyWatch, DoesNothingWhereNobodyWatches) {
  SafetyWatch watch(0, 0);
  EXPECT_EQ(watch.look(5, 100 * kSecond), Verdict::kNothing);
  EXPECT_EQ(watch.look(5, 200 * kSecond), Verdict::kNothing);
}

TEST(SafetyWatch, TheLimitIsThatOfThisProcess) {
  EXPECT_EQ(SafetyWatch::limitOfManager(), 0);
  setenv("WATCHDOG_USEC", "60000000", 1);
  EXPECT_EQ(SafetyWatch::limitOfManager(), 60 * kSecond);
  setenv("WATCHDOG_PID", std::to_string(getpid()).c_str(), 1);
  EXPECT_EQ(SafetyWatch::limitOfManager(), 60 * kSecond);
  setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1);
  EXPECT_EQ(SafetyWatch::limitOfManager(), 0) << "it watches another one";
}

}  // namespace
