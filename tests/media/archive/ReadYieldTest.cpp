#include <gtest/gtest.h>

#include "media/archive/ReadYield.h"

namespace tarn_test {
namespace {

// As the kernel writes it, of a device that has done so many writes in so many milliseconds.
std::string lineOf(uint64_t writes, uint64_t ms) {
  return "    10 0 80 5 " + std::to_string(writes) + " 0 800 " + std::to_string(ms) + " 0 9 9";
}

TEST(ReadYieldTest, WritesThatTakeLongerThanUsualAreSlow) {
  tarn::ReadYield yield("");
  EXPECT_FALSE(yield.areWritesSlow(lineOf(1000, 90000))) << "what was before does not count";
  EXPECT_FALSE(yield.areWritesSlow(lineOf(1100, 90400))) << "4 ms each is usual here";
  EXPECT_FALSE(yield.areWritesSlow(lineOf(1200, 91000))) << "6 ms";
  EXPECT_TRUE(yield.areWritesSlow(lineOf(1210, 91200))) << "20 ms";
  EXPECT_FALSE(yield.areWritesSlow(lineOf(1210, 91200))) << "none at all";
  EXPECT_FALSE(yield.areWritesSlow(lineOf(1310, 91600)));
}

TEST(ReadYieldTest, WhatIsNoLineOfADeviceTellsNothing) {
  tarn::ReadYield yield("");
  EXPECT_FALSE(yield.areWritesSlow(""));
  EXPECT_FALSE(yield.areWritesSlow("1 2 3"));
  EXPECT_EQ(tarn::ReadYield::statisticsOf("/dev/null"), "");
  EXPECT_EQ(tarn::ReadYield::statisticsOf("/nowhere"), "");
}

}  // namespace
}  // namespace tarn_test
