#include <cerrno>
#include <chrono>
#include <future>
#include <thread>

#include "fat/FatTest.h"
#include "support/Pace.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using namespace std::chrono_literals;

constexpr int kStream = tarn::kFileStream;
constexpr int kPicture = tarn::kFilePicture;
constexpr int kSyslog = tarn::kFileSyslog;
constexpr int kJournal = tarn::kFileJournal;

struct OpenCard {
  explicit OpenCard(const CardLayout& layout = {}) : card(layout) {}
  int open(int type, int n = 0, int flags = O_RDWR) {
    return fat.open(card.name(type, n).c_str(), flags);
  }
  // Bytes of the chunk that are still as the card was made.
  bool untouched(int type, int n, uint64_t offset, size_t length) {
    return card.readChunk(type, n, offset, length) == std::vector<uint8_t>(length, 0xCC);
  }

  CardImage card;
  SyslogCapture log;
  IoFaults io{kCardPath};
  CFATAccess fat;
};

TEST(FatBufferedWrite, FirstFlushOfAStreamIsCutAtThe64KiBBoundary) {
  OpenCard c(streamsPastBoundary(4096));
  const uint64_t start = c.card.chunkStart(kStream, 0);
  ASSERT_EQ(start % 65536, 4096u);
  const auto bytes = patternBytes(3 * kMiB);
  const int handle = c.open(kStream);
  c.io.clear();
  EXPECT_FALSE(c.fat.isSdAligned(handle));
  EXPECT_EQ(c.fat.write(handle, bytes.data(), kMiB), static_cast<long>(kMiB));
  EXPECT_TRUE(c.fat.isSdAligned(handle));
  EXPECT_THAT(c.io.writes(), ElementsAre(WriteRecord{static_cast<int64_t>(start), 61440}));
  EXPECT_TRUE(c.untouched(kStream, 0, 61440, kMiB));
  EXPECT_EQ(c.fat.lseek(handle, 0, SEEK_CUR), static_cast<long>(kMiB));
  // 987136 bytes are held; one byte short of a full buffer stays so, the next byte sends it.
  EXPECT_EQ(c.fat.write(handle, bytes.data() + kMiB, 61439), 61439);
  EXPECT_EQ(c.io.count(Call::Write), 1u);
  EXPECT_EQ(c.fat.write(handle, bytes.data() + kMiB + 61439, 1), 1);
  EXPECT_EQ(c.fat.fsync(handle), 0);
  EXPECT_THAT(c.io.writes(), ElementsAre(WriteRecord{static_cast<int64_t>(start), 61440},
                                         WriteRecord{static_cast<int64_t>(start) + 61440, kMiB}));
  EXPECT_EQ(c.card.readChunk(kStream, 0, 0, kMiB + 61440),
            std::vector<uint8_t>(bytes.begin(), bytes.begin() + kMiB + 61440));
  EXPECT_THAT(fatLines(c.log), IsEmpty());
}

TEST(FatBufferedWrite, SmallWritesUpToTheBoundaryAreCollected) {
  OpenCard c(streamsPastBoundary(65536 - 512));  // 512 bytes in front of a boundary
  const auto start = static_cast<int64_t>(c.card.chunkStart(kStream, 0));
  const auto bytes = patternBytes(1000);
  const int handle = c.open(kStream);
  c.io.clear();
  EXPECT_EQ(c.fat.write(handle, bytes.data(), 300), 300);
  EXPECT_EQ(c.fat.write(handle, bytes.data() + 300, 211), 211);
  EXPECT_EQ(c.io.count(Call::Write), 0u);
  EXPECT_EQ(c.fat.write(handle, bytes.data() + 511, 1), 1);  // exactly at the boundary
  EXPECT_THAT(c.io.writes(), ElementsAre(WriteRecord{start, 512}));
  EXPECT_EQ(c.fat.write(handle, bytes.data() + 512, 488), 488);
  EXPECT_EQ(c.io.count(Call::Write), 1u);
  EXPECT_EQ(c.fat.close(handle), 0);
  EXPECT_THAT(c.io.writes(), ElementsAre(WriteRecord{start, 512}, WriteRecord{start + 512, 488}));
  EXPECT_EQ(c.card.readChunk(kStream, 0, 0, 1000), bytes);
}

