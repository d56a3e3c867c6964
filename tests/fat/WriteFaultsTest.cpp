#include <cerrno>
#include <fstream>

#include "fat/FatTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kStream = tarn::kFileStream;
constexpr int kSyslog = tarn::kFileSyslog;
constexpr uint32_t kSmall = 32 * kKiB;

bool markerExists() { return access(kMarker, F_OK) == 0; }

struct OpenSyslog {
  OpenSyslog() : handle(fat.open(card.name(kSyslog, 0).c_str(), O_RDWR)) {
    unlink(kMarker);
    io.clear();
  }
  std::vector<uint8_t> onCard(uint64_t offset, size_t length) {
    return card.readChunk(kSyslog, 0, offset, length);
  }

  CardImage card;
  SyslogCapture log;
  IoFaults io{kCardPath};
  CFATAccess fat;
  int handle;
};

std::vector<uint8_t> part(const std::vector<uint8_t>& bytes, size_t from, size_t length) {
  return {bytes.begin() + static_cast<long>(from),
          bytes.begin() + static_cast<long>(from + length)};
}

const std::vector<uint8_t> kNever(kSmall, 0xCC);

TEST(FatWriteFaults, FailedBackgroundWriteLeavesTheMarkerAndALine) {
  OpenSyslog c;
  const auto bytes = patternBytes(kSmall);
  c.io.fail(Call::Write, 1, EIO);
  EXPECT_EQ(c.fat.write(c.handle, bytes.data(), kSmall), static_cast<long>(kSmall));
  EXPECT_EQ(c.fat.fsync(c.handle), 0);
  EXPECT_THAT(fatLines(c.log),
              ElementsAre("m_bufferWriteFunc: write error 2 writesize[-1/32768] [errno=5]"));
  EXPECT_TRUE(markerExists());
  EXPECT_EQ(c.onCard(0, kSmall), kNever);
}

TEST(FatWriteFaults, WhatFollowsALostBufferGoesWhereItBelongs) {
  for (uint64_t reached : {0u, 1000u, 32767u}) {
    OpenSyslog c;
    const auto bytes = patternBytes(2 * kSmall);
    c.io.shorten(Call::Write, 1, reached, ENOSPC);
    EXPECT_EQ(c.fat.write(c.handle, bytes.data(), kSmall), static_cast<long>(kSmall));
    EXPECT_EQ(c.fat.write(c.handle, bytes.data() + kSmall, 500), 500);
    EXPECT_EQ(c.fat.fsync(c.handle), 0);
    EXPECT_THAT(fatLines(c.log), ElementsAre("m_bufferWriteFunc: write error 2 writesize[" +
                                             std::to_string(reached) + "/32768] [errno=28]"));
    EXPECT_EQ(c.onCard(0, reached), part(bytes, 0, reached));
    EXPECT_EQ(c.onCard(reached, kSmall - reached), part(kNever, 0, kSmall - reached));
    EXPECT_EQ(c.onCard(kSmall, 500), part(bytes, kSmall, 500));
    EXPECT_EQ(c.onCard(kSmall + 500, 500), part(kNever, 0, 500));
    EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), static_cast<long>(kSmall) + 500);
  }
}

TEST(FatWriteFaults, BufferQueuedBehindALostOneGoesWhereItBelongs) {
  OpenSyslog c;
  const auto bytes = patternBytes(2 * kSmall);
  c.io.block(Call::Write, 1);
  c.fat.write(c.handle, bytes.data(), kSmall);
  ASSERT_TRUE(c.io.waitUntilBlocked());
  c.fat.write(c.handle, bytes.data() + kSmall, kSmall);
  c.io.fail(Call::Fsync, 1, EIO);  // the blocked one is written, its flush fails
  c.io.shorten(Call::Write, 1, 100, EIO);
  c.io.release();
  EXPECT_EQ(c.fat.close(c.handle), 0);
  EXPECT_EQ(c.onCard(0, kSmall + 100), part(bytes, 0, kSmall + 100));
  EXPECT_THAT(fatLines(c.log),
              ElementsAre("m_bufferWriteFunc: sync error [errno=5]",
                          "m_bufferWriteFunc: write error 2 writesize[100/32768] [errno=5]"));
}

