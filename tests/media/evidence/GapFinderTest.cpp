#include <gmock/gmock.h>

#include "db/RowStatus.h"
#include "media/evidence/GapFinder.h"
#include "recorder/card/ChunkChannels.h"

namespace tarn_test {
namespace {

using tarn::Delivery;
using tarn::GapReason;
using testing::HasSubstr;

constexpr int64_t kSecond = 1000000;

// Two recordings of a channel, in seconds 10 to 20 and 30 to 40 of a period of 0 to 50.
class GapFinderTest : public testing::Test {
 protected:
  GapFinderTest() {
    first_.streamID = 7;
    second_.streamID = 8;
    journal_.oldestKey = 1;
  }

  std::vector<tarn::EvidenceGap> find(const DB_STREAM* before = nullptr,
                                      Delivery between = Delivery::kGood) const {
    tarn::GapFinder gaps(tarn::ChunkChannels::kUnknown, journal_, chunks_, before);
    gaps.beginAt(0);
    gaps.recording(&first_);
    for (int64_t i = 10; i <= 20; ++i) gaps.picture(i * kSecond);
    if (between != Delivery::kGood) gaps.missing(between);
    gaps.recording(&second_);
    for (int64_t i = 30; i <= 40; ++i) gaps.picture(i * kSecond);
    gaps.endAt(50 * kSecond);
    return gaps.take();
  }

  tarn::EvidenceJournal journal_;
  tarn::ChunkChannels chunks_;
  DB_STREAM first_ = {};
  DB_STREAM second_ = {};
};

TEST_F(GapFinderTest, TimesWithoutARecordingAreGapsFromPictureToPicture) {
  const auto gaps = find();
  ASSERT_EQ(gaps.size(), 3u);
  EXPECT_EQ(gaps[0].fromUs, 0);
  EXPECT_EQ(gaps[0].toUs, 10 * kSecond);
  EXPECT_EQ(gaps[1].fromUs, 20 * kSecond);
  EXPECT_EQ(gaps[1].toUs, 30 * kSecond);
  EXPECT_EQ(gaps[2].toUs, 50 * kSecond);
  for (const auto& gap : gaps) EXPECT_EQ(gap.reason, GapReason::kNoRecording);
}

TEST_F(GapFinderTest, ARecordingThatWasGivenUpWasOverwritten) {
  journal_.givenUp.push_back({5, 0, 22 * kSecond, 25 * kSecond});
  const auto gaps = find();
  EXPECT_EQ(gaps[0].reason, GapReason::kNoRecording);
  EXPECT_EQ(gaps[1].reason, GapReason::kOverwritten);
  EXPECT_THAT(gaps[1].text, HasSubstr("recording 5 of this time was given up"));
  EXPECT_EQ(gaps[2].reason, GapReason::kNoRecording);
}

TEST_F(GapFinderTest, BehindARecordingThatARepairClosedItWasInterrupted) {
  first_.status = tarn::kStatusRepaired;
  EXPECT_EQ(find()[1].reason, GapReason::kInterrupted);
  EXPECT_EQ(find()[0].reason, GapReason::kNoRecording);
  DB_STREAM before = {};
  before.status = tarn::kStatusRepaired;
  EXPECT_EQ(find(&before)[0].reason, GapReason::kInterrupted);
}

TEST_F(GapFinderTest, WhatWasRefusedIsNotCalledDamaged) {
  EXPECT_EQ(find(nullptr, Delivery::kBad)[1].reason, GapReason::kDamaged);
  EXPECT_EQ(find(nullptr, Delivery::kRefused)[1].reason, GapReason::kUnreadable);
  journal_.unreadable = 1;
  EXPECT_EQ(find()[1].reason, GapReason::kUnknown) << "a record of the journal may tell";
}

TEST_F(GapFinderTest, BeforeTheJournalBeginsNobodyKnows) {
  journal_.oldestKey = 7;
  journal_.oldestUs = 10 * kSecond;
  const auto gaps = find();
  EXPECT_EQ(gaps[0].reason, GapReason::kUnknown);
  EXPECT_EQ(gaps[1].reason, GapReason::kNoRecording);
}

TEST_F(GapFinderTest, PicturesThatAreShownEarlierAndDamageBetweenTwoThatAreThereAreNoGap) {
  tarn::GapFinder gaps(0, journal_, chunks_, nullptr);
  gaps.beginAt(0);
  gaps.recording(&first_);
  gaps.picture(kSecond);
  gaps.picture(2 * kSecond);
  gaps.picture(kSecond / 2);
  gaps.missing(Delivery::kBad);
  gaps.picture(3 * kSecond);
  gaps.endAt(3 * kSecond);
  EXPECT_TRUE(gaps.take().empty());
}

}  // namespace
}  // namespace tarn_test
