// Which bytes tell whether a picture is the one that its entry means.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "base/Crc16.h"
#include "recorder/recording/AnnexB.h"
#include "recorder/recording/PictureStamp.h"
#include "recorder/recording/SoundBlockBuilder.h"

namespace {

using tarn::Delivery;
using tarn::PictureEntry;
using tarn::PictureProof;
using tarn::PictureStamp;

constexpr uint32_t kChunk = 1024 * 1024;
constexpr uint32_t kPlace = 700000;  // its data goes over the chunk's end
constexpr uint32_t kSeconds = 1700000000;

// A stream chunk in memory with one picture, which counts what is read and refuses what it is told
// to.
class PictureInMemory : public tarn::Source {
 public:
  explicit PictureInMemory(uint32_t pictureSize) : bytes_(kChunk) {
    size_ = kChunk;
    sharePatience(&noPatience_);
    std::vector<uint8_t> picture(pictureSize);
    for (uint32_t i = 0; i < pictureSize; ++i) picture[i] = static_cast<uint8_t>(i * 31 | 1);
    tarn::makeTimeStampSei(kSeconds, picture.data());
    put(picture);
  }
  void put(const std::vector<uint8_t>& data) {
    entry.dataOffset = kPlace;
    entry.size = static_cast<uint32_t>(data.size());
    entry.presentation.seconds = kSeconds;
    entry.checksum = tarn::pictureChecksum(tarn::crc16(data.data(), data.size()));
    for (uint32_t i = 0; i < entry.size; ++i) bytes_[(kPlace + i) % kChunk] = data[i];
  }

  void damage(uint32_t at) { bytes_[(kPlace + at) % kChunk] ^= 0x40; }
  void refuse(uint32_t at) { refused_ = (kPlace + at) % kChunk; }
  uint64_t bytesRead() const { return read_; }

  PictureEntry entry;

 protected:
  bool readPiece(uint32_t offset, void* out, uint32_t length) override {
    if (refused_ >= offset && refused_ - offset < length) return false;
    memcpy(out, bytes_.data() + offset, length);
    read_ += length;
    return true;
  }

 private:
  std::vector<uint8_t> bytes_;
  uint32_t noPatience_ = 0;
  uint64_t refused_ = UINT64_MAX;
  uint64_t read_ = 0;
};

class PictureProofTest : public ::testing::TestWithParam<uint32_t> {
 protected:
  PictureInMemory stream_{GetParam()};
  PictureProof proof_{&stream_};
  Delivery prove(PictureStamp stamp = PictureStamp::kPicture) {
    return proof_.prove(stream_.entry, stamp);
  }
};

// Of one piece, and of several that reach over the chunk's end.
INSTANTIATE_TEST_SUITE_P(Sizes, PictureProofTest, ::testing::Values(5000u, 500000u));

TEST_P(PictureProofTest, EachByteOfAPictureIsReadOnce) {
  EXPECT_EQ(prove(), Delivery::kGood);
  EXPECT_EQ(stream_.bytesRead(), GetParam());
}

TEST_P(PictureProofTest, DamageAnywhereShows) {
  for (const uint32_t at : {0u, 60u, GetParam() / 2, GetParam() - 1}) {
    stream_.damage(at);
    EXPECT_EQ(prove(), Delivery::kBad) << at;
    EXPECT_EQ(prove(PictureStamp::kNone), Delivery::kBad) << at;
    stream_.damage(at);
  }
}

TEST_P(PictureProofTest, AnotherPicturesTimeShowsThoughItsBytesAreWhole) {
  stream_.entry.presentation.seconds += 1;
  EXPECT_EQ(prove(), Delivery::kBad);
  EXPECT_EQ(proof_.look(stream_.entry, PictureStamp::kPicture), Delivery::kBad);
  EXPECT_EQ(prove(PictureStamp::kNone), Delivery::kGood);
}

TEST_P(PictureProofTest, WhatIsRefusedProvesNothing) {
  for (const uint32_t at : {0u, 4000u, GetParam() - 1}) {
    stream_.refuse(at);
    EXPECT_EQ(prove(), Delivery::kRefused) << at;
  }
}

TEST_P(PictureProofTest, AnotherPicturesTimeShowsWhereTheRestIsRefused) {
  stream_.entry.presentation.seconds += 1;
  for (const uint32_t at : {4000u, GetParam() - 1}) {
    stream_.refuse(at);
    EXPECT_EQ(prove(), Delivery::kBad) << at;
  }
}

TEST_P(PictureProofTest, WithoutAChecksumTheStampAloneIsLookedAt) {
  stream_.entry.checksum = 0;
  stream_.damage(GetParam() - 1);
  EXPECT_EQ(prove(), Delivery::kGood);
  EXPECT_LT(stream_.bytesRead(), 1000u);
  EXPECT_EQ(prove(PictureStamp::kNone), Delivery::kGood);
}

TEST_P(PictureProofTest, SoundWithoutABlocksHeadIsProvedByItsChecksum) {
  EXPECT_EQ(prove(PictureStamp::kSound), Delivery::kGood);
  EXPECT_EQ(proof_.look(stream_.entry, PictureStamp::kSound), Delivery::kGood);
  stream_.damage(GetParam() / 2);
  EXPECT_EQ(prove(PictureStamp::kSound), Delivery::kBad);
  EXPECT_EQ(proof_.look(stream_.entry, PictureStamp::kSound), Delivery::kBad);
}

TEST_P(PictureProofTest, SoundHasItsTimeInItsBlocksHead) {
  tarn::SoundBlockBuilder builder;
  builder.setFormat({tarn::SoundCodec::kAlaw, 1, 8000, {}});
  const std::vector<uint8_t> frame(GetParam() / 10, 0x55);
  for (uint32_t i = 0; i < 10; ++i) {
    builder.add(frame.data(), frame.size(), GetParam() / 10, {kSeconds, 0});
  }
  stream_.put(builder.bytes());
  EXPECT_EQ(prove(PictureStamp::kSound), Delivery::kGood);
  EXPECT_EQ(stream_.bytesRead(), builder.bytes().size());
  stream_.entry.presentation.micros = 1;
  EXPECT_EQ(prove(PictureStamp::kSound), Delivery::kBad);
  EXPECT_EQ(proof_.look(stream_.entry, PictureStamp::kSound), Delivery::kBad);
  EXPECT_EQ(prove(PictureStamp::kNone), Delivery::kGood);
}

}  // namespace
