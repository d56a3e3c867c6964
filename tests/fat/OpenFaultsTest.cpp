#include <cerrno>

#include "fat/FatTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// One device call of open() that fails, and what is said about it.
struct OpenFault {
  Call call;
  int n;
  std::vector<std::string> lines;
};

TEST(FatOpenFaults, EveryFailingDeviceCallIsReportedAndLeavesTheHandleFree) {
  const std::vector<OpenFault> faults = {
      {Call::Open, 1, {"open: open error /dev/sdblk0p1"}},
      {Call::Read, 1, {"open: read boot sector error /dev/sdblk0p1"}},
      {Call::Lseek, 1, {"open: lseek error"}},
      {Call::Read, 2, {"open: /dev/sdblk0p1 is not TARN filesystem"}},
      {Call::Lseek, 2, {"open: seekto FAT error"}},
      {Call::Read, 3, {"open: read chunk_info error /dev/sdblk0p1"}},
      {Call::Lseek, 3, {"lseek: CFATAccess.lseek", "open: lseek error"}},
  };
  CardImage card;
  for (int type : {tarn::kFileStream, tarn::kFilePicture, tarn::kFileJournal}) {
    for (const OpenFault& fault : faults) {
      SyslogCapture log;
      CFATAccess fat;
      IoFaults io(kCardPath);
      io.fail(fault.call, fault.n, EIO);
      EXPECT_EQ(fat.open(card.name(type, 0).c_str(), O_RDWR), -1);
      EXPECT_EQ(fatLines(log), fault.lines);
      EXPECT_EQ(io.count(Call::Close), fault.call == Call::Open ? 0u : 1u);
      // The same handle works at once, so nothing of the failed one is left.
      EXPECT_EQ(fat.open(card.name(type, 0).c_str(), O_RDWR), 0);
      EXPECT_EQ(fat.write(0, "x", 1), 1);
    }
  }
}

// The count is what open() itself goes by, so it is no longer the old one once the directory is
// looked through; the sizes stay those of the last open that worked.
TEST(FatOpenFaults, FromTheDirectoryOnAFailedOpenLeavesACountOfZero) {
  struct Fault {
    Call call;
    int n;
    int count;
  };
  CardImage card;
  for (const Fault& fault :
       {Fault{Call::Open, 1, 4}, Fault{Call::Read, 1, 4}, Fault{Call::Lseek, 1, 4},
        Fault{Call::Read, 2, 0}, Fault{Call::Lseek, 2, 0}, Fault{Call::Read, 3, 0}}) {
    SyslogCapture log;
    CFATAccess fat;
    ASSERT_EQ(fat.open(card.name(tarn::kFileJournal, 0).c_str(), O_RDWR), 0);
    ASSERT_EQ(fat.close(0), 0);
    IoFaults io(kCardPath);
    io.fail(fault.call, fault.n, EIO);
    EXPECT_EQ(fat.open(card.name(tarn::kFileStream, 0).c_str(), O_RDWR), -1);
    EXPECT_EQ(fat.chunks(0), fault.count);
    EXPECT_EQ(fat.getChunkSize(0), 64 * kKiB);
    EXPECT_EQ(fat.streamChunkSize(0), 4 * kMiB);
    EXPECT_EQ(fat.pictureChunkSize(0), 256 * kKiB);
  }
}

TEST(FatOpenFaults, ShortReadsAreReportedAsMissingData) {
  CardImage card;
  const std::pair<int, const char*> cases[] = {
      {1, "open: read boot sector error /dev/sdblk0p1"},
      {2, "open: /dev/sdblk0p1 is not TARN filesystem"},
      {3, "open: read chunk_info error /dev/sdblk0p1"},
  };
  for (const auto& [n, line] : cases) {
    for (uint64_t bytes : {0u, 3u, 31u}) {
      SyslogCapture log;
      CFATAccess fat;
      IoFaults io(kCardPath);
      io.shorten(Call::Read, n, bytes);
      EXPECT_EQ(fat.open(card.name(tarn::kFileJournal, 0).c_str(), O_RDWR), -1);
      EXPECT_THAT(fatLines(log), ElementsAre(line));
    }
  }
}

