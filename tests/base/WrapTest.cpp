#include "base/Wrap.h"

#include <gtest/gtest.h>

#include "base/Endian.h"

namespace {

TEST(Wrap, AdditionAndSubtractionWrapAt32Bits) {
  EXPECT_EQ(tarn::wrapAdd32(0xFFFFFFFFu, 2), 1u);
  EXPECT_EQ(tarn::wrapSub32(1, 2), 0xFFFFFFFFu);
  EXPECT_EQ(tarn::wrapMul32(0x80000001u, 2), 2u);
}

TEST(Ring, AddressThatReachesTheEndIsZero) {
  EXPECT_EQ(tarn::ringAdvance(4000, 96, 4096), 0u);
  EXPECT_EQ(tarn::ringAdvance(4000, 200, 4096), 104u);
  EXPECT_EQ(tarn::ringAdvance(0, 4095, 4096), 4095u);
  EXPECT_EQ(tarn::ringAdvance(0, 4096, 4096), 0u);
}

TEST(Ring, EqualAddressesMeanEmpty) {
  EXPECT_EQ(tarn::ringFree(1000, 1000, 4096), 4096u);
  EXPECT_EQ(tarn::ringFree(1000, 1001, 4096), 4095u);
  EXPECT_EQ(tarn::ringFree(1001, 1000, 4096), 1u);
}

TEST(Endian, NumbersAreStoredLowByteFirst) {
  unsigned char bytes[8] = {};
  tarn::putLe32(bytes, 0x01020304u);
  EXPECT_EQ(bytes[0], 4);
  EXPECT_EQ(bytes[3], 1);
  tarn::putLe16(bytes, 0xFFFEu);
  EXPECT_EQ(tarn::getLe16(bytes), 0xFFFEu);
  tarn::putLe64(bytes, 0x1122334455667788ull);
  EXPECT_EQ(bytes[0], 0x88);
  EXPECT_EQ(tarn::getLe64(bytes), 0x1122334455667788ull);
}

}  // namespace
