#include <gtest/gtest.h>

#include "recorder/recording/PictureNumbers.h"

namespace tarn {
namespace {

uint32_t firstOf(const PictureNumbers& numbers) {
  uint32_t first = 0;
  EXPECT_TRUE(numbers.first(&first));
  return first;
}

TEST(PictureNumbers, EmptyChunkBeginsAtAHundred) {
  PictureNumbers numbers;
  numbers.setSlots(std::vector<uint32_t>(64, 0));
  EXPECT_EQ(firstOf(numbers), 100u);
  numbers.setSlots(std::vector<uint32_t>(64, 0xFFFFFFFF));
  EXPECT_EQ(firstOf(numbers), 100u);
  numbers.setSlots({});
  EXPECT_EQ(firstOf(numbers), 100u);
}

TEST(PictureNumbers, NewRecordingBeginsBehindTheGreatestNumber) {
  PictureNumbers numbers;
  numbers.setSlots({100, 101, 102, 4711, 7, 0xFFFFFFFF});
  EXPECT_EQ(firstOf(numbers), 4800u);
  numbers.setSlots({4799, 4800});
  EXPECT_EQ(firstOf(numbers), 4900u);
}

TEST(PictureNumbers, NextRecordingBeginsBehindWhatWasWritten) {
  PictureNumbers numbers;
  numbers.setSlots({0, 0, 0, 0});
  EXPECT_EQ(firstOf(numbers), 100u);
  for (uint32_t number = 100; number < 342; ++number) numbers.used(number);
  EXPECT_EQ(firstOf(numbers), 400u);
  // A recording that ends with 399 must not seem to go on in the next one's header.
  for (uint32_t number = 342; number < 400; ++number) numbers.used(number);
  EXPECT_EQ(firstOf(numbers), 500u);
}

TEST(PictureNumbers, NoStaleNumberCanContinueARecordingThatFillsTheChunk) {
  PictureNumbers numbers;
  // Behind the greatest number there is no room left: the largest gap is chosen.
  const std::vector<uint32_t> slots = {PictureNumbers::kLimit - 1, 1000, 500000, 600000};
  numbers.setSlots(slots);
  const uint32_t first = firstOf(numbers);
  EXPECT_EQ(first, 600100u);
  for (const uint32_t slot : slots) {
    EXPECT_FALSE(slot >= first && slot <= first + slots.size()) << slot;
  }
}

TEST(PictureNumbers, GapThatIsUsedUpAsksForANewScan) {
  PictureNumbers numbers;
  numbers.setSlots({PictureNumbers::kLimit - 1, 1000, 0x80000000});
  EXPECT_EQ(firstOf(numbers), 0x80000064u / 100 * 100);
  numbers.used(PictureNumbers::kLimit - 40);
  uint32_t first = 0;
  EXPECT_FALSE(numbers.first(&first));
}

TEST(PictureNumbers, NeitherZeroNorAWrapIsEverReached) {
  PictureNumbers numbers;
  numbers.setSlots({PictureNumbers::kLimit - 1});
  EXPECT_EQ(firstOf(numbers), 100u);
  numbers.setSlots({0xFFFFFFFF, 0});
  EXPECT_EQ(firstOf(numbers), 100u);
}

}  // namespace
}  // namespace tarn
