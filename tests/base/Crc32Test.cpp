#include <gtest/gtest.h>

#include <vector>

#include "base/Crc32.h"

namespace tarn_test {
namespace {

// The definition, one bit at a time, to hold the table version against.
uint32_t bitwiseCrc(const uint8_t* data, size_t length) {
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 0; i < length; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) != 0 ? 0xEDB88320u : 0);
  }
  return ~crc;
}

TEST(Crc32, EveryLengthFromEveryPlaceAgreesWithTheBitwiseDefinition) {
  std::vector<uint8_t> data(100);
  uint32_t state = 1;
  for (auto& byte : data) byte = static_cast<uint8_t>((state = state * 1103515245 + 12345) >> 16);
  for (size_t begin = 0; begin < 4; ++begin) {
    for (size_t length = 0; begin + length <= data.size(); ++length) {
      ASSERT_EQ(tarn::crc32(data.data() + begin, length), bitwiseCrc(data.data() + begin, length))
          << begin << " " << length;
    }
  }
}

TEST(Crc32, HasTheCheckValueAndTakesDataInPieces) {
  EXPECT_EQ(tarn::crc32("123456789", 9), 0xCBF43926u);
  EXPECT_EQ(tarn::crc32("56789", 5, tarn::crc32("1234", 4)), 0xCBF43926u);
  EXPECT_EQ(tarn::crc32("", 0), 0u);
}

}  // namespace
}  // namespace tarn_test
