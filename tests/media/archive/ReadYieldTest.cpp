#include <gtest/gtest.h>

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

TEST(ReadYieldTest, WhatIsNoLineOfADeviceTellsNothing) {
  tarn::ReadYield yield("");
  EXPECT_FALSE(yield.isTaken("", "", 50000));
  EXPECT_FALSE(yield.isTaken("1 2 3", lineOf(1, 1, 1), 50000));
  EXPECT_EQ(tarn::ReadYield::statisticsOf("/dev/null"), "");
  EXPECT_EQ(tarn::ReadYield::statisticsOf("/nowhere"), "");
}

}  // namespace
}  // namespace tarn_test
