// Sound that is coded in another way from some moment on: no track holds both, and nothing is lost.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include "media/MediaInput.h"
#include "media/MoviePieces.h"
#include "media/export/MediaExporter.h"
#include "recorder/RecorderRig.h"
#include "recorder/session/SoundSession.h"

namespace tarn_test {
namespace {

using tarn::SoundCodec;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr int64_t kSecond = 1000000;

struct Played {
  int64_t pictures = 0;
  int64_t frames = 0;
  int64_t firstPictureUs = 0;
  int64_t firstFrameUs = 0;
};

class SoundChange : public testing::Test {
 protected:
  // A key picture each second, and 24 others.
  static void recordPictures(int64_t seconds) {
    tarn::RecordingSession session;
    ASSERT_TRUE(openSession(session));
    for (int64_t i = 0; i < seconds * 25; ++i) {
      const tarn::OutputPicture one = pictureAt(i * 40000, i % 25 == 0);
      ASSERT_EQ(
          session.writePicture(one.annexB.data(), one.annexB.size(), one.presentation, 0, one.key),
          0);
    }
    ASSERT_EQ(session.close(), 0);
  }
  // Frames of 64 ms.
  static void recordSound(SoundCodec codec, int64_t fromUs, int64_t frames) {
    tarn::SoundSession session;
    tarn::SoundOptions options;
    options.format = soundAt(0, codec).format;
    ASSERT_EQ(session.open(options), 0) << session.errorText();
    for (int64_t i = 0; i < frames; ++i) {
      tarn::OutputSound one = soundAt(fromUs + i * 64000, codec);
      if (codec != SoundCodec::kAac) one.frame.resize(512, 0x21);
      const uint32_t samples = codec == SoundCodec::kAac ? 1024 : 512;
      ASSERT_EQ(session.writeFrame(one.frame.data(), one.frame.size(), one.time, samples), 0);
    }
    ASSERT_EQ(session.close(), 0);
  }
  std::vector<tarn::ExportedChannel> exported(bool good = true) {
    tarn::ExportRequest request;
    request.from = tarn::PictureTime::fromMicros(kWall - kSecond);
    request.output = "/tmp/out.mov";
    request.overwrite = true;
    tarn::MediaExporter exporter(request);
    EXPECT_EQ(exporter.run(), good) << exporter.error();
    return exporter.channels();
  }
  static Played played(const std::string& path) {
    Played played;
    std::string error;
    const auto input = tarn::MediaInput::open(
        path, 0, [] { return false; }, &error);
    if (input == nullptr) return played;
    tarn::MediaPicture picture;
    input->wantSound();
    for (;;) {
      const tarn::MediaInput::Result result = input->next(&picture);
      if (result == tarn::MediaInput::Result::kSound) {
        const tarn::MediaSound sound = input->takeSound();
        if (played.frames == 0) played.firstFrameUs = sound.timeUs;
        played.frames += sound.samples;
      } else if (result == tarn::MediaInput::Result::kPicture) {
        if (played.pictures++ == 0) played.firstPictureUs = picture.presentationUs;
      } else {
        break;
      }
    }
    return played;
  }