TEST(FatBufferedWrite, AfterAShortFlushAStreamFindsTheBoundaryAgain) {
  OpenCard c(streamsPastBoundary(0));
  const auto start = static_cast<int64_t>(c.card.chunkStart(kStream, 0));
  const auto bytes = patternBytes(kMiB);
  const int handle = c.open(kStream);
  c.io.clear();
  c.fat.write(handle, bytes.data(), 1000);
  EXPECT_EQ(c.fat.fsync(handle), 0);
  EXPECT_EQ(c.fat.write(handle, bytes.data(), kMiB), static_cast<long>(kMiB));
  EXPECT_THAT(c.io.writes(),
              ElementsAre(WriteRecord{start, 1000}, WriteRecord{start + 1000, 64536}));
}

TEST(FatBufferedWrite, AlignedStreamAsksTheDeviceForItsPositionOnce) {
  OpenCard c(streamsPastBoundary(0));
  const int handle = c.open(kStream);
  c.io.clear();
  for (int i = 0; i < 100; ++i) c.fat.write(handle, "0123456789", 10);
  EXPECT_EQ(c.io.sequence(), "");
}

TEST(FatBufferedWrite, WriteOfExactlyTheCapacityHandsOneBufferOver) {
  for (const auto& [type, capacity] :
       {std::pair<int, uint32_t>{kStream, kMiB}, {kPicture, 32 * kKiB}, {kSyslog, 32 * kKiB}}) {
    OpenCard c(streamsPastBoundary(0));
    const auto bytes = patternBytes(capacity);
    const int handle = c.open(type);
    c.io.clear();
    EXPECT_EQ(c.fat.write(handle, bytes.data(), capacity - 1), static_cast<long>(capacity - 1));
    EXPECT_EQ(c.fat.lseek(handle, 0, SEEK_SET), 0);  // flushes; the next buffer starts empty
    c.io.clear();
    EXPECT_EQ(c.fat.write(handle, bytes.data(), capacity), static_cast<long>(capacity));
    EXPECT_EQ(c.fat.fsync(handle), 0);  // of an empty buffer: the caller's own, behind the worker's
    EXPECT_EQ(c.io.count(Call::Write), 1u);
    EXPECT_EQ(c.io.count(Call::Fsync), 2u);
    EXPECT_EQ(c.card.readChunk(type, 0, 0, capacity), bytes);
  }
}

TEST(FatBufferedWrite, WriteBeyondTheBuffersEndKeepsTheRest) {
  OpenCard c;
  const auto bytes = patternBytes(50000);
  const int handle = c.open(kPicture);
  c.io.clear();
  EXPECT_EQ(c.fat.write(handle, bytes.data(), 30000), 30000);
  EXPECT_EQ(c.fat.write(handle, bytes.data() + 30000, 20000), 20000);
  EXPECT_EQ(c.fat.lseek(handle, 0, SEEK_CUR), 50000);
  EXPECT_EQ(c.fat.close(handle), 0);
  const auto start = static_cast<int64_t>(c.card.chunkStart(kPicture, 0));
  EXPECT_THAT(c.io.writes(),
              ElementsAre(WriteRecord{start, 32768}, WriteRecord{start + 32768, 50000 - 32768}));
  EXPECT_EQ(c.card.readChunk(kPicture, 0, 0, 50000), bytes);
  EXPECT_TRUE(c.untouched(kPicture, 0, 50000, 1000));
}

