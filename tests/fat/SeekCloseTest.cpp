#include <cerrno>

#include "fat/FatTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

using Bytes = std::vector<uint8_t>;

constexpr int kStream = tarn::kFileStream;
constexpr int kPicture = tarn::kFilePicture;
constexpr int kJournal = tarn::kFileJournal;

struct OpenChunk {
  OpenChunk(int type, int flags, const CardLayout& layout = {}, int n = 1) : card(layout) {
    handle = fat.open(card.name(type, n).c_str(), flags);
    io.clear();
  }

  CardImage card;
  SyslogCapture log;
  IoFaults io{kCardPath};
  CFATAccess fat;
  int handle;
};

TEST(FatSeek, PositionIncludesWhatIsBufferedAndNothingIsWritten) {
  OpenChunk c(kStream, O_RDWR);
  const auto bytes = patternBytes(100);
  c.fat.write(c.handle, bytes.data(), 100);
  c.io.clear();
  EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), 100);
  EXPECT_EQ(c.fat.lseek(c.handle, 100, SEEK_SET), 100);
  EXPECT_EQ(c.io.sequence(), "");
}

TEST(FatSeek, MovingAWriteBufferedHandleFlushesItFirst) {
  for (const auto& [offset, whence, position] :
       {std::tuple<long, int, long>{99, SEEK_SET, 99}, {-60, SEEK_CUR, 40}}) {
    OpenChunk c(tarn::kFileSyslog, O_RDWR);
    const auto bytes = patternBytes(200);
    c.fat.write(c.handle, bytes.data(), 100);
    EXPECT_EQ(c.fat.lseek(c.handle, offset, whence), position);
    EXPECT_EQ(c.io.sequence(), "wfl");
    c.fat.write(c.handle, bytes.data() + 100, 100);
    c.fat.close(c.handle);
    EXPECT_EQ(c.card.readChunk(tarn::kFileSyslog, 1, static_cast<uint64_t>(position), 100),
              std::vector<uint8_t>(bytes.begin() + 100, bytes.end()));
    EXPECT_EQ(c.card.readChunk(tarn::kFileSyslog, 1, 0, static_cast<size_t>(position)),
              std::vector<uint8_t>(bytes.begin(), bytes.begin() + position));
  }
}

TEST(FatSeek, SeekingAStreamTellsAnewWhetherItIsAligned) {
  OpenChunk c(kStream, O_RDWR, streamsPastBoundary(0));
  const std::vector<uint8_t> bytes(kMiB, 0x11);
  const auto start = static_cast<int64_t>(c.card.chunkStart(kStream, 1));
  c.fat.lseek(c.handle, 1000, SEEK_SET);
  c.fat.write(c.handle, bytes.data(), kMiB);
  EXPECT_THAT(c.io.writes(), ElementsAre(WriteRecord{start + 1000, 65536 - 1000}));
  c.fat.lseek(c.handle, 2 * kMiB, SEEK_SET);
  c.io.clear();
  c.fat.write(c.handle, bytes.data(), kMiB);
  c.fat.fsync(c.handle);
  EXPECT_THAT(c.io.writes(), ElementsAre(WriteRecord{start + 2 * kMiB, kMiB}));
}

TEST(FatSeek, EndIsNotSupported) {
  OpenChunk c(kStream, O_RDWR);
  EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_END), -1);
  EXPECT_THAT(fatLines(c.log), ElementsAre("lseek: lseek: SEEK_END is not supported"));
  EXPECT_EQ(c.io.sequence(), "");
}

TEST(FatSeek, OtherOriginsAreRefusedAndMoveNothing) {
  for (int whence : {-1, 3, 4, 99}) {  // 3 and 4 mean data and holes to the system
    OpenChunk c(kJournal, O_RDWR);
    EXPECT_EQ(c.fat.lseek(c.handle, 0, whence), -1);
    EXPECT_THAT(fatLines(c.log), ElementsAre("lseek: CFATAccess.lseek"));
    EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), 0);
  }
}

TEST(FatSeek, DeviceThatRefusesIsReported) {
  OpenChunk c(kJournal, O_RDWR);
  c.io.fail(Call::Lseek, 1, EIO);
  EXPECT_EQ(c.fat.lseek(c.handle, 10, SEEK_SET), -1);
  EXPECT_THAT(fatLines(c.log), ElementsAre("lseek: CFATAccess.lseek"));
  EXPECT_EQ(c.fat.lseek(c.handle, 10, SEEK_SET), 10);
}

TEST(FatSeek, UnbufferedHandleAsksTheDeviceEachTime) {
  OpenChunk c(kJournal, O_RDWR);
  EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), 0);
  EXPECT_EQ(c.fat.lseek(c.handle, 64, SEEK_SET), 64);
  EXPECT_EQ(c.fat.lseek(c.handle, 64, SEEK_SET), 64);
  EXPECT_EQ(c.fat.lseek(c.handle, -10, SEEK_CUR), 54);
  EXPECT_EQ(c.io.sequence(), "llll");
}

