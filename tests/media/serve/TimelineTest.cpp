#include <gmock/gmock.h>

#include <numeric>

#include "media/serve/Timeline.h"

namespace tarn_test {
namespace {

using tarn::Timeline;
using tarn::TimeSpan;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr int64_t kSecond = 1000000;

tarn::ServedRecording recording(uint32_t key, uint32_t from, uint32_t to) {
  tarn::ServedRecording one;
  one.row.streamID = key;
  one.row.recSize = to != 0 ? 10 : 0;
  one.row.startDate = from;
  one.row.endDate = to;
  return one;
}

TEST(Timeline, RecordingsThatFollowEachOtherAreOneStretch) {
  tarn::ServedRows rows;
  rows.recordings = {recording(1, 100, 110), recording(2, 110, 120), recording(3, 130, 140),
                     recording(4, 135, 138), recording(5, 150, 0)};
  const std::vector<TimeSpan> spans =
      Timeline::covered(rows, {0, 1, 2, 3, 4}, [](const tarn::ServedRecording& running) {
        EXPECT_EQ(running.row.streamID, 5u);
        return 155 * kSecond;
      });
  ASSERT_EQ(spans.size(), 3u);
  EXPECT_EQ(spans[0].toUs, 120 * kSecond);
  EXPECT_EQ(spans[1].toUs, 140 * kSecond) << "one within another ends nothing";
  EXPECT_EQ(spans[2].toUs, 155 * kSecond);
}

TEST(Timeline, BinsHoldWhatIsCoveredOfThem) {
  const TimeSpan period = {0, 10 * kSecond};
  EXPECT_THAT(Timeline::shares({{-kSecond, kSecond}, {3500000, 5 * kSecond}, {9999999, 1 << 30}},
                               period, 5),
              ElementsAre(500, 250, 500, 0, 1))
      << "what is there at all shows";
  EXPECT_THAT(Timeline::shares({{0, 1 << 30}}, period, 3), ElementsAre(1000, 1000, 1000));
  EXPECT_THAT(Timeline::shares({{10 * kSecond, 11 * kSecond}}, period, 2), ElementsAre(0, 0));
}

TEST(Timeline, EveryEventOfThePeriodIsInOneBin) {
  std::vector<DB_EVENT> events(1000);
  for (uint32_t i = 0; i < events.size(); ++i) events[i].startDate = 1000 + i;
  const TimeSpan period = {1000 * kSecond, 2000 * kSecond};
  for (uint32_t bins : {1u, 3u, 7u, 999u, 4096u}) {
    const std::vector<uint32_t> counts = Timeline::events(events, period, bins);
    EXPECT_EQ(std::accumulate(counts.begin(), counts.end(), 0u), 1000u) << bins;
  }
  EXPECT_THAT(Timeline::events(events, {0, 4 * 500 * kSecond}, 4), ElementsAre(0, 0, 500, 500));
}

// The longest period that there is, and one that is shorter than its bins are many.
TEST(Timeline, PeriodsOfAnyLengthHaveTheirBins) {
  std::vector<DB_EVENT> events(1);
  events[0].startDate = 0xFFFFFFFF;
  const int64_t end = (int64_t{0xFFFFFFFF} + 1) * kSecond;
  EXPECT_EQ(Timeline::events(events, {0, end}, 4096).back(), 1u);
  EXPECT_EQ(Timeline::shares({{end - 1, end}}, {0, end}, 4096).back(), 1);
  const int64_t at = int64_t{0xFFFFFFFF} * kSecond;
  const std::vector<uint32_t> counts = Timeline::events(events, {at, at + 3}, 4096);
  EXPECT_EQ(std::accumulate(counts.begin(), counts.end(), 0u), 1u);
}

TEST(Timeline, LongestGapsAreListedInTheirOrder) {
  const std::vector<TimeSpan> spans = {{0, 10}, {15, 20}, {50, 60}, {62, 70}, {90, 100}};
  size_t left = 0;
  const auto gaps = Timeline::gaps(spans, {5, 95}, 2, &left);
  ASSERT_EQ(gaps.size(), 2u);
  EXPECT_EQ(gaps[0].fromUs, 20);
  EXPECT_EQ(gaps[1].fromUs, 70);
  EXPECT_EQ(left, 2u);
  EXPECT_THAT(Timeline::gaps(spans, {51, 59}, 2, &left), IsEmpty());
  EXPECT_EQ(left, 0u);
}

}  // namespace
}  // namespace tarn_test
