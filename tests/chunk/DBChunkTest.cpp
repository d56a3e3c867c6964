#include <dlfcn.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <fstream>
#include <iterator>

#include "chunk/CTARNDBChunk.h"
#include "chunk/ChunkTest.h"

namespace {
std::atomic<int> g_pauses{0};
std::atomic<int> g_syncs{0};
std::atomic<bool> g_statFails{false};
}  // namespace

// The pause before the size is written is counted instead of waited for, as is the machine-wide
// sync; the executable's own definitions come first in symbol look-up.
extern "C" {
__attribute__((visibility("default"))) int usleep(useconds_t us) {
  if (us == 500000) {
    ++g_pauses;
    return 0;
  }
  const timespec time = {static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
  return nanosleep(&time, nullptr);
}
__attribute__((visibility("default"))) void sync(void) noexcept { ++g_syncs; }
__attribute__((visibility("default"))) int fstat64(int fd, struct stat64* out) noexcept {
  using Fstat = int (*)(int, struct stat64*);
  // The name that the header gives this function where time would else have 32 bits.
#ifdef __USE_TIME_BITS64
  static const auto real = reinterpret_cast<Fstat>(dlsym(RTLD_NEXT, "__fstat64_time64"));
#else
  static const auto real = reinterpret_cast<Fstat>(dlsym(RTLD_NEXT, "fstat64"));
#endif
  if (!g_statFails) return real(fd, out);
  errno = EIO;
  return -1;
}
}

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr int kImage = tarn::kFileDbImage;
constexpr char kSource[] = "/tmp/DB.dat";
constexpr char kTarget[] = "/tmp/restored.dat";

LogLine info(std::string text) { return {LOG_INFO, std::move(text)}; }

void writeFile(const char* path, const Bytes& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(bytes.data()),
             static_cast<std::streamsize>(bytes.size()));
}

Bytes fileBytes(const char* path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), {});
}

// An image chunk of 16 KiB: room for 16380 bytes.
struct ImageCard {
  ImageCard() : card(layout()) {
    g_pauses = 0;
    g_syncs = 0;
    card.initManagement();
  }
  static CardLayout layout() {
    CardLayout layout = tinyChunks();
    layout.families[kImage] = {16 * kKiB, 1, 0};
    return layout;
  }
  void storeSize(uint32_t size) {
    card.writeChunk(kImage, 0, 0,
                    {static_cast<uint8_t>(size), static_cast<uint8_t>(size >> 8),
                     static_cast<uint8_t>(size >> 16), static_cast<uint8_t>(size >> 24)});
  }
  Bytes stored(uint64_t from, size_t length) { return card.readChunk(kImage, 0, from, length); }
  bool allClosed() { return io.count(Call::Open) == io.count(Call::Close); }
  // The whole image chunk with no byte changed.
  bool imageIs(const Bytes& before) { return stored(0, 16 * kKiB) == before; }

  CardImage card;
  SyslogCapture log;
  IoFaults io{kCardPath};
  CTARNDBChunk chunk;
};

TEST(DBChunk, IsNamedAfterTheRecordersPartition) {
  CTARNDBChunk chunk;
  EXPECT_STREQ(chunk.makeFatFileName(), "/dev/sdblk0p1:DBST0000");
}

