#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "db/RowStatus.h"
#include "recorder/SoundRig.h"
#include "recorder/card/ChunkChannels.h"
#include "recorder/recording/RecordFormat.h"
#include "recorder/session/RecordingMessages.h"
#include "recorder/session/SoundSession.h"

using namespace tarn_test;
using testing::ElementsAre;
using testing::IsEmpty;

namespace tarn {
namespace {

TEST(SoundSession, GivesBackEachFrameWithItsTime) {
  RecorderRig rig;
  SoundSession session;
  ASSERT_TRUE(openSound(session));
  ASSERT_TRUE(writeSound(session, 0, 1000));
  EXPECT_NE(session.streamID(), 0u);
  ASSERT_EQ(session.close(), 0) << session.errorText();
  const RecordingStatistics statistics = session.statistics();
  EXPECT_EQ(statistics.pictures, 1000u);
  EXPECT_EQ(statistics.confirmed, 1000u);
  EXPECT_EQ(statistics.bytes, 170000u);
  EXPECT_EQ(allFrames(), range(0, 1000));
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(rows.size(), 1u);
  EXPECT_EQ(rows[0].frameSet, 0x80 + 1) << "sound, AAC";
  EXPECT_EQ(rows[0].status & kStatusRecording, 0u);
  EXPECT_EQ(rows[0].recSize, 44u) << "several frames an entry: about half a second each";
  EXPECT_EQ(soundCodecOf(rows[0]), SoundCodec::kAac);
}

TEST(SoundSession, PicturesAndSoundOfAChannelDoNotShareAChunk) {
  RecorderRig rig;
  for (int round = 0; round < 2; ++round) {
    RecordingSession pictures;
    SoundSession sound;
    ASSERT_TRUE(openSession(pictures));
    ASSERT_TRUE(openSound(sound));
    const uint32_t base = static_cast<uint32_t>(round) * 200;
    // Both orders of beginning, and the newest recording is now of the one, now of the other kind.
    if (round == 1) {
      ASSERT_TRUE(writeSound(sound, base, base + 2));
    }
    ASSERT_TRUE(writePictures(pictures, base, base + 50));
    ASSERT_TRUE(writeSound(sound, base + 2, base + 90));
    ASSERT_EQ(sound.close(), 0);
    ASSERT_EQ(pictures.close(), 0);
  }
  const std::vector<DB_STREAM> video = rowsOfVideo();
  const std::vector<DB_STREAM> audio = rowsOfSound();
  ASSERT_EQ(video.size(), 2u);
  ASSERT_EQ(audio.size(), 2u);
  EXPECT_EQ(video[0].chunkID, video[1].chunkID) << "there was room";
  EXPECT_EQ(audio[0].chunkID, audio[1].chunkID);
  EXPECT_NE(video[0].chunkID, audio[0].chunkID);
  ChunkChannels channels;
  std::string error;
  ASSERT_EQ(channels.read(&error), 0) << error;
  EXPECT_EQ(channels.of(audio[0].chunkID), 0);
}

// Rings that are full and come round, with both kinds at work.
TEST(SoundSession, RingsThatComeRoundKeepTheKindsApart) {
  RecorderRig rig({128 * kKiB, 16 * kKiB, 5, 64 * kKiB});
  RecordingSession pictures;
  SoundSession sound;
  RecordingOptions options;
  options.segmentSeconds = 4;
  SoundOptions soundOptions;
  soundOptions.segmentSeconds = 4;
  ASSERT_TRUE(openSession(pictures, options));
  ASSERT_TRUE(openSound(sound, soundOptions));
  uint32_t frame = 0;
  for (uint32_t i = 0; i < 50; ++i) {
    ASSERT_TRUE(writePictures(pictures, i * 25, i * 25 + 25, 700));
    const uint32_t until = (i + 1) * 1000000 / 21333;
    ASSERT_TRUE(writeSound(sound, frame, until, 400));
    frame = until;
  }
  ASSERT_EQ(sound.close(), 0) << sound.errorText();
  ASSERT_EQ(pictures.close(), 0) << pictures.errorText();
  EXPECT_GT(pictures.statistics().recordingsDeleted + sound.statistics().recordingsDeleted, 2u);
  std::set<uint32_t> chunksOfVideo;
  std::set<uint32_t> chunksOfSound;
  for (const DB_STREAM& row : rowsOfVideo()) {
    chunksOfVideo.insert(row.chunkID);
    EXPECT_EQ(verifyRow(row, 700).size(), row.recSize);
  }
  for (const DB_STREAM& row : rowsOfSound()) {
    chunksOfSound.insert(row.chunkID);
    EXPECT_FALSE(framesOf(row, 400).empty());
  }
  for (const uint32_t chunk : chunksOfSound) EXPECT_EQ(chunksOfVideo.count(chunk), 0u) << chunk;
  EXPECT_GE(chunksOfVideo.size(), 2u);
  EXPECT_GE(chunksOfSound.size(), 1u);
}

TEST(SoundSession, AMissingFrameStaysAGap) {
  RecorderRig rig;
  SoundSession session;
  ASSERT_TRUE(openSound(session));
  ASSERT_TRUE(writeSound(session, 0, 10));
  ASSERT_TRUE(writeSound(session, 11, 30));
  ASSERT_TRUE(writeSound(session, 60, 70));
  ASSERT_EQ(session.close(), 0);
  std::vector<uint32_t> expected = range(0, 10);
  for (const uint32_t number : range(11, 30)) expected.push_back(number);
  for (const uint32_t number : range(60, 70)) expected.push_back(number);
  EXPECT_EQ(allFrames(), expected);
  EXPECT_EQ(allStreams().size(), 1u);
}

TEST(SoundSession, ALongGapOrAMarkBeginsARow) {
  RecorderRig rig;
  SoundSession session;
  ASSERT_TRUE(openSound(session));
  ASSERT_TRUE(writeSound(session, 0, 100));
  ASSERT_TRUE(writeSound(session, 600, 650));
  ASSERT_EQ(session.markDiscontinuity(), 0);
  ASSERT_TRUE(writeSound(session, 650, 700));
  ASSERT_EQ(session.clockStepped(3600000000), 0);
  ASSERT_TRUE(writeSound(session, 700, 750));
  ASSERT_EQ(session.close(), 0);
  const std::vector<DB_STREAM> rows = allStreams();
  ASSERT_EQ(rows.size(), 4u);
  for (const DB_STREAM& row : rows) {
    RecordingReader reader;
    PictureEntry entry;
    ASSERT_EQ(reader.open(row), 0);
    ASSERT_TRUE(reader.picture(0, &entry));
    EXPECT_TRUE(entry.isDiscontinuity());
  }
}

// What a power loss can take: not more than the interval, by the sound's own time or by the clock.
TEST(SoundSession, NoMoreThanTheFlushIntervalIsUnsafe) {
  RecorderRig rig;
  for (const uint32_t interval : {100u, 700u, 1000u, 3000u}) {
    SoundOptions options;
    options.flushIntervalMs = interval;
    SoundSession session;
    ASSERT_TRUE(openSound(session, options));
    for (uint32_t i = 0; i < 400; ++i) {
      ASSERT_TRUE(writeSound(session, i, i + 1));
      const RecordingStatistics now = session.statistics();
      const uint64_t unsafe = now.pictures - now.confirmed;
      ASSERT_LE(unsafe * kFrameSamples * 1000 / 48000, interval) << interval << " " << i;
    }
    ASSERT_EQ(session.close(), 0);
  }
}

TEST(SoundSession, TickMakesSafeWhatASourceThatStallsLeftBehind) {
  RecorderRig rig;
  SoundOptions options;
  options.flushIntervalMs = 60;
  SoundSession session;
  ASSERT_TRUE(openSound(session, options));
  ASSERT_TRUE(writeSound(session, 0, 1));
  ASSERT_EQ(session.tick(), 0);
  EXPECT_EQ(session.statistics().confirmed, 0u);
  usleep(70000);
  ASSERT_EQ(session.tick(), 0);
  EXPECT_EQ(session.statistics().confirmed, 1u);
  EXPECT_EQ(session.close(), 0);
}

TEST(SoundSession, ClosesTheSoundOfAKilledProcessAndNotItsPictures) {
  RecorderRig rig;
  rig.startServerProcess();
  const pid_t child = fork();
  if (child == 0) {
    RecordingSession pictures;
    SoundSession sound;
    const bool done = openSession(pictures) && openSound(sound) && writePictures(pictures, 0, 60) &&
                      writeSound(sound, 0, 120);
    if (!done) fprintf(stderr, "%s, %s\n", pictures.errorText(), sound.errorText());
    _exit(done ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  ASSERT_EQ(status, 0);
  SoundSession session;
  ASSERT_TRUE(openSound(session));
  const std::vector<DB_STREAM> audio = rowsOfSound();
  ASSERT_EQ(audio.size(), 1u);
  EXPECT_GT(audio[0].recSize, 0u);
  EXPECT_EQ(rowsOfVideo().at(0).recSize, 0u) << "its own session's matter";
  EXPECT_GE(framesOf(audio[0]).size(), 120u - 47u);
  EXPECT_EQ(session.close(), 0);
}

TEST(SoundSession, RefusesWhatItCannotKeep) {
  RecorderRig rig;
  SoundSession session;
  EXPECT_EQ(session.open(SoundOptions()), -1);
  EXPECT_EQ(session.error(), RecordingError::kBadOption);
  EXPECT_STREQ(session.errorText(), kErrSoundFormat);
  SoundOptions options;
  options.channel = -1;
  options.format = soundFormat();
  EXPECT_EQ(session.open(options), -1);
  EXPECT_STREQ(session.errorText(), kErrChannel);
  ASSERT_TRUE(openSound(session));
  SoundSession second;
  EXPECT_FALSE(openSound(second));
  EXPECT_STREQ(second.errorText(), kErrChannelBusy);
  const Bytes large(65536, 1);
  EXPECT_EQ(session.writeFrame(large.data(), large.size(), soundTime(0), 1024), -1);
  EXPECT_EQ(session.error(), RecordingError::kTooLarge);
  EXPECT_EQ(session.close(), -1);
}

}  // namespace
}  // namespace tarn
