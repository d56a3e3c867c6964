#include "recorder/RecorderRig.h"

namespace tarn_test {
namespace {

tarn::RecordingOptions channel(int number) {
  tarn::RecordingOptions options;
  options.channel = static_cast<int8_t>(number);
  options.segmentSeconds = 1;
  return options;
}

TEST(SharedRing, ChannelWithoutAChunkSaysThatThereAreTooFewAndTheOthersGoOn) {
  RecorderRig rig;  // of three chunks
  std::vector<std::unique_ptr<tarn::RecordingSession>> sessions;
  for (int i = 0; i < 4; ++i) {
    sessions.push_back(std::make_unique<tarn::RecordingSession>());
    ASSERT_EQ(0, sessions.back()->open(channel(i)));
    if (i < 3) {
      ASSERT_TRUE(writePictures(*sessions.back(), 0, 30));
    }
  }
  EXPECT_FALSE(writePictures(*sessions[3], 0, 1));
  EXPECT_STREQ(
      "every chunk is being recorded into: the card has fewer chunks than channels and their sound",
      sessions[3]->errorText());
  EXPECT_EQ(tarn::RecordingError::kNoRoom, sessions[3]->error());
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(writePictures(*sessions[i], 30, 60)) << i;
  // A channel that ends gives its chunk up to the next one that asks.
  ASSERT_EQ(0, sessions[2]->close());
  sessions[3]->close();
  ASSERT_EQ(0, sessions[3]->open(channel(3)));
  EXPECT_TRUE(writePictures(*sessions[3], 60, 90));
  for (int i : {0, 1, 3}) EXPECT_EQ(0, sessions[i]->close()) << i;
}

// Decided so: what lies in a chunk that a session writes to stays, and newer rows go instead.
TEST(SharedRing, RowsOfAChunkThatIsBeingRecordedIntoOutliveNewerOnesElsewhere) {
  RecorderRig rig;
  tarn::RecordingSession slow;
  tarn::RecordingSession fast;
  ASSERT_EQ(0, slow.open(channel(0)));
  ASSERT_EQ(0, fast.open(channel(1)));
  ASSERT_TRUE(writePictures(slow, 0, 60));
  ASSERT_TRUE(writePictures(fast, 60, 1000, 1500));
  EXPECT_GT(fast.statistics().recordingsDeleted, 0u);
  EXPECT_TRUE(writePictures(slow, 1000, 1010));
  ASSERT_EQ(0, slow.close());
  ASSERT_EQ(0, fast.close());
  const std::vector<DB_STREAM> rows = allStreams();
  EXPECT_EQ(kStart, rows.at(0).startDate);  // the oldest of all
  EXPECT_GT(rows.at(4).startDate, kStart + 3);
}

}  // namespace
}  // namespace tarn_test
