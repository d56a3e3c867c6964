#include <cerrno>

#include "fat/FatTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kStream = tarn::kFileStream;
constexpr int kPicture = tarn::kFilePicture;
constexpr int kJournal = tarn::kFileJournal;

std::vector<uint8_t> part(const std::vector<uint8_t>& bytes, size_t from, size_t length) {
  return {bytes.begin() + static_cast<long>(from),
          bytes.begin() + static_cast<long>(from + length)};
}

// A picture chunk with known content, opened read-only.
struct OpenPicture {
  explicit OpenPicture(int n = 0, int flags = O_RDONLY) : bytes(patternBytes(256 * kKiB)) {
    card.writeChunk(kPicture, n, 0, bytes);
    handle = fat.open(card.name(kPicture, n).c_str(), flags);
    io.clear();
  }

  CardImage card;
  std::vector<uint8_t> bytes;
  SyslogCapture log;
  IoFaults io{kCardPath};
  CFATAccess fat;
  int handle;
};

TEST(FatRead, BadIndexIsRefused) {
  CFATAccess fat;
  uint8_t byte = 0;
  for (int index : {-1, 50}) {
    SyslogCapture log;
    EXPECT_EQ(fat.read(index, &byte, 1), -1);
    EXPECT_EQ(fat.write(index, &byte, 1), -1);
    EXPECT_EQ(fat.fsync(index), -1);
    EXPECT_EQ(fat.lseek(index, 0, SEEK_SET), -1);
    EXPECT_FALSE(fat.isSdAligned(index));
    EXPECT_THAT(fatLines(log),
                ElementsAre("read: read : invalid index", "write: write: invalid index",
                            "fsync: read: invalid index",
                            "lseek: lseek: invalid index(" + std::to_string(index) + ")",
                            "isSdAligned: lseek error"));
  }
}

TEST(FatRead, FreeHandleGivesTheSystemsOwnError) {
  CFATAccess fat;
  uint8_t byte = 0;
  SyslogCapture log;
  EXPECT_EQ(fat.read(3, &byte, 1), -1);
  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(fat.write(3, &byte, 1), -1);
  EXPECT_EQ(fat.fsync(3), -1);
  EXPECT_THAT(fatLines(log), IsEmpty());
  EXPECT_EQ(fat.lseek(3, 0, SEEK_SET), -1);
  EXPECT_THAT(fatLines(log), ElementsAre("lseek: CFATAccess.lseek"));
}

TEST(FatRead, UnbufferedReadIsTheDevicesOwn) {
  CardImage card;
  const auto bytes = patternBytes(10000);
  card.writeChunk(kJournal, 2, 0, bytes);
  IoFaults io(kCardPath);
  CFATAccess fat;
  const int handle = fat.open(card.name(kJournal, 2).c_str(), O_RDWR);
  io.clear();
  EXPECT_EQ(readHandle(fat, handle, 10000), bytes);
  EXPECT_EQ(io.sequence(), "r");
  EXPECT_FALSE(fat.lastReadFailed(handle));
  uint8_t out[8];
  io.shorten(Call::Read, 1, 3);
  EXPECT_EQ(fat.read(handle, out, 8), 3);
  EXPECT_TRUE(fat.lastReadFailed(handle));
  io.fail(Call::Read, 1, EIO);
  EXPECT_EQ(fat.read(handle, out, 8), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_TRUE(fat.lastReadFailed(handle));
  EXPECT_EQ(fat.read(handle, out, 8), 8);
  EXPECT_FALSE(fat.lastReadFailed(handle));
}

TEST(FatRead, PicturesComeInBlocksOf4096) {
  OpenPicture c;
  for (size_t at = 0; at < 8192; at += 32) {
    ASSERT_EQ(readHandle(c.fat, c.handle, 32), part(c.bytes, at, 32)) << at;
  }
  const auto start = static_cast<int64_t>(c.card.chunkStart(kPicture, 0));
  EXPECT_EQ(c.io.sequence(), "rr");
  EXPECT_EQ(c.io.calls()[0].length, 4096u);
  EXPECT_EQ(c.io.calls()[1].offset, start + 4096);
  EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), 8192);
}

TEST(FatRead, RequestAcrossABlockIsReadAgainFromItsStart) {
  OpenPicture c;
  EXPECT_EQ(readHandle(c.fat, c.handle, 3000), part(c.bytes, 0, 3000));
  EXPECT_EQ(readHandle(c.fat, c.handle, 3000), part(c.bytes, 3000, 3000));
  EXPECT_EQ(readHandle(c.fat, c.handle, 4096), part(c.bytes, 6000, 4096));
  const auto start = static_cast<int64_t>(c.card.chunkStart(kPicture, 0));
  EXPECT_EQ(c.io.sequence(), "rlrlr");
  EXPECT_EQ(c.io.calls()[2].offset, start + 3000);
  EXPECT_EQ(c.io.calls()[4].offset, start + 6000);
}

