#include <gtest/gtest.h>

#include "media/export/RecordingSound.h"
#include "recorder/recording/SoundFormat.h"

namespace tarn {
namespace {

DB_STREAM row(uint32_t key, uint32_t startMs, uint32_t endMs) {
  DB_STREAM row{};
  row.streamID = key;
  row.startDate = startMs / 1000;
  row.startMSec = static_cast<uint16_t>(startMs % 1000);
  row.endDate = endMs / 1000;
  row.endMSec = static_cast<uint16_t>(endMs % 1000);
  return row;
}

std::vector<uint32_t> keysOf(const std::vector<DB_STREAM>& rows) {
  std::vector<uint32_t> keys;
  for (const DB_STREAM& one : rows) keys.push_back(one.streamID);
  return keys;
}

using Keys = std::vector<uint32_t>;

TEST(RecordingSound, RowsBehindEachOtherAllBelongToTheRecording) {
  const std::vector<DB_STREAM> beside = {row(2, 9990, 30020), row(3, 30000, 60000),
                                         row(4, 60000, 0)};
  EXPECT_EQ(keysOf(soundOfRecording(row(1, 10000, 70000), beside)), (Keys{2, 3, 4}));
}

TEST(RecordingSound, OfRowsOverEachOtherTheOneThatBeganClosestIsTheRecordings) {
  const std::vector<DB_STREAM> beside = {row(2, 14225, 16245), row(4, 15850, 17870)};
  EXPECT_EQ(keysOf(soundOfRecording(row(1, 14248, 16208), beside)), Keys{2});
  EXPECT_EQ(keysOf(soundOfRecording(row(3, 15873, 17833), beside)), Keys{4});
}

TEST(RecordingSound, RowThatRunsLiesOverAllBehindItsStart) {
  const std::vector<DB_STREAM> beside = {row(2, 10000, 0), row(4, 20000, 30000)};
  EXPECT_EQ(keysOf(soundOfRecording(row(1, 10010, 0), beside)), Keys{2});
  EXPECT_EQ(keysOf(soundOfRecording(row(3, 20010, 30000), beside)), Keys{4});
}

TEST(RecordingSound, AnotherCodecThatOnlyReachesIntoThePicturesIsTheRecordingBeforesOwn) {
  std::vector<DB_STREAM> beside = {row(2, 8000, 10060), row(4, 10000, 30000)};
  for (DB_STREAM& one : beside) one.frameSet = frameSetOf(SoundCodec::kAac);
  EXPECT_EQ(keysOf(soundOfRecording(row(1, 10000, 30000), beside)), (Keys{2, 4}));
  beside[1].frameSet = frameSetOf(SoundCodec::kAlaw);
  EXPECT_EQ(keysOf(soundOfRecording(row(1, 10000, 30000), beside)), Keys{4});
  // A recording whose sound changes has both.
  beside = {row(2, 9990, 20000), row(4, 20000, 30000)};
  beside[0].frameSet = frameSetOf(SoundCodec::kAac);
  beside[1].frameSet = frameSetOf(SoundCodec::kAlaw);
  EXPECT_EQ(keysOf(soundOfRecording(row(1, 10000, 30000), beside)), (Keys{2, 4}));
}

TEST(RecordingSound, WithoutSoundThereIsNone) {
  EXPECT_TRUE(soundOfRecording(row(1, 10000, 20000), {}).empty());
}

}  // namespace
}  // namespace tarn
