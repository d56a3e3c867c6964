#include <gtest/gtest.h>

#include "manager/ManageFormat.h"
#include "recorder/RecorderRig.h"
#include "recorder/card/ChunkChannels.h"

using namespace tarn_test;

namespace tarn {
namespace {

TEST(ChunkChannels, EachRowsChunkHasTheChannelThatRecordedIt) {
  RecorderRig rig;
  RecordingSession first, second;
  RecordingOptions options;
  options.channel = 3;
  ASSERT_EQ(0, first.open(options));
  options.channel = 127;
  ASSERT_EQ(0, second.open(options));
  ASSERT_TRUE(writePictures(first, 0, 5));
  ASSERT_TRUE(writePictures(second, 0, 5));
  // As soon as there is a row, not only when it is closed.
  ChunkChannels channels;
  std::string error;
  ASSERT_EQ(0, channels.read(&error)) << error;
  const auto rows = allStreams();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(channels.of(rows[0].chunkID), 3);
  EXPECT_EQ(channels.of(rows[1].chunkID), 127);
  EXPECT_EQ(channels.of(0), ChunkChannels::kUnknown);   // nobody's
  EXPECT_EQ(channels.of(99), ChunkChannels::kUnknown);  // not on this card
  ASSERT_EQ(0, first.close());
  ASSERT_EQ(0, second.close());
}

TEST(ChunkChannels, GuardedChunkIsKeptForItsChannel) {
  RecorderRig rig;
  {
    CTARNStreamManager manager(kRecorderPartition);
    ASSERT_EQ(0, manager.openManageData());
    ASSERT_EQ(0, manager.setChType(1, guardMark(5), 0));
    ASSERT_EQ(0, manager.saveManageData());
    manager.closeManageData();
  }
  ChunkChannels channels;
  std::string error;
  ASSERT_EQ(0, channels.read(&error)) << error;
  EXPECT_EQ(channels.of(1), 5);
}

TEST(ChunkChannels, CardThatIsNotThereTellsOfNoChannel) {
  ChunkChannels channels;
  std::string error;
  EXPECT_EQ(-1, channels.read(&error));
  EXPECT_FALSE(error.empty());
  EXPECT_EQ(channels.of(0), ChunkChannels::kUnknown);
}

}  // namespace
}  // namespace tarn