TEST(FatRead, LongRequestsAreReadBlockByBlock) {
  OpenPicture c;
  EXPECT_EQ(readHandle(c.fat, c.handle, 100), part(c.bytes, 0, 100));
  EXPECT_EQ(readHandle(c.fat, c.handle, 100000), part(c.bytes, 100, 100000));
  EXPECT_EQ(readHandle(c.fat, c.handle, 50), part(c.bytes, 100100, 50));
  EXPECT_FALSE(c.fat.lastReadFailed(c.handle));
  for (const IoRecord& call : c.io.calls()) {
    if (call.call == Call::Read) {
      EXPECT_EQ(call.length, 4096u);
    }
  }
}

TEST(FatRead, EmptyRequestTouchesNothing) {
  OpenPicture c;
  EXPECT_EQ(c.fat.read(c.handle, nullptr, 0), 0);
  EXPECT_EQ(c.io.sequence(), "");
}

TEST(FatRead, WhatTheDeviceDoesNotDeliverReadsAsZeros) {
  OpenPicture c(3);  // the last chunk: the card ends behind it
  EXPECT_EQ(c.fat.lseek(c.handle, 256 * kKiB - 100, SEEK_SET), 256 * 1024 - 100);
  EXPECT_EQ(readHandle(c.fat, c.handle, 60), part(c.bytes, 256 * kKiB - 100, 60));
  EXPECT_FALSE(c.fat.lastReadFailed(c.handle));
  auto expected = part(c.bytes, 256 * kKiB - 40, 40);
  expected.resize(200, 0);
  EXPECT_EQ(readHandle(c.fat, c.handle, 200), expected);
  EXPECT_TRUE(c.fat.lastReadFailed(c.handle));
  EXPECT_EQ(readHandle(c.fat, c.handle, 5000), std::vector<uint8_t>(5000, 0));
  EXPECT_TRUE(c.fat.lastReadFailed(c.handle));
  EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), 256 * 1024 + 160 + 5000);
  EXPECT_EQ(c.fat.lseek(c.handle, 256 * kKiB - 8, SEEK_SET), 256 * 1024 - 8);
  EXPECT_EQ(readHandle(c.fat, c.handle, 8), part(c.bytes, 256 * kKiB - 8, 8));
  EXPECT_FALSE(c.fat.lastReadFailed(c.handle));
}

TEST(FatRead, FailedBlockReadsAsZerosAndWhatFollowsIsNotShifted) {
  OpenPicture c;
  c.io.fail(Call::Read, 1, EIO);
  EXPECT_EQ(readHandle(c.fat, c.handle, 32), std::vector<uint8_t>(32, 0));
  EXPECT_TRUE(c.fat.lastReadFailed(c.handle));
  EXPECT_EQ(readHandle(c.fat, c.handle, 32), part(c.bytes, 32, 32));
  EXPECT_FALSE(c.fat.lastReadFailed(c.handle));
  EXPECT_THAT(fatLines(c.log), IsEmpty());
}

TEST(FatRead, ShortBlockIsUsedAsFarAsItCame) {
  OpenPicture c;
  c.io.shorten(Call::Read, 1, 100);
  EXPECT_EQ(readHandle(c.fat, c.handle, 64), part(c.bytes, 0, 64));
  EXPECT_EQ(readHandle(c.fat, c.handle, 64), part(c.bytes, 64, 64));
  c.fat.lseek(c.handle, 0, SEEK_SET);
  c.io.shorten(Call::Read, 1, 100);
  auto expected = part(c.bytes, 0, 100);
  expected.resize(150, 0);
  EXPECT_EQ(readHandle(c.fat, c.handle, 150), expected);
  EXPECT_TRUE(c.fat.lastReadFailed(c.handle));
  EXPECT_EQ(readHandle(c.fat, c.handle, 50), part(c.bytes, 150, 50));
}

TEST(FatRead, OneMissingPieceOfALongRequestIsRemembered) {
  OpenPicture c;
  c.io.fail(Call::Read, 2, EIO);
  auto expected = part(c.bytes, 0, 12288);
  std::fill(expected.begin() + 4096, expected.begin() + 8192, 0);
  EXPECT_EQ(readHandle(c.fat, c.handle, 12288), expected);
  EXPECT_TRUE(c.fat.lastReadFailed(c.handle));
}

TEST(FatRead, DeviceThatCannotStepBackLeavesWhatWasReadAhead) {
  OpenPicture c;
  EXPECT_EQ(readHandle(c.fat, c.handle, 4000), part(c.bytes, 0, 4000));
  c.io.fail(Call::Lseek, 1, EIO);
  auto expected = part(c.bytes, 4000, 96);
  expected.resize(200, 0);
  EXPECT_EQ(readHandle(c.fat, c.handle, 200), expected);
  EXPECT_TRUE(c.fat.lastReadFailed(c.handle));
  EXPECT_EQ(readHandle(c.fat, c.handle, 200), part(c.bytes, 4200, 200));
  EXPECT_FALSE(c.fat.lastReadFailed(c.handle));
}

