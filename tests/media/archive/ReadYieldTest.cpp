#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

#include "media/archive/ReadYield.h"

namespace tarn_test {
namespace {

// As the kernel writes it, of a device that has done so many writes in so many milliseconds, and
// was busy for so many.
std::string lineOf(uint64_t writes, uint64_t ms, uint64_t busyMs) {
  return "    10 0 80 5 " + std::to_string(writes) + " 0 800 " + std::to_string(ms) + " 0 " +
         std::to_string(busyMs) + " 9";
}

TEST(ReadYieldTest, WritesThatTakeLongerThanUsualAreWaitedFor) {
  tarn::ReadYield yield("");
  const auto taken = [&](uint64_t writes, uint64_t ms) {
    return yield.isTaken(lineOf(0, 0, 700), lineOf(writes, ms, 700), 50000);
  };
  EXPECT_FALSE(taken(1000, 90000)) << "what was before does not count";
  EXPECT_FALSE(taken(1100, 90400)) << "4 ms each is usual here";
  EXPECT_FALSE(taken(1200, 91000)) << "6 ms";
  EXPECT_TRUE(taken(1210, 91200)) << "20 ms";
  EXPECT_TRUE(taken(1210, 91200)) << "none since: as before";
  EXPECT_FALSE(taken(1310, 91600));
}

TEST(ReadYieldTest, FlushesThatTakeLongerThanUsualAreWaitedForUntilTheNextOnes) {
  tarn::ReadYield yield("");
  EXPECT_FALSE(yield.areFlushesSlow(100, 9000000)) << "what was before does not count";
  EXPECT_FALSE(yield.areFlushesSlow(110, 9200000)) << "20 ms each is usual here";
  EXPECT_TRUE(yield.areFlushesSlow(112, 9300000)) << "50 ms";
  EXPECT_TRUE(yield.areFlushesSlow(112, 9300000)) << "none since";
  EXPECT_FALSE(yield.areFlushesSlow(122, 9500000));
}

TEST(ReadYieldTest, DeviceThatOthersKeepBusyIsLeftToThem) {
  tarn::ReadYield yield("");
  EXPECT_FALSE(yield.isTaken(lineOf(0, 0, 100), lineOf(9, 9, 125), 50000)) << "half of the pause";
  EXPECT_TRUE(yield.isTaken(lineOf(9, 9, 200), lineOf(18, 18, 226), 50000));
}

TEST(ReadYieldTest, TheMoreOthersHaveTheDeviceToDoTheLongerItRests) {
  tarn::ReadYield yield("");
  // Twenty seconds in pauses of 50 ms, of which others have these.
  const auto others = [&](uint64_t busyMs) {
    for (int i = 0; i < 400; ++i)
      yield.isTaken(lineOf(0, 0, 100), lineOf(0, 0, 100 + busyMs), 50000);
    return yield.restUs(10000);
  };
  EXPECT_EQ(yield.restUs(10000), 10000) << "nobody there: as long as it has worked";
  EXPECT_NEAR(static_cast<double>(others(5)), 14700, 100) << "a recorder at a tenth of the card";
  EXPECT_NEAR(static_cast<double>(others(25)), 70000, 100) << "at half of it";
  EXPECT_EQ(others(50), 4000000) << "one that needs all of it";
  EXPECT_EQ(yield.restUs(0), 0);
  EXPECT_NEAR(static_cast<double>(others(0)), 10000, 100) << "and it has gone";
}

TEST(ReadYieldTest, WhatIsWaitedForRestsAsLongAsItHasWorkedAndNoLonger) {
  tarn::ReadYield yield("", true);
  for (int i = 0; i < 400; ++i) {
    EXPECT_TRUE(yield.isTaken(lineOf(0, 0, 100), lineOf(0, 0, 150), 50000)) << "and is left alone";
  }
  EXPECT_EQ(yield.restUs(10000), 10000);
}

TEST(ReadYieldTest, OneQuietMomentOfABusyDeviceIsNoReasonToGoOn) {
  tarn::ReadYield yield("");
  for (int i = 0; i < 400; ++i) yield.isTaken(lineOf(0, 0, 100), lineOf(0, 0, 150), 50000);
  yield.isTaken(lineOf(0, 0, 100), lineOf(0, 0, 100), 50000);
  EXPECT_GT(yield.restUs(10000), 3000000);
}

// What it read until its first rest would already be taken from a recording.
TEST(ReadYieldTest, ItLooksWhatOthersDoBeforeItBegins) {
  const char* path = "/tmp/statistics-of-a-device";
  std::ofstream(path) << lineOf(0, 0, 100) << "\n";
  tarn::ReadYield yield(path);
  const auto begin = std::chrono::steady_clock::now();
  yield.rest();
  EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(10));
}

TEST(ReadYieldTest, WhatIsNoLineOfADeviceTellsNothing) {
  tarn::ReadYield yield("");
  EXPECT_FALSE(yield.isTaken("", "", 50000));
  EXPECT_FALSE(yield.isTaken("1 2 3", lineOf(1, 1, 1), 50000));
  EXPECT_EQ(tarn::ReadYield::statisticsOf("/dev/null"), "");
  EXPECT_EQ(tarn::ReadYield::statisticsOf("/nowhere"), "");
}

}  // namespace
}  // namespace tarn_test
