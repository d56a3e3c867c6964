#include <syslog.h>

#include "recorder/RecorderRig.h"
#include "recorder/session/PictureQueue.h"
#include "support/IoFaults.h"

namespace tarn_test {
namespace {

using Picture = tarn::PictureQueue::Picture;

constexpr size_t kSize = 1000;
constexpr size_t kTaken = kSize + sizeof(Picture);

Picture makePicture(uint32_t number, uint32_t gop = kRate, size_t size = kSize) {
  Picture picture;
  picture.annexB = pictureBytes(number, size, gop);
  picture.presentation = pictureTime(number);
  picture.key = isKey(number, gop);
  return picture;
}

// Numbers of what waits, which is taken.
std::vector<uint32_t> takeAll(tarn::PictureQueue* queue) {
  std::vector<uint32_t> numbers;
  Picture picture;
  while (queue->take(&picture)) numbers.push_back(numberAt(picture.presentation));
  return numbers;
}

std::vector<uint32_t> range(uint32_t from, uint32_t to) {
  std::vector<uint32_t> numbers;
  for (uint32_t i = from; i < to; ++i) numbers.push_back(i);
  return numbers;
}

TEST(PictureQueue, PicturesComeOutAsTheyWentIn) {
  tarn::PictureQueue queue;
  for (uint32_t i = 0; i < 60; ++i) EXPECT_TRUE(queue.add(makePicture(i)));
  EXPECT_EQ(60u, queue.pictures());
  EXPECT_EQ(60 * kTaken, queue.bytes());
  Picture first;
  ASSERT_TRUE(queue.take(&first));
  EXPECT_EQ(pictureBytes(0, kSize), first.annexB);
  EXPECT_FALSE(first.afterGap);
  EXPECT_EQ(range(1, 60), takeAll(&queue));
  EXPECT_TRUE(queue.empty());
  EXPECT_EQ(0u, queue.bytes());
  EXPECT_EQ(0u, queue.dropped().pictures);
}

TEST(PictureQueue, WhatComesBeforeTheFirstKeyPictureIsNotKept) {
  tarn::PictureQueue queue;
  for (uint32_t i = 20; i < 30; ++i) EXPECT_EQ(i >= 25, queue.add(makePicture(i)));
  EXPECT_EQ(range(25, 30), takeAll(&queue));
  EXPECT_EQ(0u, queue.dropped().pictures);
}

TEST(PictureQueue, OldestGoUpToAKeyPictureWhenTheLimitIsReached) {
  SyslogCapture log;
  tarn::PictureQueue queue(65 * kTaken);
  for (uint32_t i = 0; i < 65; ++i) ASSERT_TRUE(queue.add(makePicture(i)));
  EXPECT_EQ(0u, queue.dropped().pictures);
  ASSERT_TRUE(queue.add(makePicture(65)));
  EXPECT_EQ(41u, queue.pictures());
  EXPECT_EQ(25u, queue.dropped().pictures);
  EXPECT_EQ(25 * kSize, queue.dropped().bytes);
  EXPECT_EQ(pictureTime(0), queue.dropped().from);
  EXPECT_EQ(pictureTime(24), queue.dropped().to);
  Picture first;
  ASSERT_TRUE(queue.take(&first));
  EXPECT_TRUE(first.key);
  EXPECT_TRUE(first.afterGap);
  EXPECT_EQ(range(26, 66), takeAll(&queue));
  EXPECT_EQ(1u, log.lines().size());
}

TEST(PictureQueue, NeverTakesMoreThanItsLimit) {
  tarn::PictureQueue queue(10 * kTaken);
  for (uint32_t i = 0; i < 500; ++i) {
    queue.add(makePicture(i, 1 + i % 3, 100 + i * 37 % 4000));
    ASSERT_LE(queue.bytes(), 10 * kTaken) << i;
  }
  EXPECT_GT(queue.dropped().pictures, 0u);
  EXPECT_EQ(500u, queue.dropped().pictures + queue.pictures());
}

TEST(PictureQueue, GroupLargerThanTheLimitGoesUpToTheNextKeyPicture) {
  tarn::PictureQueue queue(10 * kTaken);
  for (uint32_t i = 0; i < 30; ++i) EXPECT_EQ(i < 10 || i >= 25, queue.add(makePicture(i))) << i;
  EXPECT_EQ(25u, queue.dropped().pictures);
  Picture first;
  ASSERT_TRUE(queue.take(&first));
  EXPECT_TRUE(first.afterGap);
  EXPECT_EQ(range(26, 30), takeAll(&queue));
}

TEST(PictureQueue, PictureLargerThanTheLimitIsDroppedWithWhatNeedsIt) {
  tarn::PictureQueue queue(10 * kTaken);
  EXPECT_TRUE(queue.add(makePicture(0)));
  EXPECT_FALSE(queue.add(makePicture(1, kRate, 20 * kSize)));
  EXPECT_FALSE(queue.add(makePicture(2)));
  EXPECT_TRUE(queue.add(makePicture(25)));
  EXPECT_EQ(2u, queue.dropped().pictures);
  EXPECT_EQ((std::vector<uint32_t>{0, 25}), takeAll(&queue));
}

TEST(PictureQueue, GapOfTheInputIsKept) {
  tarn::PictureQueue queue;
  queue.add(makePicture(0));
  queue.markDiscontinuity();
  EXPECT_FALSE(queue.add(makePicture(1)));
  EXPECT_TRUE(queue.add(makePicture(25)));
  Picture picture;
  ASSERT_TRUE(queue.take(&picture));
  EXPECT_FALSE(picture.afterGap);
  ASSERT_TRUE(queue.take(&picture));
  EXPECT_TRUE(picture.afterGap);
}

TEST(PictureQueue, TimesOfAClockThatWasWrongMoveWithIt) {
  tarn::PictureQueue queue;
  queue.add(makePicture(0));
  queue.add(makePicture(1));
  queue.moveTimes(3600000000);
  Picture picture;
  ASSERT_TRUE(queue.take(&picture));
  EXPECT_EQ(pictureTime(0).totalMicros() + 3600000000, picture.presentation.totalMicros());
}

TEST(PictureQueue, SessionGetsAllWithTheirOwnTimesAndIsToldOfTheGap) {
  RecorderRig rig;
  SyslogCapture log;
  tarn::PictureQueue queue(60 * kTaken);
  for (uint32_t i = 0; i < 25; ++i) queue.add(makePicture(i));
  tarn::RecordingSession session;
  ASSERT_EQ(0, session.open({}));
  ASSERT_EQ(0, queue.handOver(&session));
  EXPECT_TRUE(queue.empty());
  for (uint32_t i = 25; i < 100; ++i) queue.add(makePicture(i));
  ASSERT_EQ(0, queue.handOver(&session));
  ASSERT_EQ(0, session.close());
  EXPECT_EQ(
      1u,
      log.count(
          LOG_WARNING,
          "PictureQueue: 25 pictures of 1700000001.000 to 1700000001.960 were dropped: no room"));
  std::vector<uint32_t> numbers;
  std::vector<uint32_t> gaps;
  for (const DB_STREAM& row : allStreams()) {
    tarn::RecordingReader reader;
    ASSERT_EQ(0, reader.open(row));
    tarn::PictureEntry entry;
    for (uint32_t i = 0; reader.picture(i, &entry); ++i) {
      numbers.push_back(numberAt(entry.presentation));
      if (entry.isDiscontinuity()) gaps.push_back(numbers.back());
    }
  }
  std::vector<uint32_t> expected = range(0, 25);
  for (uint32_t i = 50; i < 100; ++i) expected.push_back(i);
  EXPECT_EQ(expected, numbers);
  EXPECT_EQ((std::vector<uint32_t>{0, 50}), gaps);
}

TEST(PictureQueue, SessionThatFailsLeavesTheRest) {
  tarn::PictureQueue queue;
  for (uint32_t i = 0; i < 5; ++i) queue.add(makePicture(i));
  tarn::RecordingSession session;  // not open
  EXPECT_EQ(-1, queue.handOver(&session));
  EXPECT_EQ(4u, queue.pictures());
}

TEST(PictureQueue, PictureWithoutMemoryIsDroppedAndSaid) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns the allocator";
  SyslogCapture log;
  tarn::PictureQueue queue;
  queue.add(makePicture(0));
  int dropped = 0;
  for (uint32_t i = 1; i < 25; ++i) {
    Picture picture = makePicture(i);
    const AllocationFault fault(1, 1);
    if (!queue.add(std::move(picture))) ++dropped;
  }
  EXPECT_EQ(static_cast<uint64_t>(dropped), queue.dropped().pictures);
  EXPECT_GT(dropped, 0);
  EXPECT_TRUE(queue.add(makePicture(25)));
}

}  // namespace
}  // namespace tarn_test