TEST(FatSeek, PositionInFrontOfTheChunkIsNegative) {
  OpenChunk c(kJournal, O_RDWR);
  EXPECT_EQ(c.fat.lseek(c.handle, -512, SEEK_SET), -512);
  EXPECT_THAT(fatLines(c.log), IsEmpty());
}

TEST(FatSeek, PositionsAreSigned32BitOnEveryMachine) {
  CardLayout layout;
  layout.fillUndefined = false;
  layout.families[kJournal] = {1073741824, 8, 8192};
  OpenChunk c(kJournal, O_RDWR, layout, 5);
  EXPECT_EQ(c.fat.lseek(c.handle, 0x7FFFFFFF, SEEK_SET), 2147483647);
  EXPECT_EQ(c.fat.lseek(c.handle, 1, SEEK_CUR), -2147483647L - 1);
  EXPECT_EQ(c.fat.lseek(c.handle, 10, SEEK_CUR), -2147483638L);
  // An offset is 32 bits, too: this one lies in front of the chunk.
  EXPECT_EQ(c.fat.lseek(c.handle, static_cast<long>(0x80000001u), SEEK_SET), -2147483647L);
  EXPECT_EQ(c.io.calls().back().offset, 5372903424 - 2147483647);
}

TEST(FatSeek, ReadAheadStaysWhenTheHandleDoesNotMove) {
  OpenChunk c(kPicture, O_RDONLY);
  const auto bytes = patternBytes(8192);
  c.card.writeChunk(kPicture, 1, 0, bytes);
  readHandle(c.fat, c.handle, 32);
  EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), 32);
  EXPECT_EQ(c.fat.lseek(c.handle, 32, SEEK_SET), 32);
  readHandle(c.fat, c.handle, 32);
  EXPECT_EQ(c.io.sequence(), "r");
  EXPECT_EQ(c.fat.lseek(c.handle, 4000, SEEK_SET), 4000);
  EXPECT_EQ(readHandle(c.fat, c.handle, 64),
            std::vector<uint8_t>(bytes.begin() + 4000, bytes.begin() + 4064));
  EXPECT_EQ(c.io.sequence(), "rlr");
}

TEST(FatSeek, RelativeSeekOfAReadBufferedHandleCountsFromTheBlocksEnd) {
  OpenChunk c(kPicture, O_RDONLY);
  const auto bytes = patternBytes(8192);
  c.card.writeChunk(kPicture, 1, 0, bytes);
  readHandle(c.fat, c.handle, 32);
  EXPECT_EQ(c.fat.lseek(c.handle, 10, SEEK_CUR), 4106);
  EXPECT_EQ(readHandle(c.fat, c.handle, 16),
            std::vector<uint8_t>(bytes.begin() + 4106, bytes.begin() + 4122));
}

TEST(FatSeek, AlignmentIsTheDevicesOwnPosition) {
  OpenChunk c(kJournal, O_RDWR);
  const long start = static_cast<long>(c.card.chunkStart(kJournal, 1));
  ASSERT_EQ(start % 65536, 0);
  EXPECT_TRUE(c.fat.isSdAligned(c.handle));
  c.fat.lseek(c.handle, 1, SEEK_SET);
  EXPECT_FALSE(c.fat.isSdAligned(c.handle));
  c.fat.lseek(c.handle, -65536, SEEK_SET);
  EXPECT_TRUE(c.fat.isSdAligned(c.handle));
  c.io.fail(Call::Lseek, 1, EIO);
  EXPECT_FALSE(c.fat.isSdAligned(c.handle));
  EXPECT_THAT(fatLines(c.log), ElementsAre("isSdAligned: lseek error"));
}

TEST(FatClose, HandlesThatAreNotOpenAreRefused) {
  CFATAccess fat;
  SyslogCapture log;
  EXPECT_EQ(fat.close(50), -1);
  EXPECT_EQ(fat.close(-1), -1);
  EXPECT_EQ(fat.close(49), -1);
  EXPECT_THAT(fatLines(log),
              ElementsAre("close: close: invalid index", "close: close: invalid index",
                          "close: close: invalid index. not opened file"));
}

TEST(FatClose, SecondCloseIsRefused) {
  OpenChunk c(kStream, O_RDWR);
  EXPECT_EQ(c.fat.close(c.handle), 0);
  EXPECT_EQ(c.fat.close(c.handle), -1);
  EXPECT_THAT(fatLines(c.log), ElementsAre("close: close: invalid index. not opened file"));
}

TEST(FatClose, WhatIsBufferedIsWrittenFirst) {
  OpenChunk c(kPicture, O_RDWR);
  const auto bytes = patternBytes(777);
  c.fat.write(c.handle, bytes.data(), 777);
  EXPECT_EQ(c.fat.close(c.handle), 0);
  EXPECT_EQ(c.io.sequence(), "wfc");
  EXPECT_EQ(c.card.readChunk(kPicture, 1, 0, 777), bytes);
}