TEST(FatWriteFaults, InterruptedWriteIsRepeated) {
  OpenSyslog c;
  const auto bytes = patternBytes(kSmall);
  c.io.fail(Call::Write, 1, EINTR, 3);
  c.fat.write(c.handle, bytes.data(), kSmall);
  EXPECT_EQ(c.fat.fsync(c.handle), 0);
  EXPECT_EQ(c.io.count(Call::Write), 4u);
  EXPECT_THAT(fatLines(c.log), IsEmpty());
  EXPECT_FALSE(markerExists());
  EXPECT_EQ(c.onCard(0, kSmall), bytes);
}

TEST(FatWriteFaults, InterruptedShortWriteGoesOnWithWhatIsLeft) {
  OpenSyslog c;
  const auto start = static_cast<int64_t>(c.card.chunkStart(kSyslog, 0));
  const auto bytes = patternBytes(2 * kSmall);
  c.io.shorten(Call::Write, 1, 1000, EINTR);
  c.fat.write(c.handle, bytes.data(), kSmall);
  c.fat.write(c.handle, bytes.data() + kSmall, kSmall);
  EXPECT_EQ(c.fat.fsync(c.handle), 0);
  EXPECT_THAT(c.io.writes(),
              ElementsAre(WriteRecord{start, kSmall}, WriteRecord{start + 1000, kSmall - 1000},
                          WriteRecord{start + kSmall, kSmall}));
  EXPECT_THAT(fatLines(c.log), IsEmpty());
  EXPECT_EQ(c.onCard(0, 2 * kSmall), bytes);
}

TEST(FatWriteFaults, ShortWriteAfterAnEarlierInterruptionIsAFailure) {
  OpenSyslog c;
  const auto bytes = patternBytes(kSmall);
  c.io.fail(Call::Write, 1, EINTR);
  c.fat.write(c.handle, bytes.data(), kSmall);
  EXPECT_EQ(c.fat.fsync(c.handle), 0);
  c.io.shorten(Call::Write, 1, 1000);
  c.fat.write(c.handle, bytes.data(), kSmall);
  EXPECT_EQ(c.fat.fsync(c.handle), 0);
  EXPECT_THAT(fatLines(c.log),
              ElementsAre("m_bufferWriteFunc: write error 2 writesize[1000/32768] [errno=0]"));
}

TEST(FatWriteFaults, FailedDeviceFlushLeavesTheMarkerAndALine) {
  OpenSyslog c;
  const auto bytes = patternBytes(kSmall);
  c.io.fail(Call::Fsync, 1, EIO);
  c.fat.write(c.handle, bytes.data(), 700);
  EXPECT_EQ(c.fat.fsync(c.handle), 0);
  EXPECT_THAT(fatLines(c.log), ElementsAre("m_bufferWriteFunc: sync error [errno=5]"));
  EXPECT_TRUE(markerExists());
  EXPECT_EQ(c.onCard(0, 700), part(bytes, 0, 700));
}

TEST(FatWriteFaults, MarkerIsOnlyEverCreated) {
  OpenSyslog c;
  std::ofstream(kMarker) << "kept";
  c.io.fail(Call::Write, 1, EIO);
  c.fat.write(c.handle, "x", 1);
  EXPECT_EQ(c.fat.close(c.handle), 0);
  std::string content;
  std::ifstream(kMarker) >> content;
  EXPECT_EQ(content, "kept");
}

TEST(FatWriteFaults, MarkerIsEmptyAndAsOpenAsTheUmaskAllows) {
  OpenSyslog c;
  umask(022);
  c.io.fail(Call::Write, 1, EIO);
  c.fat.write(c.handle, "x", 1);
  EXPECT_EQ(c.fat.close(c.handle), 0);
  struct stat marker {};
  ASSERT_EQ(stat(kMarker, &marker), 0);
  EXPECT_EQ(marker.st_mode & 07777, 0755u);
  EXPECT_EQ(marker.st_size, 0);
}