TEST(FatBufferedWrite, MoreThanOneBufferIsRefusedButMovesTheCallersPosition) {
  OpenCard c;
  const std::vector<uint8_t> bytes(kMiB + 1);
  const int stream = c.open(kStream);
  const int syslog = c.open(kSyslog);
  c.io.clear();
  EXPECT_EQ(c.fat.write(stream, bytes.data(), kMiB + 1), -1);
  EXPECT_EQ(c.fat.write(syslog, bytes.data(), 32 * kKiB + 1), -1);
  EXPECT_THAT(fatLines(c.log), ElementsAre("write: write : data size too large",
                                           "write: write : data size too large"));
  EXPECT_EQ(c.fat.lseek(stream, 0, SEEK_CUR), static_cast<long>(kMiB + 1));
  EXPECT_EQ(c.fat.lseek(syslog, 0, SEEK_CUR), 32 * 1024 + 1);
  EXPECT_EQ(c.fat.close(stream), 0);
  EXPECT_EQ(c.io.count(Call::Write), 0u);
}

TEST(FatBufferedWrite, LengthsAre32BitsOnEveryMachine) {
  if (sizeof(long) == 4) GTEST_SKIP() << "nothing to cut";
  OpenCard c;
  const int handle = c.open(kSyslog);
  EXPECT_EQ(c.fat.write(handle, "abc", static_cast<unsigned long>(0x100000003ull)), 3);
  EXPECT_EQ(c.fat.lseek(handle, 0, SEEK_CUR), 3);
}

TEST(FatBufferedWrite, EachBufferIsFollowedByTheDevicesFlush) {
  OpenCard c;
  const auto bytes = patternBytes(32 * kKiB);
  const int handle = c.open(kSyslog);
  c.io.clear();
  c.fat.write(handle, bytes.data(), bytes.size());
  c.fat.write(handle, bytes.data(), 10);
  EXPECT_EQ(c.fat.fsync(handle), 0);
  EXPECT_EQ(c.io.sequence(), "wfwf");
}

