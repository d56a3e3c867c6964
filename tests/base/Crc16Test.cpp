#include "base/Crc16.h"

#include <gtest/gtest.h>

#include <numeric>
#include <string>
#include <vector>

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

TEST(Crc16, PiecesGiveTheSameAsTheWhole) {
  const std::string text = "journal record in two pieces, unaligned";
  const uint16_t first = tarn::crc16(text.data(), 13);
  EXPECT_EQ(tarn::crc16(text.data() + 13, text.size() - 13, first),
            tarn::crc16(text.data(), text.size()));
}

}  // namespace
