#include "base/Crc32.h"

#include <gtest/gtest.h>

namespace tarn_test {
namespace {

TEST(Crc32, HasTheCheckValueAndTakesDataInPieces) {
  EXPECT_EQ(tarn::crc32("123456789", 9), 0xCBF43926u);
  EXPECT_EQ(tarn::crc32("56789", 5, tarn::crc32("1234", 4)), 0xCBF43926u);
  EXPECT_EQ(tarn::crc32("", 0), 0u);
}

}  // namespace
}  // namespace tarn_test
