#include <gtest/gtest.h>

#include "base/Endian.h"
#include "programs/original/MemoryOriginal.h"
#include "programs/tarn/original/PartitionTable.h"

namespace tarn_test {
namespace {

using tarn::PartitionTable;
using Bytes = std::vector<uint8_t>;
using Kind = PartitionTable::Kind;

constexpr size_t kSector = 512;
constexpr size_t kSectors = 4096;

void entry(Bytes* device, size_t sector, size_t place, uint8_t type, uint32_t first,
           uint32_t sectors) {
  uint8_t* at = device->data() + sector * kSector + 446 + 16 * place;
  at[4] = type;
  tarn::putLe32(at + 8, first);
  tarn::putLe32(at + 12, sectors);
  tarn::putLe16(device->data() + sector * kSector + 510, 0xAA55);
}

PartitionTable tableOf(const Bytes& device) {
  MemoryOriginal original(device);
  return PartitionTable::read(&original);
}

struct PartitionTableTest : ::testing::Test {
  Bytes device = Bytes(kSectors * kSector);
};

TEST_F(PartitionTableTest, NoneWhereThereIsNone) {
  EXPECT_EQ(tableOf(device).kind(), Kind::kNone);
  EXPECT_EQ(tableOf(Bytes(100)).kind(), Kind::kNone);
  entry(&device, 0, 0, 0x0C, 2048, 100);
  device[446 + 16] = 0x33;  // boot code, no table
  EXPECT_EQ(tableOf(device).kind(), Kind::kNone);
}

TEST_F(PartitionTableTest, PrimaryOnesKeepTheirNumbersAndLogicalOnesFollow) {
  entry(&device, 0, 1, 0x0C, 8, 100);
  entry(&device, 0, 3, 0x0F, 1000, 3000);
  entry(&device, 1000, 0, 0x0C, 8, 50);
  entry(&device, 1000, 1, 0x05, 500, 100);
  entry(&device, 1500, 0, 0x0C, 16, 60);
  const PartitionTable table = tableOf(device);
  ASSERT_EQ(table.kind(), Kind::kMbr);
  ASSERT_EQ(table.partitions().size(), 3u);
  EXPECT_EQ(table.partitions()[0].number, 2);
  EXPECT_EQ(table.partitions()[0].firstByte, 8 * kSector);
  EXPECT_EQ(table.partitions()[0].bytes, 100 * kSector);
  EXPECT_EQ(table.partitions()[1].number, 5);
  EXPECT_EQ(table.partitions()[1].firstByte, 1008 * kSector);
  EXPECT_EQ(table.partitions()[2].number, 6);
  EXPECT_EQ(table.partitions()[2].firstByte, 1516 * kSector);
}

TEST_F(PartitionTableTest, EndsOnAChainThatLeadsInACircleAndPassesOverWhatLiesOutside) {
  entry(&device, 0, 0, 0x0F, 1000, 3000);
  entry(&device, 0, 1, 0x0C, kSectors, 5);
  entry(&device, 1000, 0, 0x0C, 8, 50);
  entry(&device, 1000, 1, 0x05, 100, 100);
  entry(&device, 1100, 0, 0x0C, 8, 0xFFFFFFFF);
  entry(&device, 1100, 1, 0x05, 100, 100);
  const PartitionTable table = tableOf(device);
  ASSERT_GT(table.partitions().size(), 1u);
  ASSERT_LT(table.partitions().size(), 100u);
  EXPECT_EQ(table.partitions()[1].bytes, (kSectors - 1108) * kSector) << "cut at the device's end";
}

TEST_F(PartitionTableTest, AGptGoesBeforeTheMbrThatProtectsIt) {
  entry(&device, 0, 0, 0xEE, 1, 0xFFFFFFFF);
  EXPECT_EQ(tableOf(device).kind(), Kind::kNone);
  uint8_t* header = device.data() + kSector;
  memcpy(header, "EFI PART", 8);
  tarn::putLe32(header + 72, 2);
  tarn::putLe32(header + 80, 0xFFFFFFFF);  // far more than there are
  tarn::putLe32(header + 84, 256);
  uint8_t* third = device.data() + 2 * kSector + 2 * 256;
  third[0] = 1;
  tarn::putLe32(third + 32, 2048);
  tarn::putLe32(third + 40, 2147);
  const PartitionTable table = tableOf(device);
  ASSERT_EQ(table.kind(), Kind::kGpt);
  ASSERT_EQ(table.partitions().size(), 1u);
  EXPECT_EQ(table.partitions()[0].number, 3);
  EXPECT_EQ(table.partitions()[0].firstByte, 2048 * kSector);
  EXPECT_EQ(table.partitions()[0].bytes, 100 * kSector);
}

}  // namespace
}  // namespace tarn_test
