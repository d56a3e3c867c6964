// Single bits of boot sector, info file and root directory of a card with recordings: start, list,
// repair, and the damage undone. A few of them; tests/damage takes all.
#include "recorder/CheckRig.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/CardRepair.h"
#include "recorder/recovery/Recovery.h"

namespace {

using namespace tarn_test;

class GeometryDamageTest : public CheckRig {
 protected:
  void SetUp() override {
    CheckRig::SetUp();
    // A start on the whole card, so that what a start changes is on it.
    good_ = start();
    ASSERT_EQ(good_.size(), 3u);
    before_ = wholeCard();
  }

  // The keys that a start lists; none when it refuses.
  std::vector<uint32_t> start() {
    unlink("/tmp/DB.dat");
    error_ = tarn::Recovery().run().error;
    std::vector<uint32_t> keys;
    if (!error_.empty()) return keys;
    for (const DB_STREAM& row : allStreams()) keys.push_back(row.streamID);
    return keys;
  }

  // Each flipped bit either changes nothing for the recorder or stops it before its first write;
  // what is stopped is mended, and nothing is lost in either.
  void flipBits(uint64_t from, uint64_t length, uint64_t step) {
    for (uint64_t bit = 0; bit < length * 8; bit += step) flipBit(from, bit);
    EXPECT_TRUE(wholeCard() == before_);
  }

  void flipBit(uint64_t from, uint64_t bit) {
    SCOPED_TRACE("byte " + std::to_string(from + bit / 8) + " bit " + std::to_string(bit % 8));
    const uint64_t at = from + bit / 8;
    const Bytes byte = read(at, 1);
    const auto flipped = static_cast<uint8_t>(byte[0] ^ (1 << (bit % 8)));
    write(at, {flipped});
    const std::vector<uint32_t> listed = start();
    if (error_.empty()) {
      ++passed_;
      EXPECT_EQ(listed, good_);
    } else {
      ++refused_;
      EXPECT_NE(error_.find("nothing was written"), std::string::npos) << error_;
      mend();
    }
    write(at, byte);
    if (refused_ % 16 == 1) {
      EXPECT_EQ(start(), good_);
    }
  }

  void mend() {
    tarn::CardRepair repair;
    std::string error;
    ASSERT_EQ(repair.plan(kCardPath, &error), 0) << error;
    ASSERT_FALSE(repair.steps().empty()) << error_;
    ASSERT_EQ(repair.apply("/tmp/undo", &error), 0) << error;
    unlink("/tmp/undo");
    EXPECT_TRUE(tarn::CardGeometry::verify(kCardPath, tarn::GeometryDepth::kWhole).ok());
    EXPECT_EQ(start(), good_);
  }

  std::vector<uint32_t> good_;
  Bytes before_;
  std::string error_;
  uint32_t passed_ = 0;
  uint32_t refused_ = 0;
};

TEST_F(GeometryDamageTest, NoBitOfTheBootSectorLosesARecording) {
  flipBits(0, 512, 601);
  EXPECT_GT(passed_, 0u);
  flipBits(13, 4, 11);
  EXPECT_GT(refused_, 0u);
}

TEST_F(GeometryDamageTest, NoBitOfTheInfoFileLosesARecording) {
  flipBits(chunkByte(tarn::kFileInfo, 0), 770, 1201);
  EXPECT_EQ(passed_, 0u);  // the seal sees each of them
  EXPECT_GT(refused_, 0u);
}

TEST_F(GeometryDamageTest, NoBitOfTheRootDirectoryLosesARecording) {
  const uint64_t data =
      (uint64_t{tarn::getLe16(before_.data() + 14)} + 2ull * tarn::getLe32(before_.data() + 36)) *
      512;
  flipBits(data, 27 * 32, 999);
  EXPECT_GT(passed_, 0u);
  EXPECT_GT(refused_, 0u);
}

}  // namespace