TEST(DBChunk, AnImageComesBackByteForByte) {
  ImageCard c;
  const Bytes bytes = patternBytes(10000);
  writeFile(kSource, bytes);
  EXPECT_EQ(c.chunk.copyIn(kSource), 0);
  EXPECT_EQ(c.stored(0, 4), (Bytes{0x10, 0x27, 0, 0}));
  EXPECT_EQ(c.stored(4, 10000), bytes);
  EXPECT_EQ(c.stored(10004, 100), Bytes(100, 0xCC));
  EXPECT_EQ(c.chunk.getDBSize(nullptr), 10000);
  EXPECT_EQ(c.chunk.copyOut(kTarget), 0);
  EXPECT_EQ(fileBytes(kTarget), bytes);
  struct stat status = {};
  ASSERT_EQ(stat(kTarget, &status), 0);
  EXPECT_EQ(status.st_mode & 0777, 0644u & ~022u);
  EXPECT_THAT(c.log.lines(),
              ElementsAre(info(" save DB size = 10000"), info(" read DB size = 10000")));
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, TheSizeIsWrittenLastBehindAFlushAndAPause) {
  ImageCard c;
  writeFile(kSource, patternBytes(5000));
  EXPECT_EQ(c.chunk.copyIn(kSource), 0);
  const auto start = static_cast<int64_t>(c.card.chunkStart(kImage, 0));
  EXPECT_THAT(c.io.writes(), ElementsAre(WriteRecord{start + 4, 4096},
                                         WriteRecord{start + 4100, 904}, WriteRecord{start, 4}));
  const std::string sequence = c.io.sequence();
  EXPECT_EQ(sequence.substr(sequence.find('w')), "wwflwfc");
  EXPECT_EQ(g_pauses, 1);
  EXPECT_EQ(g_syncs, 1);
}

TEST(DBChunk, ASourceOfOneBlockIsOneWrite) {
  ImageCard c;
  const Bytes bytes = patternBytes(4096);
  writeFile(kSource, bytes);
  EXPECT_EQ(c.chunk.copyIn(kSource), 0);
  EXPECT_EQ(c.io.writes().size(), 2u);
  EXPECT_EQ(c.stored(0, 4), (Bytes{0, 0x10, 0, 0}));
  EXPECT_EQ(c.stored(4, 4096), bytes);
}

TEST(DBChunk, AnEmptySourceLeavesTheOldImage) {
  ImageCard c;
  writeFile(kSource, patternBytes(100));
  ASSERT_EQ(c.chunk.copyIn(kSource), 0);
  const Bytes before = c.stored(0, 16 * kKiB);
  c.log.clear();
  writeFile(kSource, {});
  EXPECT_EQ(c.chunk.copyIn(kSource), -1);
  EXPECT_THAT(c.log.lines(), ElementsAre(err(" no DB backup data on RAMDisk")));
  EXPECT_TRUE(c.imageIs(before));
  EXPECT_EQ(c.chunk.getDBSize(nullptr), 100);
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, AnImageThatDoesNotFitIsRefusedBeforeAnythingIsWritten) {
  ImageCard c;
  writeFile(kSource, patternBytes(16380));
  EXPECT_EQ(c.chunk.copyIn(kSource), 0);  // just fits
  EXPECT_EQ(c.chunk.copyOut(kTarget), 0);
  EXPECT_EQ(fileBytes(kTarget), patternBytes(16380));
  const Bytes before = c.stored(0, 16 * kKiB);
  c.log.clear();
  c.io.clear();
  writeFile(kSource, patternBytes(16381, 2));
  EXPECT_EQ(c.chunk.copyIn(kSource), -1);
  EXPECT_THAT(c.log.lines(), ElementsAre(err(" error : Can't write data to /dev/sdblk0p1:DBST0000 "
                                             "errno[28]")));
  EXPECT_EQ(c.io.writes().size(), 0u);
  EXPECT_TRUE(c.imageIs(before));
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, WithoutACardEachOperationSaysWhichOneFailed) {
  SyslogCapture log;
  CTARNDBChunk chunk;
  writeFile(kSource, patternBytes(100));
  EXPECT_EQ(chunk.copyIn(kSource), -1);
  EXPECT_EQ(chunk.copyOut(kTarget), -1);
  EXPECT_EQ(chunk.getDBSize(nullptr), -2);
  EXPECT_EQ(chunk.clearDBChunk(0), -1);
  const LogLine device = err("open error /dev/sdblk0p1");
  const std::string file = " error : Can't open file /dev/sdblk0p1:DBST0000 ";
  EXPECT_THAT(problems(log), ElementsAre(device, err(file + "[copyIn] errno[2]"), device,
                                         err(file + "[copyOut]. errno[2]"), device,
                                         err(file + "[getDBSize]. errno[2]"), device,
                                         err(file + "[clearDBChunk]. errno[2]")));
  EXPECT_EQ(access(kTarget, F_OK), -1);
}

