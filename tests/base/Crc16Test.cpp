#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

#include "base/Crc16.h"
#include "base/Crc16Fold.h"

namespace {

// The definition, one bit at a time, to hold the table version against.
uint16_t bitwiseCrc(const std::vector<uint8_t>& data) {
  uint16_t crc = 0;
  for (uint8_t byte : data) {
    crc = static_cast<uint16_t>(crc ^ (byte << 8));
    for (int i = 0; i < 8; ++i)
      crc = static_cast<uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
  }
  return crc;
}

TEST(Crc16, CheckStringGives31C3) { EXPECT_EQ(tarn::crc16("123456789", 9), 0x31C3); }

TEST(Crc16, NothingGivesZero) { EXPECT_EQ(tarn::crc16("", 0), 0); }

TEST(Crc16, EveryLengthAgreesWithTheBitwiseDefinition) {
  std::vector<uint8_t> data(300);
  uint32_t state = 1;
  for (auto& byte : data) byte = static_cast<uint8_t>((state = state * 1103515245 + 12345) >> 16);
  for (size_t length = 0; length <= data.size(); ++length) {
    const std::vector<uint8_t> part(data.begin(), data.begin() + static_cast<long>(length));
    ASSERT_EQ(tarn::crc16(part.data(), length), bitwiseCrc(part)) << "length " << length;
  }
}

std::vector<uint8_t> noise(size_t length) {
  std::vector<uint8_t> data(length);
  uint32_t state = 7;
  for (auto& byte : data) byte = static_cast<uint8_t>((state = state * 1103515245 + 12345) >> 16);
  return data;
}

uint16_t crcInPieces(const uint8_t* data, size_t length, uint16_t crc) {
  for (size_t done = 0; done < length; done += 100) {
    crc = tarn::crc16(data + done, std::min<size_t>(100, length - done), crc);
  }
  return crc;
}

// Long data goes another way where the processor has one: every end of its steps, every alignment.
TEST(Crc16, LongDataAgreesWithItsPieces) {
  const std::vector<uint8_t> data = noise(2600);
  for (size_t length = 500; length + 33 <= data.size(); length += 7) {
    const uint8_t* at = data.data() + length % 33;
    ASSERT_EQ(tarn::crc16(at, length, 0xBEEF), crcInPieces(at, length, 0xBEEF)) << length;
  }
  EXPECT_EQ(tarn::crc16(data.data(), data.size()), bitwiseCrc(data));
}

// Of the ways that this processor has, the fastest one is not the only one.
TEST(Crc16, EveryWayToFoldLeavesTheSameChecksum) {
  const std::vector<uint8_t> data = noise(1500);
  for (int way = 0; way < tarn::kCrc16FoldWays; ++way) {
    const tarn::Crc16Fold fold = tarn::crc16Fold(way);
    if (fold == nullptr) continue;
    for (size_t length = tarn::kCrc16FoldLeast; length <= data.size(); length += 13) {
      uint8_t rest[tarn::kCrc16FoldRest];
      const size_t front = fold(data.data(), length, 0x1234, rest);
      ASSERT_GT(front, length / 2);
      ASSERT_LE(front, length);
      ASSERT_EQ(tarn::crc16(rest, sizeof rest), crcInPieces(data.data(), front, 0x1234))
          << "way " << way << ", length " << length;
    }
  }
}

TEST(Crc16, PiecesGiveTheSameAsTheWhole) {
  const std::string text = "journal record in two pieces, unaligned";
  const uint16_t first = tarn::crc16(text.data(), 13);
  EXPECT_EQ(tarn::crc16(text.data() + 13, text.size() - 13, first),
            tarn::crc16(text.data(), text.size()));
}

}  // namespace