TEST(FatRead, PicturesOpenedForWritingAreNotReadAhead) {
  OpenPicture c(0, O_RDWR);
  EXPECT_EQ(readHandle(c.fat, c.handle, 32), part(c.bytes, 0, 32));
  ASSERT_EQ(c.io.sequence(), "r");
  EXPECT_EQ(c.io.calls()[0].length, 32u);
}

TEST(FatRead, OtherReadOnlyFlagsReadPicturesUnbuffered) {
  OpenPicture c(0, O_RDONLY | O_CLOEXEC);
  EXPECT_EQ(readHandle(c.fat, c.handle, 32), part(c.bytes, 0, 32));
  EXPECT_EQ(c.io.calls()[0].length, 32u);
}

TEST(FatRead, WriteBufferedHandleIsDrainedBeforeItReads) {
  CardImage card(streamsPastBoundary(0));
  const auto old = patternBytes(4096, 7);
  const auto bytes = patternBytes(kMiB, 9);
  card.writeChunk(kStream, 0, 0, old);
  IoFaults io(kCardPath);
  CFATAccess fat;
  const int handle = fat.open(card.name(kStream, 0).c_str(), O_RDWR);
  io.clear();
  EXPECT_EQ(fat.write(handle, bytes.data(), 100), 100);
  EXPECT_EQ(readHandle(fat, handle, 50), part(old, 100, 50));
  EXPECT_EQ(card.readChunk(kStream, 0, 0, 100), part(bytes, 0, 100));
  EXPECT_EQ(fat.lseek(handle, 0, SEEK_CUR), 150);
  // What follows is cut at the boundary as seen from where the read ended.
  io.clear();
  EXPECT_EQ(fat.write(handle, bytes.data(), kMiB), static_cast<long>(kMiB));
  const auto start = static_cast<int64_t>(card.chunkStart(kStream, 0));
  EXPECT_THAT(io.writes(), ElementsAre(WriteRecord{start + 150, 65536 - 150}));
}

TEST(FatRead, ReadingAllocatesNothing) {
  CardImage card;
  CFATAccess fat;
  const int picture = fat.open(card.name(kPicture, 0).c_str(), O_RDONLY);
  const int stream = fat.open(card.name(kStream, 0).c_str(), O_RDONLY);
  std::vector<uint8_t> out(20000);
  AllocationCount allocations;
  for (int i = 0; i < 10; ++i) {
    fat.read(picture, out.data(), 3000);
    fat.read(stream, out.data(), out.size());
    fat.lseek(picture, i * 100, SEEK_SET);
  }
  EXPECT_EQ(allocations.count(), 0u);
}

// What is there already is taken in whole records, without the device; the rest is read as before.
TEST(FatRead, ReadAheadGivesWhatTheLastBlockLeftInWholeRecords) {
  OpenPicture p;
  std::vector<uint8_t> out(5000);
  EXPECT_TRUE(p.fat.hasReadBuffer(p.handle));
  EXPECT_EQ(p.fat.readAhead(p.handle, out.data(), 64, 32), 0);  // nothing yet
  EXPECT_EQ(p.fat.read(p.handle, out.data(), 40), 40);
  EXPECT_EQ(p.fat.readAhead(p.handle, out.data(), 70, 32), 64);
  EXPECT_EQ(part(out, 0, 64), part(p.bytes, 40, 64));
  EXPECT_EQ(p.fat.lseek(p.handle, 0, SEEK_CUR), 104);
  EXPECT_EQ(p.fat.readAhead(p.handle, out.data(), 5000, 32), 3968);
  EXPECT_EQ(part(out, 0, 3968), part(p.bytes, 104, 3968));
  EXPECT_EQ(p.fat.readAhead(p.handle, out.data(), 5000, 32), 0);  // 24 bytes are left
  EXPECT_EQ(p.fat.read(p.handle, out.data(), 32), 32);
  EXPECT_EQ(part(out, 0, 32), part(p.bytes, 4072, 32));
  EXPECT_FALSE(p.fat.lastReadFailed(p.handle));
  EXPECT_EQ(p.io.sequence(), "rlr");
}

TEST(FatRead, ReadAheadIsForReadBufferedHandlesOnly) {
  CardImage card;
  CFATAccess fat;
  const int handle = fat.open(card.name(kJournal, 0).c_str(), O_RDONLY);
  uint8_t out[64];
  ASSERT_EQ(fat.read(handle, out, 32), 32);
  EXPECT_EQ(fat.readAhead(handle, out, 32, 32), 0);
  EXPECT_EQ(fat.readAhead(-1, out, 32, 32), 0);
  EXPECT_EQ(fat.readAhead(50, out, 32, 32), 0);
  EXPECT_EQ(fat.lseek(handle, 0, SEEK_CUR), 32);
}

}  // namespace
}  // namespace tarn_test