TEST(DBChunk, FilesThatCannotBeOpenedAreReported) {
  ImageCard c;
  EXPECT_EQ(c.chunk.copyIn("/tmp/missing"), -1);
  EXPECT_EQ(c.chunk.copyOut("/tmp/missing/file"), -1);
  EXPECT_THAT(c.log.lines(), ElementsAre(err(" error : Can't open file /tmp/missing [copyIn]"),
                                         err(" error : Can't open file /tmp/missing/file "
                                             "[copyOut]. errno[2]")));
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, ASourceWhoseSizeIsUnknownIsReported) {
  ImageCard c;
  writeFile(kSource, patternBytes(100));
  g_statFails = true;
  EXPECT_EQ(c.chunk.copyIn(kSource), -1);
  g_statFails = false;
  EXPECT_THAT(c.log.lines(), ElementsAre(err(" error : Can't stat data to /tmp/DB.dat")));
  EXPECT_EQ(c.io.writes().size(), 0u);
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, SeeksThatFailEndTheSave) {
  for (int n : {2, 3}) {  // the first one is the opening's
    ImageCard c;
    writeFile(kSource, patternBytes(100));
    IoFaults opening{kCardPath};
    {
      CTARNDBChunk other;
      other.getDBSize(nullptr);
    }
    const int seeks = static_cast<int>(opening.count(Call::Lseek));
    c.io.fail(Call::Lseek, seeks + n - 1, EIO);
    EXPECT_EQ(c.chunk.copyIn(kSource), -1);
    EXPECT_THAT(problems(c.log),
                ElementsAre(err("CFATAccess.lseek"), err("copyIn: seek error. errno[5]")));
    EXPECT_EQ(c.stored(0, 4), Bytes(4, 0));
    EXPECT_EQ(g_syncs, 0);
    EXPECT_TRUE(c.allClosed());
  }
}

TEST(DBChunk, PowerLostBeforeTheSizeLeavesTheOldSize) {
  ImageCard c;
  writeFile(kSource, Bytes(5000, 'a'));
  ASSERT_EQ(c.chunk.copyIn(kSource), 0);
  writeFile(kSource, Bytes(6000, 'b'));
  c.log.clear();
  c.io.fail(Call::Write, 3, EIO);  // two blocks, then the size
  EXPECT_EQ(c.chunk.copyIn(kSource), -1);
  EXPECT_THAT(c.log.lines(),
              ElementsAre(err(" error : Can't write data to /dev/sdblk0p1:DBST0000. errno[5]")));
  EXPECT_EQ(c.stored(4, 6000), Bytes(6000, 'b'));
  EXPECT_EQ(c.chunk.getDBSize(nullptr), 5000);
}

TEST(DBChunk, DataThatCannotBeWrittenOrFlushedIsNotAnnounced) {
  ImageCard c;
  writeFile(kSource, Bytes(5000, 'a'));
  c.io.fail(Call::Write, 2, EIO);
  EXPECT_EQ(c.chunk.copyIn(kSource), -1);
  c.io.shorten(Call::Write, 1, 100);
  EXPECT_EQ(c.chunk.copyIn(kSource), -1);
  c.io.fail(Call::Fsync, 1, ENOSPC);
  EXPECT_EQ(c.chunk.copyIn(kSource), -1);
  const std::string text = " error : Can't write data to /dev/sdblk0p1:DBST0000 ";
  EXPECT_THAT(c.log.lines(),
              ElementsAre(err(text + "errno[5]"), err(text + "errno[0]"), err(text + "errno[28]")));
  EXPECT_EQ(c.stored(0, 4), Bytes(4, 0));
  EXPECT_EQ(g_pauses, 0);
  EXPECT_EQ(g_syncs, 0);
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, ASourceThatCannotBeReadToItsEndKeepsItsSize) {
  ImageCard c;
  writeFile(kSource, Bytes(5000, 'a'));
  IoFaults source{kSource};
  source.fail(Call::Read, 2, EIO);
  EXPECT_EQ(c.chunk.copyIn(kSource), 0);
  EXPECT_THAT(c.log.lines(), ElementsAre(info(" save DB size = 5000")));
  EXPECT_EQ(c.stored(0, 4), (Bytes{0x88, 0x13, 0, 0}));
  EXPECT_EQ(c.stored(4, 4096), Bytes(4096, 'a'));
  EXPECT_EQ(c.stored(4100, 904), Bytes(904, 0xCC));
}

