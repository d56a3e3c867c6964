// Sound and pictures keep step over an hour of simulated time: from a camera into a recording, and
// from a recording into a file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "media/LivePictures.h"
#include "media/MediaInput.h"
#include "media/MediaOutput.h"

namespace tarn_test {
namespace {

constexpr int64_t kSecond = 1000000;
constexpr int64_t kHour = 3600 * kSecond;
constexpr int64_t kWall = int64_t{1700000000} * kSecond;
constexpr uint32_t kRate = 48000;
constexpr uint32_t kSamples = 1024;
constexpr int64_t kFrameUs = int64_t{kSamples} * kSecond / kRate;

int64_t timeOfFrame(int64_t number) { return number * kSamples * kSecond / kRate; }

// A key picture of 64 by 48, with its parameter sets.
std::vector<uint8_t> keyPicture(uint32_t number) {
  std::vector<uint8_t> bytes = {0x00, 0x00, 0x00, 0x01, 0x67, 0x42, 0xc0, 0x0a, 0xda, 0x11, 0xec,
                                0x04, 0x40, 0x00, 0x00, 0x03, 0x00, 0x40, 0x00, 0x00, 0x03, 0x00,
                                0x83, 0xc4, 0x89, 0xa8, 0x00, 0x00, 0x00, 0x01, 0x68, 0xce, 0x0f,
                                0xc8, 0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84, 0x3a};
  for (int shift = 0; shift < 32; shift += 7)
    bytes.push_back(static_cast<uint8_t>(0x80 | (number >> shift & 0x7F)));
  return bytes;
}

// A camera's clock is 100 ppm wrong and the network delays all that comes by up to 200 ms; the
// camera stands still now and then.
TEST(SoundStep, SoundOfACameraIsNoFrameAwayFromItsPictures) {
  tarn::PictureClock clock(tarn::PictureClock::Stamps::kOfSource, kWall);
  tarn::LivePictures live(&clock);
  std::mt19937 random(3);
  int64_t arrival = 0;
  int64_t frame = 0;
  int64_t away = 0;       // of the last picture: told time minus stamp
  int64_t worst = 0;      // sound against picture
  int64_t worstReal = 0;  // sound against the true time
  uint64_t sounds = 0;
  const auto take = [&] {
    tarn::MediaPicture picture;
    tarn::PictureTime time;
    while (live.next(&picture, &time)) away = time.totalMicros() - picture.presentationUs;
    tarn::MediaSound sound;
    tarn::SoundFormat format;
    while (live.nextSound(&sound, &format, &time)) {
      ++sounds;
      worst = std::max(worst, std::abs(time.totalMicros() - sound.timeUs - away));
      const auto real = static_cast<int64_t>(static_cast<double>(sound.timeUs) / 1.0001) + kWall;
      worstReal = std::max(worstReal, std::abs(time.totalMicros() - real));
    }
  };
  for (int64_t real = 0; real < kHour; real += 40000) {
    if (real % (600 * kSecond) == 0) real += 3 * kSecond;
    const auto stamp = static_cast<int64_t>(static_cast<double>(real) * 1.0001);
    arrival = std::max<int64_t>(arrival, real + static_cast<int64_t>(random() % 200000));
    tarn::MediaPicture picture;
    picture.presentationUs = picture.decodeUs = stamp;
    picture.arrivalUs = arrival;
    live.add(std::move(picture));
    for (; timeOfFrame(frame) < stamp; ++frame) {
      tarn::MediaSound sound;
      sound.timeUs = timeOfFrame(frame);
      sound.samples = kSamples;
      sound.arrivalUs = arrival;
      live.addSound(std::move(sound), {tarn::SoundCodec::kAac, 1, kRate, {0x11, 0x88}});
    }
    take();
  }
  live.end();
  take();
  EXPECT_EQ(sounds, static_cast<uint64_t>(frame));
  EXPECT_LE(worst, kFrameUs);
  EXPECT_LE(worstReal, 100000 + kFrameUs);
}

class SoundStepInFile : public testing::Test {
 protected:
  // An hour of pictures, one a second, and of frames that the recorder timed by its own clock,
  // which goes `ppm` faster than the sound's; from 1000 s to 1010 s there is none.
  int64_t placeOf(int64_t frame) const { return frame * kSamples * kSecond / rate_; }
  bool isThere(int64_t frame) const {
    const int64_t us = placeOf(frame);
    return us < 1000 * kSecond || us >= 1010 * kSecond;
  }
  static tarn::PictureTime told(int64_t us, double ppm) {
    return tarn::PictureTime::fromMicros(
        kWall + static_cast<int64_t>(static_cast<double>(us) * (1 + ppm / 1e6)));
  }
  void write(const char* path, const tarn::SoundFormat& format, double ppm) {
    rate_ = format.sampleRate;
    std::string error;
    const auto output = tarn::MediaOutput::create(path, true, &error, 2);
    ASSERT_NE(output, nullptr) << error;
    tarn::OutputPicture picture;
    picture.key = true;
    picture.annexB = keyPicture(0);
    picture.presentation = told(0, 0);
    tarn::OutputSound sound;
    sound.format = format;
    sound.samples = kSamples;
    sound.time = told(0, ppm);
    ASSERT_TRUE(output->describe(0, picture)) << output->error();
    ASSERT_TRUE(output->describe(1, sound)) << output->error();
    int64_t frame = 0;
    for (uint32_t second = 0; second < 3600; ++second) {
      picture.annexB = keyPicture(second);
      picture.presentation = told(second * kSecond, 0);
      ASSERT_TRUE(output->write(picture, 0)) << output->error();
      for (; placeOf(frame) < (second + 1) * kSecond; ++frame) {
        if (!isThere(frame)) continue;
        sound.time = told(placeOf(frame), ppm);
        sound.frame.assign(format.codec == tarn::SoundCodec::kAac ? 12 : kSamples, 0x21);
        for (size_t i = 0; i < 4; ++i) sound.frame[4 + i] = static_cast<uint8_t>(frame >> (8 * i));
        ASSERT_TRUE(output->write(sound, 1)) << output->error();
      }
    }
    ASSERT_TRUE(output->finish()) << output->error();
    frames_ = frame;
  }
  int64_t frames_ = 0;
  uint32_t rate_ = kRate;
};

TEST_F(SoundStepInFile, FramesLieAtTheirTimesToHalfTheirLengthWhateverTheClocks) {
  for (const double ppm : {100.0, -100.0}) {
    write("/tmp/step.mp4", {tarn::SoundCodec::kAac, 1, kRate, {0x11, 0x88}}, ppm);
    std::string error;
    const auto input = tarn::MediaInput::open(
        "/tmp/step.mp4", 0, [] { return false; }, &error);
    ASSERT_NE(input, nullptr) << error;
    ASSERT_TRUE(input->wantSound());
    tarn::MediaPicture picture;
    tarn::MediaInput::Result result;
    int64_t frame = 0;
    int64_t worst = 0;
    int64_t gap = 0;
    int64_t end = 0;
    while ((result = input->next(&picture)) != tarn::MediaInput::Result::kEnd) {
      ASSERT_NE(result, tarn::MediaInput::Result::kError) << input->error();
      if (result != tarn::MediaInput::Result::kSound) continue;
      const tarn::MediaSound sound = input->takeSound();
      while (!isThere(frame)) ++frame;
      int64_t number = 0;
      for (size_t i = 0; i < 4; ++i) number |= int64_t{sound.frame.at(4 + i)} << (8 * i);
      ASSERT_EQ(number, frame);
      const int64_t own = told(placeOf(frame), ppm).totalMicros() - kWall;
      worst = std::max(worst, std::abs(sound.timeUs - own));
      gap = std::max(gap, sound.timeUs - end);
      end = sound.timeUs + kFrameUs;
      ++frame;
    }
    EXPECT_EQ(frame, frames_);
    EXPECT_LE(worst, kFrameUs / 2 + 100) << ppm;
    EXPECT_NEAR(static_cast<double>(gap), 10.0 * kSecond, 2.0 * kFrameUs) << "gaps stay gaps";
    unlink("/tmp/step.mp4");
  }
}

// Its samples have no times: what is missing is silence, what is too much is left out.
TEST_F(SoundStepInFile, SamplesOfG711LieAtTheirTimesToo) {
  for (const double ppm : {100.0, -100.0}) {
    write("/tmp/step.mov", {tarn::SoundCodec::kAlaw, 1, 8000, {}}, ppm);
    std::string error;
    const auto input = tarn::MediaInput::open(
        "/tmp/step.mov", 0, [] { return false; }, &error);
    ASSERT_NE(input, nullptr) << error;
    ASSERT_TRUE(input->wantSound());
    std::vector<uint8_t> all;
    tarn::MediaPicture picture;
    tarn::MediaInput::Result result;
    while ((result = input->next(&picture)) != tarn::MediaInput::Result::kEnd) {
      ASSERT_NE(result, tarn::MediaInput::Result::kError) << input->error();
      if (result != tarn::MediaInput::Result::kSound) continue;
      const tarn::MediaSound sound = input->takeSound();
      all.insert(all.end(), sound.frame.begin(), sound.frame.end());
    }
    const double length = 3600.0 * rate_ * (1 + ppm / 1e6);
    EXPECT_NEAR(static_cast<double>(all.size()), length, 2.0 * kSamples);
    const size_t middle = size_t{1005} * rate_;
    ASSERT_GT(all.size(), middle);
    EXPECT_EQ(all[middle], 0xD5) << "silence where there is none";
    EXPECT_EQ(all[middle / 2], 0x21);
    unlink("/tmp/step.mov");
  }
}

}  // namespace
}  // namespace tarn_test
