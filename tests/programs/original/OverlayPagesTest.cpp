#include <gtest/gtest.h>

#include <cerrno>
#include <random>

#include "programs/original/MemoryOriginal.h"
#include "programs/tarn/original/OverlayPages.h"
#include "support/CardImage.h"

namespace tarn_test {
namespace {

using tarn::OverlayPages;
using Bytes = std::vector<uint8_t>;

constexpr size_t kPage = OverlayPages::kPageBytes;

struct OverlayPagesTest : ::testing::Test {
  Bytes at(uint64_t offset, size_t length) {
    Bytes out(length, 0xEE);
    const ssize_t got = pages.read(offset, out.data(), length);
    out.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return out;
  }
  Bytes part(uint64_t offset, size_t length) const {
    const auto from = before.begin() + static_cast<std::ptrdiff_t>(offset);
    return Bytes(from, from + static_cast<std::ptrdiff_t>(length));
  }

  // Neither whole pages nor whole sectors.
  const Bytes before = patternBytes(10 * kPage + 700);
  MemoryOriginal original{before};
  OverlayPages pages{&original, 4 * kPage};
};

TEST_F(OverlayPagesTest, ReadsTheOriginalUpToItsEnd) {
  EXPECT_EQ(at(0, before.size() + 5), before);
  EXPECT_EQ(at(kPage - 3, 9), part(kPage - 3, 9));
  EXPECT_EQ(at(before.size(), 1), Bytes());
  EXPECT_EQ(at(before.size() + 100, 1), Bytes());
}

TEST_F(OverlayPagesTest, KeepsWhatIsWrittenAndNeverTouchesTheOriginal) {
  EXPECT_EQ(pages.write(kPage - 10, "hello, and some more of it", 26), 26);
  Bytes expected = before;
  memcpy(expected.data() + kPage - 10, "hello, and some more of it", 26);
  EXPECT_EQ(at(0, before.size()), expected);
  EXPECT_EQ(original.bytes, before);
}

TEST_F(OverlayPagesTest, IsLikeAFileForAnyOrderOfReadsAndWrites) {
  OverlayPages large(&original);
  Bytes model = before;
  std::mt19937 random(7);
  for (int i = 0; i < 3000; ++i) {
    const size_t offset = random() % model.size();
    const size_t length = std::min<size_t>(random() % (2 * kPage), model.size() - offset);
    if (i % 3 == 0) {
      const Bytes data = patternBytes(length, static_cast<uint32_t>(i));
      ASSERT_EQ(large.write(offset, data.data(), length), static_cast<ssize_t>(length));
      std::copy(data.begin(), data.end(), model.begin() + static_cast<std::ptrdiff_t>(offset));
    } else {
      Bytes out(length);
      ASSERT_EQ(large.read(offset, out.data(), length), static_cast<ssize_t>(length));
      ASSERT_TRUE(
          std::equal(out.begin(), out.end(), model.begin() + static_cast<std::ptrdiff_t>(offset)))
          << "step " << i;
    }
  }
  EXPECT_EQ(original.bytes, before);
}

TEST_F(OverlayPagesTest, GivesWhatIsInFrontOfARefusedPlaceAndThenAnErrorNeverZeros) {
  original.refusedFrom = original.refusedTo = 3 * kPage + 512;
  original.refusedTo += 512;
  EXPECT_EQ(at(kPage, 5 * kPage), part(kPage, 2 * kPage));
  char byte = 0;
  EXPECT_EQ(pages.read(3 * kPage + 600, &byte, 1), -EIO);
  EXPECT_EQ(at(3 * kPage, 512), part(3 * kPage, 512));
  EXPECT_EQ(at(3 * kPage + 1024, kPage), part(3 * kPage + 1024, kPage));
}

TEST_F(OverlayPagesTest, TakesWholeSectorsWhereTheOriginalRefusesAndNoPartsOfThem) {
  original.refusedFrom = kPage;
  original.refusedTo = 2 * kPage;
  const Bytes sector = patternBytes(512, 9);
  EXPECT_EQ(pages.write(kPage + 512, sector.data(), 100), -EIO);
  EXPECT_EQ(pages.write(kPage + 512, sector.data(), 512), 512);
  EXPECT_EQ(at(kPage + 512, 512), sector);
  EXPECT_EQ(pages.write(kPage + 600, "x", 1), 1) << "now it is known what surrounds it";
  char byte = 0;
  EXPECT_EQ(pages.read(kPage, &byte, 1), -EIO) << "the sector beside is as refused as before";
}

TEST_F(OverlayPagesTest, SaysThatTheMemoryIsUsedUpAndKeepsWhatIsThere) {
  const Bytes data = patternBytes(6 * kPage, 3);
  EXPECT_FALSE(pages.isFull());
  EXPECT_EQ(pages.write(0, data.data(), data.size()), static_cast<ssize_t>(4 * kPage));
  EXPECT_EQ(pages.write(4 * kPage, data.data(), 1), -ENOSPC);
  EXPECT_TRUE(pages.isFull());
  EXPECT_EQ(pages.write(100, "again", 5), 5) << "what is in memory already";
  EXPECT_EQ(at(4 * kPage, 100), part(4 * kPage, 100));
  EXPECT_EQ(pages.write(before.size(), "x", 1), -ENOSPC) << "a card does not grow";
}

}  // namespace
}  // namespace tarn_test