TEST(FatClose, ReusedHandleStartsWithoutTheOldOnesBuffers) {
  OpenChunk c(kPicture, O_RDWR);
  c.fat.write(c.handle, "0123456789", 10);
  c.fat.close(c.handle);
  ASSERT_EQ(c.fat.open(c.card.name(kJournal, 0).c_str(), O_RDWR), c.handle);
  c.io.clear();
  EXPECT_EQ(c.fat.write(c.handle, "abc", 3), 3);
  EXPECT_EQ(c.io.sequence(), "w");
  c.fat.close(c.handle);
  ASSERT_EQ(c.fat.open(c.card.name(kPicture, 1).c_str(), O_RDONLY), c.handle);
  c.fat.read(c.handle, std::vector<uint8_t>(32).data(), 32);
  c.fat.close(c.handle);
  ASSERT_EQ(c.fat.open(c.card.name(kPicture, 2).c_str(), O_RDONLY), c.handle);
  EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), 0);
  EXPECT_EQ(readHandle(c.fat, c.handle, 32), std::vector<uint8_t>(32, 0xCC));
  EXPECT_THAT(fatLines(c.log), IsEmpty());
}

// The handle reports where it would be had all been done; what is written next belongs there.
TEST(FatSeek, AfterAReadThatFailedTheReportedPositionIsReallyGoneTo) {
  for (const bool shortened : {false, true}) {
    OpenChunk c(kPicture, O_RDWR);
    Bytes got(64);
    if (shortened) {
      c.io.shorten(Call::Read, 1, 32);
    } else {
      c.io.fail(Call::Read, 1, EIO);
    }
    EXPECT_EQ(c.fat.read(c.handle, got.data(), 64), shortened ? 32 : -1);
    EXPECT_EQ(c.fat.lseek(c.handle, 0, SEEK_CUR), 64);
    EXPECT_EQ(c.fat.lseek(c.handle, 64, SEEK_SET), 64);
    const auto bytes = patternBytes(32);
    EXPECT_EQ(c.fat.write(c.handle, bytes.data(), 32), 32);
    EXPECT_EQ(c.fat.close(c.handle), 0);
    EXPECT_EQ(c.card.readChunk(kPicture, 1, 64, 32), bytes) << shortened;
    EXPECT_EQ(c.card.readChunk(kPicture, 1, 0, 64), Bytes(64, 0xCC));
  }
}

TEST(FatSeek, AfterARefusedWriteTheReportedPositionIsReallyGoneTo) {
  OpenChunk c(kPicture, O_RDWR);
  const auto large = patternBytes(32 * 1024 + 1);
  const auto bytes = patternBytes(32);
  EXPECT_EQ(c.fat.write(c.handle, bytes.data(), 32), 32);
  EXPECT_EQ(c.fat.write(c.handle, large.data(), large.size()), -1);
  const long position = c.fat.lseek(c.handle, 0, SEEK_CUR);
  EXPECT_EQ(position, 32 + static_cast<long>(large.size()));
  EXPECT_EQ(c.fat.lseek(c.handle, position, SEEK_SET), position);
  EXPECT_EQ(c.fat.write(c.handle, bytes.data(), 32), 32);
  EXPECT_EQ(c.fat.close(c.handle), 0);
  EXPECT_EQ(c.card.readChunk(kPicture, 1, 0, 32), bytes);
  EXPECT_EQ(c.card.readChunk(kPicture, 1, static_cast<uint64_t>(position), 32), bytes);
}

TEST(FatSeek, WhatAFlushLostIsKnownOfTheHandleItself) {
  OpenChunk c(kPicture, O_RDWR);
  const auto bytes = patternBytes(32);
  EXPECT_FALSE(c.fat.hasLostData(c.handle));
  c.io.fail(Call::Fsync, 1, EIO);
  c.fat.write(c.handle, bytes.data(), 32);
  EXPECT_EQ(c.fat.fsync(c.handle), 0) << "as ever: the marker file tells";
  EXPECT_TRUE(c.fat.hasLostData(c.handle));
  c.fat.write(c.handle, bytes.data(), 32);
  EXPECT_EQ(c.fat.fsync(c.handle), 0);
  EXPECT_TRUE(c.fat.hasLostData(c.handle)) << "a later flush brings nothing back";
  EXPECT_EQ(c.fat.close(c.handle), 0);
  c.handle = c.fat.open(c.card.name(kPicture, 1).c_str(), O_RDWR);
  EXPECT_FALSE(c.fat.hasLostData(c.handle));
  EXPECT_FALSE(c.fat.hasLostData(-1));
  EXPECT_FALSE(c.fat.hasLostData(50));
}

}  // namespace
}  // namespace tarn_test