  RecorderRig rig{{256 * kKiB, 64 * kKiB, 6, 64 * kKiB}};
  SyslogCapture log;
};

TEST_F(SoundChange, BeginsAnotherFileWithTheNextKeyPictureAndLosesNoFrame) {
  recordPictures(4);
  recordSound(SoundCodec::kAac, 0, 24);         // to 1.536 s
  recordSound(SoundCodec::kAlaw, 1536000, 30);  // to 3.456 s
  const std::vector<tarn::ExportedChannel> files = exported();
  ASSERT_THAT(files, SizeIs(2));
  EXPECT_EQ(files[0].totals.written, 50u);
  EXPECT_EQ(files[1].totals.written, 50u);
  EXPECT_EQ(files[0].sound.codec, SoundCodec::kAac);
  EXPECT_EQ(files[1].sound.codec, SoundCodec::kAlaw);
  EXPECT_EQ(files[0].sound.frames, 24u);
  EXPECT_EQ(files[1].sound.frames, 30u);
  ASSERT_THAT(files[0].sound.changes, SizeIs(1));
  EXPECT_EQ(files[0].sound.changes[0].next, "/tmp/out-2.mov");
  EXPECT_EQ(files[0].sound.changes[0].time.totalMicros(), kWall + 1536000);
  EXPECT_EQ(files[0].sound.changes[0].after.sampleRate, 8000u);
  EXPECT_THAT(files[1].sound.changes, IsEmpty());
  EXPECT_EQ(files[1].totals.first.totalMicros(), kWall + 2 * kSecond);
  EXPECT_EQ(files[1].sound.first.totalMicros(), kWall + 1536000);
  const Played first = played("/tmp/out.mov");
  const Played second = played("/tmp/out-2.mov");
  EXPECT_EQ(first.pictures, 50);
  EXPECT_EQ(first.frames, 24 * 1024);
  EXPECT_EQ(second.pictures, 50);
  EXPECT_NEAR(static_cast<double>(second.frames), 30 * 512, 512)
      << "heard before the first picture";
  EXPECT_NEAR(static_cast<double>(second.firstPictureUs - second.firstFrameUs), 464000, 1000);
}

TEST_F(SoundChange, EachOfSeveralIsAFileAndNothingIsCountedTwice) {
  recordPictures(2);
  recordSound(SoundCodec::kAlaw, 0, 8);
  recordSound(SoundCodec::kMulaw, 512000, 8);
  recordSound(SoundCodec::kAlaw, 1024000, 8);
  std::vector<uint64_t> pictures;
  std::vector<uint64_t> frames;
  for (const tarn::ExportedChannel& file : exported()) {
    EXPECT_EQ(file.error, "");
    pictures.push_back(file.totals.written);
    frames.push_back(file.sound.frames);
  }
  // There is no key picture between the two changes.
  EXPECT_THAT(pictures, ElementsAre(25u, 0u, 25u));
  EXPECT_THAT(frames, ElementsAre(8u, 8u, 8u));
}

TEST_F(SoundChange, SoundThatOutlastsThePicturesGoesOnAlone) {
  recordPictures(1);
  recordSound(SoundCodec::kAac, 0, 8);
  recordSound(SoundCodec::kAlaw, 512000, 24);
  const std::vector<tarn::ExportedChannel> files = exported();
  ASSERT_THAT(files, SizeIs(2));
  EXPECT_EQ(files[0].totals.written, 25u);
  EXPECT_EQ(files[1].totals.written, 0u);
  EXPECT_EQ(files[1].sound.frames, 24u);
}

TEST_F(SoundChange, SoundAloneIsSplitWhereItChanges) {
  recordSound(SoundCodec::kAac, 0, 10);
  recordSound(SoundCodec::kAlaw, 640000, 10);
  const std::vector<tarn::ExportedChannel> files = exported();
  ASSERT_THAT(files, SizeIs(2));
  EXPECT_EQ(files[0].sound.frames, 10u);
  EXPECT_EQ(files[1].sound.frames, 10u);
  EXPECT_EQ(files[1].sound.first.totalMicros(), kWall + 640000);
  struct stat found = {};
  ASSERT_EQ(stat("/tmp/out-2.mov", &found), 0);
  EXPECT_GT(found.st_size, 10 * 512);
}

TEST_F(SoundChange, AFileThatCannotHoldTheOtherFormatIsNamedAndTheFirstIsThere) {
  recordPictures(2);
  recordSound(SoundCodec::kAac, 0, 10);
  recordSound(SoundCodec::kAlaw, 640000, 10);
  tarn::ExportRequest request;
  request.from = tarn::PictureTime::fromMicros(kWall - kSecond);
  request.output = "/tmp/out.mp4";
  tarn::MediaExporter exporter(request);
  EXPECT_FALSE(exporter.run());
  ASSERT_THAT(exporter.channels(), SizeIs(2));
  EXPECT_EQ(exporter.channels()[0].error, "");
  EXPECT_EQ(played("/tmp/out.mp4").frames, 10 * 1024);
  EXPECT_THAT(exporter.channels()[1].error, testing::HasSubstr("name the file .mov"));
}

}  // namespace
}  // namespace tarn_test