TEST(FatBufferedWrite, UnbufferedHandlesWriteAtOnce) {
  OpenCard c;
  const int handle = c.open(kJournal, 1);
  c.io.clear();
  EXPECT_EQ(c.fat.write(handle, "abcdef", 6), 6);
  EXPECT_EQ(c.io.sequence(), "w");
  EXPECT_EQ(c.fat.fsync(handle), 0);
  EXPECT_EQ(c.io.sequence(), "wf");
  c.io.fail(Call::Write, 1, ENOSPC);
  EXPECT_EQ(c.fat.write(handle, "abcdef", 6), -1);
  EXPECT_EQ(errno, ENOSPC);
  c.io.shorten(Call::Write, 1, 2);
  EXPECT_EQ(c.fat.write(handle, "abcdef", 6), 2);
  c.io.fail(Call::Fsync, 1, EIO);
  EXPECT_EQ(c.fat.fsync(handle), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_THAT(fatLines(c.log), IsEmpty());
}

TEST(FatBufferedWrite, FsyncOfAnEmptyBufferIsTheDevicesOwn) {
  OpenCard c;
  unlink(kMarker);
  const int handle = c.open(kStream);
  c.io.clear();
  EXPECT_EQ(c.fat.fsync(handle), 0);
  EXPECT_EQ(c.io.sequence(), "f");
  c.io.fail(Call::Fsync, 1, EIO);
  EXPECT_EQ(c.fat.fsync(handle), -1);
  EXPECT_THAT(fatLines(c.log), IsEmpty());
  EXPECT_NE(access(kMarker, F_OK), 0);
}

TEST(FatBufferedWrite, WriterWaitsOnlyWhenBothBuffersAreFull) {
  OpenCard c(streamsPastBoundary(0));
  const auto bytes = patternBytes(3 * kMiB);
  const int handle = c.open(kStream);
  c.io.block(Call::Write, 1);
  EXPECT_EQ(c.fat.write(handle, bytes.data(), kMiB), static_cast<long>(kMiB));
  ASSERT_TRUE(c.io.waitUntilBlocked());
  // The worker stands still; the whole second buffer goes in at once, and nobody is in the way.
  EXPECT_EQ(c.fat.write(handle, bytes.data() + kMiB, 1000), 1000);
  EXPECT_EQ(c.fat.write(handle, bytes.data() + kMiB + 1000, kMiB - 1000),
            static_cast<long>(kMiB - 1000));
  EXPECT_EQ(c.fat.lseek(handle, 0, SEEK_CUR), static_cast<long>(2 * kMiB));
  EXPECT_EQ(c.fat.write(handle, nullptr, 0), 0);
  auto third = std::async(std::launch::async,
                          [&] { return c.fat.write(handle, bytes.data() + 2 * kMiB, kMiB); });
  EXPECT_EQ(third.wait_for(50ms), std::future_status::timeout);
  c.io.release();
  EXPECT_EQ(third.get(), static_cast<long>(kMiB));
  EXPECT_EQ(c.fat.fsync(handle), 0);
  EXPECT_EQ(c.card.readChunk(kStream, 0, 0, 3 * kMiB), bytes);
  EXPECT_EQ(c.io.count(Call::Write), 3u);
}

TEST(FatBufferedWrite, WorkerGoesOnWithAFullSecondBufferByItself) {
  OpenCard c(streamsPastBoundary(0));
  const auto bytes = patternBytes(2 * kMiB);
  const int handle = c.open(kStream);
  c.io.block(Call::Write, 1);
  c.fat.write(handle, bytes.data(), kMiB);
  ASSERT_TRUE(c.io.waitUntilBlocked());
  c.fat.write(handle, bytes.data() + kMiB, kMiB);
  c.io.release();
  // No call of ours hands the second one over.
  while (c.io.count(Call::Fsync) < 2) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(c.card.readChunk(kStream, 0, 0, 2 * kMiB), bytes);
}

TEST(FatBufferedWrite, CloseWritesBothFullBuffers) {
  OpenCard c(streamsPastBoundary(0));
  const auto bytes = patternBytes(2 * kMiB);
  const int handle = c.open(kStream);
  c.io.block(Call::Write, 1);
  c.fat.write(handle, bytes.data(), kMiB);
  ASSERT_TRUE(c.io.waitUntilBlocked());
  c.fat.write(handle, bytes.data() + kMiB, kMiB);
  auto done = std::async(std::launch::async, [&] { return c.fat.close(handle); });
  EXPECT_EQ(done.wait_for(50ms), std::future_status::timeout);
  c.io.release();
  EXPECT_EQ(done.get(), 0);
  EXPECT_EQ(c.card.readChunk(kStream, 0, 0, 2 * kMiB), bytes);
}

TEST(FatBufferedWrite, StalledHandleDoesNotHoldUpAnothersWriter) {
  OpenCard c(streamsPastBoundary(0));
  const auto bytes = patternBytes(kMiB);
  const int stream = c.open(kStream);
  const int picture = c.open(kPicture);
  c.io.block(Call::Write, 1);
  c.fat.write(stream, bytes.data(), kMiB);
  ASSERT_TRUE(c.io.waitUntilBlocked());
  EXPECT_EQ(c.fat.write(picture, bytes.data(), 32 * kKiB), 32 * 1024);  // a hand-over
  EXPECT_EQ(c.fat.write(picture, bytes.data() + 32 * kKiB, 1000), 1000);
  c.io.release();
  EXPECT_EQ(c.fat.close(picture), 0);
  EXPECT_EQ(c.fat.close(stream), 0);
  EXPECT_EQ(c.card.readChunk(kStream, 0, 0, kMiB), bytes);
  EXPECT_EQ(c.card.readChunk(kPicture, 0, 0, 33768),
            std::vector<uint8_t>(bytes.begin(), bytes.begin() + 33768));
}

// Hands one full buffer over, stalls the worker in it and checks that `operation` waits for it,
// although nothing is left in front.
void expectWaitsForWorker(const std::function<long(CFATAccess&, int)>& operation, long result) {
  OpenCard c(streamsPastBoundary(0));
  const auto bytes = patternBytes(kMiB);
  const int handle = c.open(kStream);
  c.io.block(Call::Write, 1);
  c.fat.write(handle, bytes.data(), kMiB);
  ASSERT_TRUE(c.io.waitUntilBlocked());
  auto done = std::async(std::launch::async, [&] { return operation(c.fat, handle); });
  EXPECT_EQ(done.wait_for(50ms), std::future_status::timeout);
  c.io.release();
  EXPECT_EQ(done.get(), result);
  EXPECT_EQ(c.card.readChunk(kStream, 0, 0, kMiB), bytes);
  EXPECT_TRUE(c.untouched(kStream, 0, kMiB, kMiB));
}

TEST(FatBufferedWrite, FsyncWaitsForThePendingBuffer) {
  expectWaitsForWorker([](CFATAccess& fat, int handle) { return fat.fsync(handle); }, 0);
}

TEST(FatBufferedWrite, SeekWaitsForThePendingBuffer) {
  expectWaitsForWorker([](CFATAccess& fat, int handle) { return fat.lseek(handle, 77, SEEK_SET); },
                       77);
}

TEST(FatBufferedWrite, CloseWaitsForThePendingBuffer) {
  expectWaitsForWorker([](CFATAccess& fat, int handle) { return fat.close(handle); }, 0);
}

TEST(FatBufferedWrite, ReadWaitsForThePendingBuffer) {
  expectWaitsForWorker(
      [](CFATAccess& fat, int handle) {
        std::vector<uint8_t> bytes(10);
        return fat.read(handle, bytes.data(), 10);
      },
      10);
}

TEST(FatBufferedWrite, DestructorWritesEverythingOut) {
  CardImage card(streamsPastBoundary(4096));
  const auto bytes = patternBytes(3 * kMiB);
  {
    CFATAccess fat;
    for (int n = 0; n < 4; ++n) {
      const int stream = fat.open(card.name(kStream, n).c_str(), O_RDWR);
      const int picture = fat.open(card.name(kPicture, n).c_str(), O_RDWR);
      for (uint32_t at = 0; at < bytes.size(); at += 30000) {
        const size_t length = std::min<size_t>(30000, bytes.size() - at);
        EXPECT_EQ(fat.write(stream, bytes.data() + at, length), static_cast<long>(length));
      }
      fat.write(picture, bytes.data(), 100);
    }
  }
  for (int n = 0; n < 4; ++n) {
    EXPECT_EQ(card.readChunk(kStream, n, 0, bytes.size()), bytes);
    EXPECT_EQ(card.readChunk(kPicture, n, 0, 100),
              std::vector<uint8_t>(bytes.begin(), bytes.begin() + 100));
  }
}

TEST(FatBufferedWrite, DestructorNeverLosesTheWorkersWakeUp) {
  for (int i = 0; i < tries(2000); ++i) {
    CFATAccess fat;
    ASSERT_EQ(fat.startThread(), 0);
    if (i % 2 == 0) std::this_thread::yield();
  }
}

TEST(FatBufferedWrite, WorkersEntryReturnsAtOnceWhenNoWorkerRuns) {
  CFATAccess fat;
  EXPECT_EQ(CFATAccess::m_runThread(&fat), nullptr);
  fat.m_bufferWriteFunc();
}

TEST(FatBufferedWrite, WritingAllocatesNothing) {
  CardImage card(streamsPastBoundary(4096));
  const auto bytes = patternBytes(20 * kKiB);
  CFATAccess fat;
  const int stream = fat.open(card.name(kStream, 0).c_str(), O_RDWR);
  const int journal = fat.open(card.name(kJournal, 0).c_str(), O_RDWR);
  fat.write(stream, bytes.data(), bytes.size());
  AllocationCount allocations;
  for (int i = 0; i < 150; ++i) fat.write(stream, bytes.data(), bytes.size());
  fat.write(journal, bytes.data(), 64);
  fat.fsync(journal);
  fat.lseek(stream, 0, SEEK_SET);
  EXPECT_EQ(allocations.count(), 0u);
}

}  // namespace
}  // namespace tarn_test