TEST(FatWriteFaults, StreamIsAlignedAgainAfterALostBuffer) {
  CardImage card(streamsPastBoundary(4096));
  const auto start = static_cast<int64_t>(card.chunkStart(kStream, 0));
  SyslogCapture log;
  IoFaults io(kCardPath);
  const auto bytes = patternBytes(kMiB);
  CFATAccess fat;
  const int handle = fat.open(card.name(kStream, 0).c_str(), O_RDWR);
  io.shorten(Call::Write, 1, 12345, EIO);  // the 61440 bytes up to the boundary
  EXPECT_EQ(fat.write(handle, bytes.data(), kMiB), static_cast<long>(kMiB));
  EXPECT_TRUE(fat.isSdAligned(handle));
  EXPECT_EQ(fat.close(handle), 0);
  EXPECT_THAT(io.writes(),
              ElementsAre(WriteRecord{start, 61440}, WriteRecord{start + 61440, kMiB - 61440}));
  EXPECT_THAT(fatLines(log),
              ElementsAre("m_bufferWriteFunc: write error 2 writesize[12345/61440] [errno=5]"));
  EXPECT_EQ(card.readChunk(kStream, 0, 61440, kMiB - 61440), part(bytes, 61440, kMiB - 61440));
}

TEST(FatWriteFaults, UnknownPositionRefusesTheWriteOfAnUnalignedStream) {
  CardImage card(streamsPastBoundary(4096));
  SyslogCapture log;
  IoFaults io(kCardPath);
  CFATAccess fat;
  const int handle = fat.open(card.name(kStream, 0).c_str(), O_RDWR);
  io.fail(Call::Lseek, 1, EIO);
  EXPECT_EQ(fat.write(handle, "abc", 3), -1);
  EXPECT_THAT(fatLines(log), ElementsAre("write: write : lseek error"));
  EXPECT_EQ(fat.lseek(handle, 0, SEEK_CUR), 3);  // the position had moved already
}

TEST(FatWriteFaults, AlignmentNeverFillsPastTheBuffer) {
  CardImage card(streamsPastBoundary(0));
  SyslogCapture log;
  IoFaults io(kCardPath);
  const auto bytes = patternBytes(3 * kMiB);
  CFATAccess fat;
  const int handle = fat.open(card.name(kStream, 0).c_str(), O_RDWR);
  // While the first buffer is being lost, almost all of the second one comes together; and the
  // device then says neither where it stands nor goes where it should.
  io.block(Call::Write, 1);
  fat.write(handle, bytes.data(), kMiB);
  ASSERT_TRUE(io.waitUntilBlocked());
  fat.write(handle, bytes.data() + kMiB, kMiB - 10);
  io.fail(Call::Lseek, 1, EIO, 1);  // the worker's position query: "not aligned"
  io.release();
  // 10 bytes of room, but the boundary is further away; the buffer goes out as it is filled.
  EXPECT_EQ(fat.write(handle, bytes.data() + 2 * kMiB - 10, 1000), 1000);
  EXPECT_EQ(fat.close(handle), 0);
  EXPECT_THAT(fatLines(log), ElementsAre("isSdAligned: lseek error"));
  EXPECT_EQ(card.readChunk(kStream, 0, 0, 2 * kMiB + 990), part(bytes, 0, 2 * kMiB + 990));
}

TEST(FatWriteFaults, OtherHandlesOfTheObjectGoOn) {
  OpenSyslog c;
  const auto bytes = patternBytes(kSmall);
  const int other = c.fat.open(c.card.name(kSyslog, 1).c_str(), O_RDWR);
  c.io.fail(Call::Write, 1, EIO);
  c.fat.write(c.handle, bytes.data(), kSmall);
  c.fat.fsync(c.handle);
  c.fat.write(other, bytes.data(), kSmall);
  EXPECT_EQ(c.fat.fsync(other), 0);
  EXPECT_EQ(c.card.readChunk(kSyslog, 1, 0, kSmall), bytes);
}

}  // namespace
}  // namespace tarn_test
