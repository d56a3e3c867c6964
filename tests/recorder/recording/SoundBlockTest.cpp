#include <gtest/gtest.h>

#include "recorder/SoundRig.h"
#include "recorder/recording/SoundBlock.h"
#include "recorder/recording/SoundBlockBuilder.h"

using namespace tarn_test;

namespace tarn {
namespace {

Bytes blockOf(uint32_t frames, SoundBlockBuilder* builder) {
  builder->setFormat(soundFormat());
  for (uint32_t i = 0; i < frames; ++i) {
    const Bytes frame = soundBytes(i, 100 + i);
    builder->add(frame.data(), frame.size(), kFrameSamples, soundTime(i));
  }
  return builder->bytes();
}

TEST(SoundBlock, GivesFramesTimesAndFormatAsTheyWentIn) {
  SoundBlockBuilder builder;
  const Bytes bytes = blockOf(20, &builder);
  EXPECT_EQ(builder.sizeWith(10), bytes.size() + 14);
  SoundBlock block;
  ASSERT_TRUE(block.decode(bytes.data(), bytes.size()));
  EXPECT_TRUE(block.format() == soundFormat());
  EXPECT_EQ(block.start().totalMicros(), soundTime(0).totalMicros());
  EXPECT_EQ(block.end().totalMicros(), soundTime(20).totalMicros());
  ASSERT_EQ(block.frames().size(), 20u);
  for (uint32_t i = 0; i < 20; ++i) {
    const SoundFrame& frame = block.frames()[i];
    EXPECT_EQ(Bytes(frame.data, frame.data + frame.size), soundBytes(i, 100 + i));
    EXPECT_EQ(frame.time.totalMicros(), soundTime(i).totalMicros());
    EXPECT_EQ(frame.samples, kFrameSamples);
  }
}

// The bytes are promised to those who read cards without this library.
TEST(SoundBlock, HasTheBytesOfTheFormat) {
  SoundBlockBuilder builder;
  builder.setFormat({SoundCodec::kAlaw, 1, 8000, {}});
  const uint8_t frame[] = {0xD5, 0x55, 0xAA};
  builder.add(frame, sizeof frame, 3, {0x01020304, 0x00050607});
  const Bytes expected = {'T', 'S',  'N',  'D',  1,    2,    1,    0,    0x40, 0x1F, 0,
                          0,   0x04, 0x03, 0x02, 0x01, 0x07, 0x06, 0x05, 0,    1,    0,
                          0,   0,    3,    0,    3,    0,    0xD5, 0x55, 0xAA};
  EXPECT_EQ(builder.bytes(), expected);
}

TEST(SoundBlock, RefusesWhatIsNoWholeBlock) {
  SoundBlockBuilder builder;
  const Bytes bytes = blockOf(3, &builder);
  SoundBlock block;
  for (size_t size = 0; size < bytes.size(); ++size) {
    const Bytes part(bytes.begin(), bytes.begin() + static_cast<long>(size));
    ASSERT_FALSE(block.decode(part.data(), part.size())) << size;
    ASSERT_TRUE(block.frames().empty()) << size;
  }
  Bytes longer = bytes;
  longer.push_back(0);
  EXPECT_FALSE(block.decode(longer.data(), longer.size()));
  for (const size_t place : {size_t{0}, size_t{4}, size_t{6}, size_t{7}, size_t{19}, size_t{20}}) {
    Bytes other = bytes;
    other[place] = place == 6 ? uint8_t{0} : static_cast<uint8_t>(other[place] + 0x37);
    EXPECT_FALSE(block.decode(other.data(), other.size())) << place;
  }
}

TEST(SoundBlock, AFrameThatIsMissingEndsIt) {
  SoundBlockBuilder builder;
  blockOf(5, &builder);
  EXPECT_TRUE(builder.continues(soundTime(5), kFrameSamples));
  const auto moved = [](int64_t us) {
    return PictureTime::fromMicros(soundTime(5).totalMicros() + us);
  };
  EXPECT_TRUE(builder.continues(moved(5000), kFrameSamples)) << "jitter of a stamp";
  EXPECT_TRUE(builder.continues(moved(-5000), kFrameSamples));
  EXPECT_FALSE(builder.continues(moved(6000), kFrameSamples));
  EXPECT_FALSE(builder.continues(moved(-6000), kFrameSamples));
  EXPECT_FALSE(builder.continues(soundTime(6), kFrameSamples));
}

TEST(SoundBlock, LengthsThatAreNoWholeMicrosecondsDoNotAddUp) {
  SoundBlockBuilder builder;
  builder.setFormat({SoundCodec::kAac, 1, 44100, {0x12, 0x08}});
  const uint8_t byte = 0;
  for (uint32_t i = 0; i < 60000; ++i) builder.add(&byte, 1, 1024, {kStart, 0});
  EXPECT_EQ(builder.micros(), 1393197279);
}

}  // namespace
}  // namespace tarn