TEST(DBChunk, AClearedChunkRestoresNothing) {
  ImageCard c;
  writeFile(kSource, Bytes(5000, 'a'));
  ASSERT_EQ(c.chunk.copyIn(kSource), 0);
  c.log.clear();
  EXPECT_EQ(c.chunk.clearDBChunk(0), 0);
  EXPECT_EQ(c.stored(0, 4), Bytes(4, 0));
  EXPECT_EQ(c.stored(4, 5000), Bytes(5000, 'a'));  // the data stays
  EXPECT_EQ(c.chunk.getDBSize(nullptr), 0);
  EXPECT_EQ(c.chunk.copyOut(kTarget), 0);
  EXPECT_EQ(access(kTarget, F_OK), 0);
  EXPECT_THAT(fileBytes(kTarget), IsEmpty());
  EXPECT_EQ(c.chunk.clearDBChunk(-1), 0);
  EXPECT_EQ(c.stored(0, 4), Bytes(4, 0xFF));
  EXPECT_EQ(c.chunk.getDBSize(nullptr), -1);
  writeFile(kTarget, {'o', 'l', 'd'});
  EXPECT_EQ(c.chunk.copyOut(kTarget), 0);
  EXPECT_EQ(fileBytes(kTarget), (Bytes{'o', 'l', 'd'}));
  EXPECT_THAT(c.log.lines(), ElementsAre(info(" read DB size = 0"), info(" read DB size = -1")));
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, ClearingTakesNoOtherSize) {
  ImageCard c;
  EXPECT_EQ(c.chunk.clearDBChunk(5), -1);
  EXPECT_EQ(c.chunk.clearDBChunk(-2), -1);
  EXPECT_THAT(c.log.lines(), ElementsAre(err(" clearDBChunk() size error(5)"),
                                         err(" clearDBChunk() size error(-2)")));
  EXPECT_EQ(c.io.sequence(), "");
}

TEST(DBChunk, AClearThatCannotBeWrittenIsReported) {
  ImageCard c;
  c.io.fail(Call::Write, 1, EIO);
  EXPECT_EQ(c.chunk.clearDBChunk(-1), -1);
  EXPECT_THAT(c.log.lines(),
              ElementsAre(err(" error : Can't write data to /dev/sdblk0p1:DBST0000. errno[5]")));
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, AClearReachesTheMediumBeforeItReturns) {
  ImageCard c;
  EXPECT_EQ(c.chunk.clearDBChunk(0), 0);
  const std::string sequence = c.io.sequence();
  EXPECT_EQ(sequence.substr(sequence.find('w')), "wfc");
}