TEST(FatOpenFaults, EntriesInFrontOfAnUnreadablePlaceStillCount) {
  CardLayout layout;
  layout.infoEntry = 1;
  CardImage card(layout);
  CFATAccess fat;
  IoFaults io(kCardPath);
  io.shorten(Call::Read, 2, 64);
  EXPECT_EQ(fat.open(card.name(tarn::kFileJournal, 0).c_str(), O_RDWR), 0);
}

TEST(FatOpenFaults, MissingBufferMemoryIsReported) {
  if (!AllocationFault::supported()) GTEST_SKIP() << "the sanitizer owns malloc";
  CardImage card;
  struct Case {
    int type;
    int flags;
    size_t bytes;
    int n;
    const char* line;
  };
  const Case cases[] = {
      {tarn::kFileStream, O_RDWR, kMiB, 1, "open: write buffer alloc error"},
      {tarn::kFileStream, O_RDWR, kMiB, 2, "open: write buffer alloc error"},
      {tarn::kFilePicture, O_RDWR, 32 * kKiB, 2, "open: write buffer alloc error"},
      {tarn::kFileSyslog, O_RDWR, 32 * kKiB, 1, "open: write buffer alloc error"},
      {tarn::kFilePicture, O_RDONLY, 4096, 1, "open: read buffer alloc error"},
  };
  for (const Case& c : cases) {
    SyslogCapture log;
    CFATAccess fat;
    const std::string name = card.name(c.type, 0);
    // Takes what handles of before have given back.
    CFATAccess other;
    ASSERT_EQ(other.open(name.c_str(), c.flags), 0);
    const size_t descriptors = openDescriptors();
    int handle = 0;
    {
      AllocationFault fault(c.bytes, c.n);
      handle = fat.open(name.c_str(), c.flags);
    }
    EXPECT_EQ(handle, -1);
    EXPECT_THAT(fatLines(log), ElementsAre(c.line));
    EXPECT_EQ(openDescriptors(), descriptors);
    EXPECT_EQ(fat.open(name.c_str(), c.flags), 0);
  }
}

TEST(FatOpenFaults, ThreadThatCannotStartIsReportedAndTheCallerWritesItself) {
  CardImage card;
  SyslogCapture log;
  IoFaults everything("");
  everything.fail(Call::ThreadCreate, 1, EAGAIN, IoFaults::kForever);
  IoFaults io(kCardPath);
  const auto bytes = patternBytes(2 * kMiB + 100);
  {
    CFATAccess fat;
    ASSERT_EQ(fat.open(card.name(tarn::kFileStream, 0).c_str(), O_RDWR), 0);
    EXPECT_THAT(fatLines(log), ElementsAre("startThread: @CMesgServer# pthread_create() error"));
    EXPECT_EQ(fat.write(0, bytes.data(), kMiB), static_cast<long>(kMiB));
    EXPECT_EQ(io.count(Call::Write), 1u);
    EXPECT_EQ(io.count(Call::Fsync), 1u);
    EXPECT_EQ(fat.write(0, bytes.data() + kMiB, kMiB), static_cast<long>(kMiB));
    EXPECT_EQ(fat.write(0, bytes.data() + 2 * kMiB, 100), 100);
    EXPECT_EQ(fat.fsync(0), 0);
    log.clear();
    EXPECT_EQ(fat.startThread(), -1);
    EXPECT_THAT(fatLines(log), ElementsAre("startThread: @CMesgServer# pthread_create() error"));
  }
  EXPECT_EQ(card.readChunk(tarn::kFileStream, 0, 0, bytes.size()), bytes);
}

TEST(FatOpenFaults, WorkerStartsOnceAndOnlyForBufferedWriting) {
  CardImage card;
  IoFaults everything("");
  CFATAccess fat;
  fat.open(card.name(tarn::kFileJournal, 0).c_str(), O_RDWR);
  fat.open(card.name(tarn::kFilePicture, 0).c_str(), O_RDONLY);
  fat.open(card.name(tarn::kFileStream, 0).c_str(), O_RDONLY);
  EXPECT_EQ(everything.count(Call::ThreadCreate), 0u);
  fat.open(card.name(tarn::kFileSyslog, 0).c_str(), O_RDWR);
  EXPECT_EQ(everything.count(Call::ThreadCreate), 1u);
  fat.open(card.name(tarn::kFileStream, 0).c_str(), O_RDWR);
  EXPECT_EQ(fat.startThread(), 0);
  EXPECT_EQ(everything.count(Call::ThreadCreate), 1u);
}

}  // namespace
}  // namespace tarn_test
