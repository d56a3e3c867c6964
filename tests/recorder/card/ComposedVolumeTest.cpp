#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>

#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/ComposedVolume.h"
#include "support/CardImage.h"

namespace tarn_test {
namespace {

using Bytes = std::vector<uint8_t>;
using ::testing::HasSubstr;

constexpr char kPath[] = "/tmp/card";
constexpr size_t kInfoBytes = 1024;

Bytes readAt(uint64_t offset, size_t length) {
  std::ifstream in(kPath, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  Bytes bytes(length);
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(length));
  return bytes;
}

void writeAt(uint64_t offset, const Bytes& bytes) {
  std::fstream out(kPath, std::ios::binary | std::ios::in | std::ios::out);
  out.seekp(static_cast<std::streamoff>(offset));
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
}

// Formats a card and puts the composed front in the place of its own.
void expectTheSameCard(const tarn::CardRequest& request) {
  std::string error;
  tarn::CardFormatter formatter;
  tarn::FormatOptions options;
  options.force = true;
  ASSERT_EQ(formatter.format(kPath, request, options, &error), 0) << error;
  const uint64_t start = formatter.layout().chunkByte(tarn::kFileInfo, 0);
  const Bytes info = readAt(start, kInfoBytes);
  tarn::ComposedVolume volume;
  ASSERT_EQ(volume.compose(info.data(), info.size(), &error), 0) << error;
  ASSERT_LE(volume.frontBytes(), start);
  Bytes front(static_cast<size_t>(start), 0xEE);
  volume.readFront(0, front.data(), static_cast<size_t>(volume.frontBytes()));
  writeAt(0, front);
  const tarn::GeometryReport report =
      tarn::CardGeometry::verify(kPath, tarn::GeometryDepth::kWhole);
  EXPECT_TRUE(report.ok()) << report.text;
  // In pieces it is the same.
  Bytes pieces(static_cast<size_t>(volume.frontBytes()));
  for (size_t at = 0, step = 1; at < pieces.size(); at += step, step = 1 + (step * 7 + 3) % 5000) {
    step = std::min(step, pieces.size() - at);
    volume.readFront(at, pieces.data() + at, step);
  }
  front.resize(pieces.size());
  EXPECT_TRUE(pieces == front);
}

TEST(ComposedVolumeTest, LeadsToTheChunksOfEveryCard) {
  tarn::CardRequest request;
  request.sizeBytes = 34 * kMiB;
  expectTheSameCard(request);
  request.clusterBytes = 512;
  request.families[tarn::kFileStream].chunkSize = 64 * kKiB;
  expectTheSameCard(request);
  request.clusterBytes = 1024;
  request.sizeBytes = 80 * kMiB;
  expectTheSameCard(request);
}

TEST(ComposedVolumeTest, FindsTheChunkOfAByte) {
  tarn::CardFormatter formatter;
  tarn::CardRequest request;
  request.sizeBytes = 34 * kMiB;
  std::string error;
  ASSERT_EQ(formatter.format(kPath, request, {}, &error), 0) << error;
  const tarn::CardLayout& layout = formatter.layout();
  const Bytes info = readAt(layout.chunkByte(tarn::kFileInfo, 0), kInfoBytes);
  tarn::ComposedVolume volume;
  ASSERT_EQ(volume.compose(info.data(), info.size(), &error), 0) << error;
  int type = -1;
  uint32_t chunk = 0;
  const uint64_t second = layout.chunkByte(tarn::kFileStream, 1);
  EXPECT_TRUE(volume.chunkAt(second, &type, &chunk));
  EXPECT_EQ(type, tarn::kFileStream);
  EXPECT_EQ(chunk, 1u);
  EXPECT_TRUE(volume.chunkAt(second - 1, &type, &chunk));
  EXPECT_EQ(chunk, 0u);
  EXPECT_FALSE(volume.chunkAt(volume.frontBytes() - 1, &type, &chunk));
  EXPECT_FALSE(volume.chunkAt(layout.endByte(), &type, &chunk));
}

TEST(ComposedVolumeTest, RefusesWhatIsNoInfoFile) {
  std::string error;
  tarn::ComposedVolume volume;
  Bytes info(kInfoBytes, 'x');
  EXPECT_EQ(volume.compose(info.data(), info.size(), &error), -1);
  EXPECT_THAT(error, HasSubstr("TAIF0000 is no info file: it gives its length as"));
  EXPECT_EQ(volume.compose(info.data(), 100, &error), -1);
  EXPECT_THAT(error, HasSubstr("too few for an info file"));
  tarn::CardFormatter formatter;
  tarn::CardRequest request;
  request.sizeBytes = 34 * kMiB;
  ASSERT_EQ(formatter.format(kPath, request, {}, &error), 0) << error;
  info = readAt(formatter.layout().chunkByte(tarn::kFileInfo, 0), kInfoBytes);
  info[70] ^= 1;
  EXPECT_EQ(volume.compose(info.data(), info.size(), &error), -1);
  EXPECT_THAT(error, HasSubstr("its seal is wrong"));
}

}  // namespace
}  // namespace tarn_test