TEST(DBChunk, AStoredSizeThatCannotBeIsRefused) {
  ImageCard c;
  const std::pair<uint32_t, const char*> sizes[] = {{16381, "16381"},
                                                    {0x7FFFFFFF, "2147483647"},
                                                    {0xFFFFFFFE, "-2"},
                                                    {0x80000000, "-2147483648"}};
  for (const auto& [size, text] : sizes) {
    c.storeSize(size);
    c.log.clear();
    EXPECT_EQ(c.chunk.copyOut(kTarget), -1);
    EXPECT_THAT(c.log.lines(),
                ElementsAre(info(std::string(" read DB size = ") + text),
                            err(" error : Can't read data to /dev/sdblk0p1:DBST0000. errno[22]")));
    EXPECT_THAT(fileBytes(kTarget), IsEmpty());
  }
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, AReadThatBringsNothingEndsTheRestore) {
  ImageCard c;
  writeFile(kSource, Bytes(5000, 'a'));
  ASSERT_EQ(c.chunk.copyIn(kSource), 0);
  IoFaults opening{kCardPath};
  ASSERT_EQ(c.chunk.getDBSize(nullptr), 5000);
  const int reads = static_cast<int>(opening.count(Call::Read));  // the last one is the size's
  c.log.clear();
  c.io.fail(Call::Read, reads + 2, EIO);
  EXPECT_EQ(c.chunk.copyOut(kTarget), -1);
  c.io.shorten(Call::Read, reads + 1, 0);
  EXPECT_EQ(c.chunk.copyOut(kTarget), -1);
  EXPECT_THAT(c.log.lines(),
              ElementsAre(info(" read DB size = 5000"),
                          err(" error : Can't read data to /dev/sdblk0p1:DBST0000. errno[5]"),
                          info(" read DB size = 5000"),
                          err(" error : Can't read data to /dev/sdblk0p1:DBST0000. errno[0]")));
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, AShortReadIsContinued) {
  ImageCard c;
  const Bytes bytes = patternBytes(5000);
  writeFile(kSource, bytes);
  ASSERT_EQ(c.chunk.copyIn(kSource), 0);
  IoFaults opening{kCardPath};
  ASSERT_EQ(c.chunk.getDBSize(nullptr), 5000);
  c.io.shorten(Call::Read, static_cast<int>(opening.count(Call::Read)) + 1, 1000);
  EXPECT_EQ(c.chunk.copyOut(kTarget), 0);
  EXPECT_EQ(fileBytes(kTarget), bytes);
}

TEST(DBChunk, ASizeThatCannotBeReadIsReported) {
  ImageCard c;
  IoFaults opening{kCardPath};
  ASSERT_EQ(c.chunk.getDBSize(nullptr), 0);
  const int reads = static_cast<int>(opening.count(Call::Read));
  c.io.shorten(Call::Read, reads, 3);
  EXPECT_EQ(c.chunk.getDBSize(nullptr), -2);
  c.io.fail(Call::Read, reads, EIO);
  EXPECT_EQ(c.chunk.copyOut(kTarget), -1);
  const std::string text = " error : Can't read data to /dev/sdblk0p1:DBST0000. ";
  EXPECT_THAT(c.log.lines(), ElementsAre(err(text + "errno[0]"), err(text + "errno[5]")));
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, ATargetThatCannotBeWrittenIsReported) {
  ImageCard c;
  writeFile(kSource, Bytes(5000, 'a'));
  ASSERT_EQ(c.chunk.copyIn(kSource), 0);
  c.log.clear();
  IoFaults target{kTarget};
  target.fail(Call::Write, 2, ENOSPC);
  EXPECT_EQ(c.chunk.copyOut(kTarget), -1);
  EXPECT_THAT(c.log.lines(),
              ElementsAre(info(" read DB size = 5000"),
                          err(" error : Can't write data to /tmp/restored.dat. errno[28]")));
  EXPECT_TRUE(c.allClosed());
}

TEST(DBChunk, ATargetThatIsLongerKeepsItsTail) {
  ImageCard c;
  writeFile(kSource, Bytes(100, 'a'));
  ASSERT_EQ(c.chunk.copyIn(kSource), 0);
  writeFile(kTarget, Bytes(150, 'z'));
  EXPECT_EQ(c.chunk.copyOut(kTarget), 0);
  Bytes expected(100, 'a');
  expected.insert(expected.end(), 50, 'z');
  EXPECT_EQ(fileBytes(kTarget), expected);
}

}  // namespace
}  // namespace tarn_test
