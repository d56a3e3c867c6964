// The stand-ins that the tests of all folders rely on, tested themselves.
#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>

#include "fat/FatTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;

TEST(StandIns, CallsAreCountedByThePathOfTheirDescriptor) {
  IoFaults mine("/tmp/a");
  IoFaults all("");
  const int a = ::open("/tmp/a", O_RDWR | O_CREAT, 0600);
  const int b = ::open("/tmp/b", O_RDWR | O_CREAT, 0600);
  EXPECT_EQ(::write(a, "abc", 3), 3);
  EXPECT_EQ(::write(b, "abcd", 4), 4);
  EXPECT_EQ(::lseek(a, 1, SEEK_SET), 1);
  char out[2];
  EXPECT_EQ(::read(a, out, 2), 2);
  EXPECT_EQ(::pwrite(a, "z", 1, 100), 1);
  EXPECT_EQ(::pread(a, out, 1, 100), 1);
  EXPECT_EQ(::fsync(a), 0);
  ::close(a);
  ::close(b);
  EXPECT_EQ(mine.sequence(), "owlrWRfc");
  EXPECT_THAT(mine.writes(), ElementsAre(WriteRecord{0, 3}, WriteRecord{100, 1}));
  EXPECT_EQ(all.count(Call::Write), 2u);
  EXPECT_EQ(mine.calls()[3].offset, 1);
  EXPECT_EQ(mine.calls()[3].result, 2);
}

TEST(StandIns, OrdersCountFromWhenTheyWereGiven) {
  const int fd = ::open("/tmp/a", O_RDWR | O_CREAT | O_TRUNC, 0600);
  IoFaults io("/tmp/a");
  EXPECT_EQ(::write(fd, "1", 1), 1);
  io.fail(Call::Write, 2, ENOSPC, 2);
  EXPECT_EQ(::write(fd, "2", 1), 1);
  EXPECT_EQ(::write(fd, "3", 1), -1);
  EXPECT_EQ(errno, ENOSPC);
  EXPECT_EQ(::write(fd, "4", 1), -1);
  EXPECT_EQ(::write(fd, "5", 1), 1);
  io.shorten(Call::Write, 1, 2, EINTR);
  errno = 0;
  EXPECT_EQ(::write(fd, "678", 3), 2);
  EXPECT_EQ(errno, EINTR);
  char out[8] = {};
  EXPECT_EQ(::pread(fd, out, 8, 0), 5);
  EXPECT_STREQ(out, "12567");
  ::close(fd);
}

TEST(StandIns, BlockedCallGoesOnWhenReleased) {
  const int fd = ::open("/tmp/a", O_RDWR | O_CREAT | O_TRUNC, 0600);
  IoFaults io("/tmp/a");
  io.block(Call::Write, 1);
  std::thread writer([fd] { EXPECT_EQ(::write(fd, "x", 1), 1); });
  ASSERT_TRUE(io.waitUntilBlocked());
  char byte = 0;
  EXPECT_EQ(::pread(fd, &byte, 1, 0), 0);
  io.release();
  writer.join();
  EXPECT_EQ(::pread(fd, &byte, 1, 0), 1);
  ::close(fd);
}

TEST(StandIns, AllocationsOfTheThreadAreCounted) {
  AllocationCount allocations;
  EXPECT_EQ(allocations.count(), 0u);
  auto number = std::make_unique<int>(3);
  void* volatile block = malloc(100);
  EXPECT_EQ(allocations.count(), 2u);
  free(block);
}

TEST(StandIns, AllocationsOfAllThreadsAreCountedOnRequest) {
  std::atomic<int> step{0};
  const auto await = [&](int n) {
    while (step < n) std::this_thread::yield();
  };
  std::thread other([&] {
    step = 1;
    await(2);
    auto number = std::make_unique<int>(3);
    void* volatile block = malloc(100);
    free(block);
    step = 3;
    await(4);
  });
  await(1);  // a sanitizer allocates as a thread starts
  AllocationCount ours;
  AllocationCount all(AllocationCount::Of::AllThreads);
  step = 2;
  await(3);
  EXPECT_EQ(ours.count(), 0u);
  EXPECT_EQ(all.count(), 2u);
  step = 4;
  other.join();
}

TEST(StandIns, CardHoldsGoodManagementFiles) {
  CardImage card;
  card.initManagement();
  // Golden: four records, each 6 bytes 0, chType 0xFF, then 17 bytes 0, and their CRC.
  std::vector<uint8_t> records(96, 0);
  for (size_t i = 6; i < 96; i += 24) records[i] = 0xFF;
  for (int copy : {0, 1}) {
    EXPECT_EQ(card.readChunk(tarn::kFileStreamManage, copy, 0, 96), records);
    EXPECT_EQ(card.readChunk(tarn::kFileSyslogManage, copy, 0, 122), std::vector<uint8_t>(122, 0));
    EXPECT_EQ(card.readChunk(tarn::kFileStreamManage, copy, 98, 2), std::vector<uint8_t>(2, 0xCC));
  }
  card.writeManagement(tarn::kFileStreamManage, 0, {'1', '2', '3', '4', '5', '6', '7', '8', '9'});
  EXPECT_THAT(card.readChunk(tarn::kFileStreamManage, 0, 9, 2), ElementsAre(0xC3, 0x31));
  EXPECT_EQ(card.readChunk(tarn::kFileJournal, 3, 0, 65536), std::vector<uint8_t>(65536, 0xFF));
  EXPECT_EQ(card.readChunk(tarn::kFileDbImage, 0, 0, 4), std::vector<uint8_t>(4, 0));
}

}  // namespace
}  // namespace tarn_test
