#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "recorder/card/CardLayout.h"

namespace tarn {
namespace {

using ::testing::HasSubstr;

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kMiB = 1024 * kKiB;
constexpr uint64_t kGiB = 1024 * kMiB;

CardRequest requestOf(uint64_t bytes, const std::string& profile = "default") {
  CardRequest request;
  request.sizeBytes = bytes;
  request.profile = profile;
  return request;
}

CardLayout planned(const CardRequest& request) {
  CardLayout layout;
  std::string error;
  EXPECT_EQ(layout.plan(request, &error), 0) << error;
  return layout;
}

std::string refusal(const CardRequest& request) {
  CardLayout layout;
  std::string error;
  EXPECT_EQ(layout.plan(request, &error), -1) << "was not refused";
  return error;
}

std::string refusalOfSize(int type, uint64_t chunkSize, uint64_t cardBytes = 256 * kMiB) {
  CardRequest request = requestOf(cardBytes);
  request.families[static_cast<size_t>(type)].chunkSize = chunkSize;
  return refusal(request);
}

std::string refusalOfCount(int type, uint64_t chunks, uint64_t cardBytes = 256 * kMiB) {
  CardRequest request = requestOf(cardBytes);
  request.families[static_cast<size_t>(type)].chunks = chunks;
  return refusal(request);
}

// What holds for every layout.
void expectSound(const CardLayout& layout) {
  EXPECT_GE(layout.clusters(), CardLayout::kMinClusters);
  EXPECT_LE(layout.clusters(), CardLayout::kMaxClusters);
  EXPECT_GE(uint64_t{layout.fatSectors()} * 128, uint64_t{layout.clusters()} + 2);
  EXPECT_EQ(layout.dataByte() % CardLayout::kAlignBytes, 0u);
  EXPECT_LE(layout.dataByte() + uint64_t{layout.clusters()} * layout.clusterBytes(),
            layout.sizeBytes());
  EXPECT_GT(layout.rootBytes(), uint64_t{layout.rootEntries()} * 32);
  uint64_t end = layout.dataByte() + layout.rootBytes();
  for (int type = 0; type < kFileTypeCount; ++type) {
    const CardFamily& family = layout.family(type);
    EXPECT_EQ(family.startByte() % CardLayout::kAlignBytes, 0u) << CardLayout::familyName(type);
    EXPECT_EQ(family.chunkSize % layout.clusterBytes(), 0u) << CardLayout::familyName(type);
    EXPECT_GE(family.startByte(), end) << CardLayout::familyName(type);
    EXPECT_GE(family.chunks, 1u);
    end = family.startByte() + family.bytes();
  }
  EXPECT_EQ(layout.endByte(), end);
  EXPECT_LE(end, layout.dataByte() + uint64_t{layout.clusters()} * layout.clusterBytes());
  EXPECT_EQ(layout.family(kFileStream).chunks, layout.family(kFilePicture).chunks);
  EXPECT_EQ(layout.family(kFileStream).chunkSize % 65536, 0u);
}

TEST(CardLayoutTest, EveryProfileSuitsEverySizeFromTheSmallestCardToTwoTerabytes) {
  for (const CardProfile& profile : CardLayout::profiles()) {
    for (uint64_t size :
         {33 * kMiB, 34 * kMiB, 64 * kMiB, 100 * kMiB + 512, 256 * kMiB, 260 * kMiB, 512 * kMiB,
          kGiB, 4 * kGiB, 8 * kGiB, 64 * kGiB, 512 * kGiB, 2048 * kGiB - 512}) {
      SCOPED_TRACE(std::string(profile.name) + " " + std::to_string(size));
      const CardLayout layout = planned(requestOf(size, profile.name));
      expectSound(layout);
      // By default every single chunk starts aligned.
      for (int type = 0; type < kFileTypeCount; ++type) {
        EXPECT_EQ(layout.family(type).chunkSize % CardLayout::kAlignBytes, 0u);
      }
      // No profile wastes the room of another chunk on a large card.
      const uint64_t pair =
          uint64_t{layout.family(kFileStream).chunkSize} + layout.family(kFilePicture).chunkSize;
      EXPECT_LT(layout.sizeBytes() - layout.endByte(), pair + kMiB);
    }
  }
}

TEST(CardLayoutTest, A256MiBCardHasADozenStreamChunksAndScaledJournals) {
  const CardLayout layout = planned(requestOf(256 * kMiB));
  EXPECT_EQ(layout.clusterBytes(), 2048u);
  EXPECT_EQ(layout.family(kFileStream).chunks, 15u);
  EXPECT_EQ(layout.family(kFileStream).chunkSize, 16 * kMiB);
  EXPECT_EQ(layout.family(kFilePicture).chunkSize, 256 * kKiB);
  EXPECT_EQ(layout.family(kFileJournal).chunks, 4u);
  EXPECT_EQ(layout.family(kFileJournal).chunkSize, kMiB);
  EXPECT_EQ(layout.family(kFileSyslog).chunks, 5u);
  EXPECT_EQ(layout.family(kFileSyslog).chunkSize, 256 * kKiB);
  EXPECT_EQ(layout.family(kFileDbImage).chunkSize, 4 * kMiB);
  EXPECT_EQ(layout.family(kFileInfo).chunks, 1u);
  EXPECT_EQ(layout.family(kFileStreamManage).chunks, 2u);
}

TEST(CardLayoutTest, A64GiBCardHasFullJournalsAndFewFatSectors) {
  const CardLayout layout = planned(requestOf(64 * kGiB));
  EXPECT_EQ(layout.clusterBytes(), 32768u);
  EXPECT_EQ(layout.family(kFileStream).chunkSize, 256 * kMiB);
  EXPECT_GE(layout.family(kFileStream).chunks, 240u);
  EXPECT_EQ(layout.family(kFileJournal).chunkSize, 12 * kMiB);
  EXPECT_LE(layout.fatSectors(), 16500u);
}

TEST(CardLayoutTest, ProfilesDifferInChunkSizeAndPictureShare) {
  const auto stream = [](const char* profile) {
    return planned(requestOf(8 * kGiB, profile)).family(kFileStream);
  };
  EXPECT_LT(stream("many").chunkSize, stream("default").chunkSize);
  EXPECT_GT(stream("long").chunkSize, stream("default").chunkSize);
  EXPECT_GE(stream("many").chunks, 48u);
  const CardLayout small = planned(requestOf(8 * kGiB, "small-pictures"));
  EXPECT_EQ(small.family(kFileStream).chunkSize / small.family(kFilePicture).chunkSize, 16u);
}

TEST(CardLayoutTest, AnUnknownProfileIsRefusedWithTheKnownNames) {
  EXPECT_EQ(refusal(requestOf(256 * kMiB, "huge")),
            "there is no profile \"huge\"; known: default many long small-pictures");
}

TEST(CardLayoutTest, ChunkSizesMustBeBelowTwoGiB) {
  EXPECT_EQ(refusalOfSize(kFileStream, 2 * kGiB, 64 * kGiB),
            "stream chunk size 2147483648 must be below 2 GiB");
  EXPECT_EQ(refusalOfSize(kFilePicture, 0x100000000, 64 * kGiB),
            "picture chunk size 4294967296 must be below 2 GiB");
  CardRequest largest = requestOf(64 * kGiB);
  largest.families[kFileStream].chunkSize = 2 * kGiB - 65536;
  EXPECT_EQ(planned(largest).family(kFileStream).chunkSize, 2 * kGiB - 65536);
}

TEST(CardLayoutTest, ChunkSizesMustFitClustersAndTheirFamilysUnit) {
  EXPECT_EQ(refusalOfSize(kFileStream, 100000),
            "stream chunk size 100000 is not a multiple of 2048, the cluster size");
  EXPECT_EQ(refusalOfSize(kFileStream, 67584),
            "stream chunk size 67584 is not a multiple of 65536");
  EXPECT_EQ(refusalOfSize(kFilePicture, 65537),
            "picture chunk size 65537 is not a multiple of 2048, the cluster size");
  EXPECT_EQ(refusalOfSize(kFileSyslog, 6144), "syslog chunk size 6144 is not a multiple of 4096");
  EXPECT_EQ(refusalOfSize(kFileJournal, 100),
            "journal chunk size 100 is not a multiple of 2048, the cluster size");
  EXPECT_EQ(refusalOfSize(kFileInfo, 1000),
            "info chunk size 1000 is not a multiple of 2048, the cluster size");
}

TEST(CardLayoutTest, AChunkOfAnyWholeClustersIsAllowedAndTheNextFamilyStartsAligned) {
  CardRequest request = requestOf(256 * kMiB);
  request.families[kFilePicture].chunkSize = 100 * 2048;
  request.families[kFileJournal].chunkSize = 3 * 2048;
  request.families[kFileDbImage].chunkSize = 5 * 2048;
  const CardLayout layout = planned(request);
  expectSound(layout);
  EXPECT_EQ(layout.family(kFileJournal).chunkSize, 6144u);
}

TEST(CardLayoutTest, JournalChunksEndAt12MiB) {
  EXPECT_EQ(refusalOfSize(kFileJournal, 12 * kMiB + 32768, 8 * kGiB),
            "journal chunk size 12615680 is above 12 MiB");
  CardRequest request = requestOf(8 * kGiB);
  request.families[kFileJournal].chunkSize = 12 * kMiB;
  EXPECT_EQ(planned(request).family(kFileJournal).chunkSize, 12 * kMiB);
}

TEST(CardLayoutTest, ChunkCountsHaveBounds) {
  EXPECT_EQ(refusalOfCount(kFileStream, 32768, 64 * kGiB),
            "32768 stream chunks: a family has at most 32767");
  EXPECT_EQ(refusalOfCount(kFileJournal, 3), "there must be at least 4 journal chunks, not 3");
  EXPECT_EQ(refusalOfCount(kFileSyslog, 4), "there must be at least 5 syslog chunks, not 4");
  EXPECT_EQ(refusalOfCount(kFileStreamManage, 3),
            "there must be 2 stream management chunks, not 3");
  EXPECT_EQ(refusalOfCount(kFileInfo, 2), "there must be 1 info chunks, not 2");
}

TEST(CardLayoutTest, StreamAndPictureChunksAreAsManyAsEachOther) {
  CardRequest request = requestOf(256 * kMiB);
  request.families[kFileStream].chunks = 4;
  request.families[kFilePicture].chunks = 5;
  EXPECT_EQ(refusal(request), "there must be as many picture chunks as stream chunks, not 5 and 4");
  request.families[kFileStream].chunks = 0;
  EXPECT_EQ(planned(request).family(kFileStream).chunks, 5u);
  EXPECT_EQ(planned(request).family(kFilePicture).chunks, 5u);
}

TEST(CardLayoutTest, AGivenNumberOfStreamChunksSharesTheRoom) {
  for (uint32_t chunks : {1u, 3u, 8u, 100u, 1900u}) {
    CardRequest request = requestOf(256 * kMiB);
    request.families[kFileStream].chunks = chunks;
    const CardLayout layout = planned(request);
    expectSound(layout);
    EXPECT_EQ(layout.family(kFileStream).chunks, chunks);
    // No more than a fiftieth of the card is left, and no more than a step of every chunk.
    EXPECT_LT(layout.sizeBytes() - layout.endByte(),
              std::max<uint64_t>(256 * kMiB / 50, uint64_t{chunks} * 65536));
  }
  EXPECT_THAT(refusalOfCount(kFileStream, 3000), HasSubstr("the card is too small"));
}

TEST(CardLayoutTest, AGivenStreamChunkSizeFillsTheCard) {
  CardRequest request = requestOf(256 * kMiB);
  request.families[kFileStream].chunkSize = 4 * kMiB;
  const CardLayout layout = planned(request);
  expectSound(layout);
  EXPECT_EQ(layout.family(kFileStream).chunkSize, 4 * kMiB);
  EXPECT_EQ(layout.family(kFilePicture).chunkSize, 64 * kKiB);
  EXPECT_GE(layout.family(kFileStream).chunks, 58u);
}

TEST(CardLayoutTest, MoreChunksThanTheCardHoldsAreRefusedWithBothNumbers) {
  CardRequest request = requestOf(256 * kMiB);
  request.families[kFileStream].chunkSize = 64 * kMiB;
  request.families[kFileStream].chunks = 4;
  EXPECT_EQ(refusal(request),
            "the card is too small: 256 MiB hold 3 stream chunks of 64 MiB with their picture "
            "chunks, not 4");
  request.families[kFileStream].chunkSize = 512 * kMiB;
  request.families[kFileStream].chunks = 0;
  EXPECT_EQ(refusal(request),
            "the card is too small: 256 MiB hold 0 stream chunks of 512 MiB with their picture "
            "chunks");
}

TEST(CardLayoutTest, ManagementChunksMustHoldEveryRecordAndTheChecksum) {
  CardRequest request = requestOf(256 * kMiB);
  request.families[kFileStream].chunkSize = kMiB;
  request.families[kFileStream].chunks = 86;  // 24 * 86 + 2 = 2066 bytes
  request.families[kFileStreamManage].chunkSize = 2048;
  EXPECT_EQ(refusal(request),
            "stream management chunk size 2048 is too small: 86 stream chunks need 2066 bytes");
  request.families[kFileStream].chunks = 85;  // 2042 bytes
  EXPECT_EQ(planned(request).family(kFileStreamManage).chunkSize, 2048u);
  request = requestOf(256 * kMiB);
  request.families[kFileJournal].chunks = 100;
  request.families[kFileJournal].chunkSize = 65536;
  request.families[kFileJournalManage].chunkSize = 2048;
  EXPECT_EQ(refusal(request),
            "journal management chunk size 2048 is too small: 100 journal chunks need 2402 bytes");
}

TEST(CardLayoutTest, StreamManagementGrowsWithTheNumberOfChunks) {
  CardRequest request = requestOf(64 * kGiB);
  request.families[kFileStream].chunkSize = 4 * kMiB;
  const CardLayout layout = planned(request);
  const CardFamily& stream = layout.family(kFileStream);
  EXPECT_GT(stream.chunks, 10000u);
  EXPECT_GE(layout.family(kFileStreamManage).chunkSize, stream.chunks * 24 + 2);
  expectSound(layout);
}

TEST(CardLayoutTest, MoreFilesThanADirectoryHoldsAreRefused) {
  CardRequest request = requestOf(64 * kGiB);
  request.families[kFileStream].chunkSize = kMiB;
  EXPECT_EQ(refusal(request),
            "too many chunk files: a directory has room for 65536 entries, these need 111086; "
            "choose larger chunks or fewer");
  request.families[kFileStream].chunks = 21379;
  EXPECT_EQ(planned(request).family(kFileStream).chunks, 21379u);
  request.families[kFileStream].chunks = 21380;
  EXPECT_THAT(refusal(request), HasSubstr("these need 65538"));
}

TEST(CardLayoutTest, ClusterSizesFollowFat32sBounds) {
  EXPECT_THAT(refusal(requestOf(32 * kMiB)), HasSubstr("too small: FAT32 needs at least 33 MiB"));
  EXPECT_THAT(refusal(requestOf(0)), HasSubstr("too small"));
  EXPECT_EQ(refusal(requestOf(2048 * kGiB)),
            "the card is too large: FAT32 ends at 2 TiB; give a smaller size");
  CardRequest request = requestOf(256 * kMiB);
  request.clusterBytes = 3000;
  EXPECT_EQ(refusal(request), "cluster size 3000 must be a power of two from 512 to 65536 bytes");
  request.clusterBytes = 4096;
  EXPECT_EQ(refusal(request),
            "clusters of 4096 bytes do not suit a card of 256 MiB: they would make 65392, and "
            "FAT32 needs 65525 to 268435444");
  request.clusterBytes = 512;
  EXPECT_EQ(planned(request).clusterBytes(), 512u);
  request = requestOf(200 * kGiB);
  request.clusterBytes = 512;
  EXPECT_THAT(refusal(request), HasSubstr("do not suit a card of 200 GiB"));
}

TEST(CardLayoutTest, TheExactBoundsOfTheClusterCountHold) {
  // 65525 clusters of 512 bytes are the fewest; one sector less is refused.
  CardRequest request = requestOf(0);
  request.clusterBytes = 512;
  uint64_t sectors = 65525 + 128;
  CardLayout layout;
  std::string error;
  for (request.families[kFileStream].chunkSize = 65536;; ++sectors) {
    request.sizeBytes = sectors * 512;
    if (layout.plan(request, &error) == 0) break;
    ASSERT_THAT(error, HasSubstr("FAT32 needs 65525"));
  }
  EXPECT_EQ(layout.clusters(), 65525u);
}

TEST(CardLayoutTest, TheInfoFileLiesWhereReadersFindIt) {
  for (uint64_t size : {34 * kMiB, 64 * kGiB}) {
    CardRequest request = requestOf(size);
    request.families[kFileStream].chunkSize = size > kGiB ? 4 * kMiB : 65536;
    const CardLayout layout = planned(request);
    EXPECT_LT(layout.clusterOfByte(layout.family(kFileInfo).startByte()) & 0xFFFF, 0x8000u);
    EXPECT_EQ(layout.clusterOfByte(layout.dataByte()), 2u);
  }
}

}  // namespace
}  // namespace tarn
