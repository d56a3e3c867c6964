#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <set>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "fat/CFATAccess.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardInfo.h"
#include "recorder/card/CardReadme.h"
#include "recorder/check/CardHoldings.h"
#include "support/IoFaults.h"
#include "support/Shell.h"
#include "support/SyslogCapture.h"

namespace tarn {
namespace {

using tarn_test::Call;
using tarn_test::IoFaults;
using tarn_test::shell;
using tarn_test::ShellResult;
using tarn_test::SyslogCapture;
using ::testing::HasSubstr;

constexpr uint64_t kKiB = 1024;
constexpr uint64_t kMiB = 1024 * kKiB;
constexpr char kCard[] = "/dev/sdblk0p1";

CardRequest smallCard() {
  CardRequest request;
  request.sizeBytes = 34 * kMiB;
  return request;
}

int tryFormat(const CardRequest& request, const FormatOptions& options, std::string* error,
              const std::string& path = kCard) {
  CardFormatter formatter;
  FormatOptions looking = options;
  looking.look = cardHoldings;
  return formatter.format(path, request, looking, error);
}

CardLayout format(const CardRequest& request, const FormatOptions& options = {},
                  const std::string& path = kCard) {
  CardFormatter formatter;
  FormatOptions looking = options;
  looking.look = cardHoldings;
  std::string error;
  EXPECT_EQ(formatter.format(path, request, looking, &error), 0) << error;
  return formatter.layout();
}

std::string refusal(const CardRequest& request, const std::string& path = kCard) {
  std::string error;
  EXPECT_EQ(tryFormat(request, {}, &error, path), -1) << "was not refused";
  return error;
}

std::vector<uint8_t> readBytes(uint64_t offset, size_t length, const std::string& path = kCard) {
  std::vector<uint8_t> bytes(length);
  std::ifstream in(path, std::ios::binary);
  in.seekg(static_cast<std::streamoff>(offset));
  in.read(reinterpret_cast<char*>(bytes.data()), static_cast<std::streamsize>(length));
  EXPECT_EQ(static_cast<size_t>(in.gcount()), length);
  return bytes;
}

std::vector<uint8_t> wholeFile(const std::string& path = kCard) {
  struct stat file = {};
  stat(path.c_str(), &file);
  return readBytes(0, static_cast<size_t>(file.st_size), path);
}

void writeBytes(uint64_t offset, const std::string& bytes, const std::string& path = kCard) {
  std::fstream out(path, std::ios::binary | std::ios::in | std::ios::out);
  out.seekp(static_cast<std::streamoff>(offset));
  out << bytes;
  ASSERT_TRUE(out.good());
}

// A card's file that was full of something else before.
void makeOldFile(uint64_t bytes, char content, const std::string& path = kCard) {
  std::ofstream out(path, std::ios::binary);
  out << std::string(bytes, content);
  ASSERT_TRUE(out.good());
}

// Every family through the reader that the recorder uses; the number that it accepts.
int familiesThatOpen() {
  SyslogCapture log;
  int opened = 0;
  for (int type = 0; type < kFileTypeCount; ++type) {
    CFATAccess access;
    char name[kChunkFileNameRoom];
    const int handle =
        access.open(chunkFileName(kRecorderPartition, fileTag(type), 0, name), O_RDONLY);
    if (handle < 0) continue;
    ++opened;
    access.close(handle);
  }
  return opened;
}

TEST(CardFormatterTest, EveryFamilyOpensWithTheGeometryOfTheLayout) {
  const CardLayout layout = format(smallCard());
  SyslogCapture log;
  for (int type = 0; type < kFileTypeCount; ++type) {
    CFATAccess access;
    char name[kChunkFileNameRoom];
    const auto last = static_cast<int>(layout.family(type).chunks - 1);
    const int handle =
        access.open(chunkFileName(kRecorderPartition, fileTag(type), last, name), O_RDONLY);
    ASSERT_GE(handle, 0) << name;
    EXPECT_EQ(access.chunks(handle), layout.family(type).chunks) << name;
    EXPECT_EQ(access.getChunkSize(handle), layout.family(type).chunkSize) << name;
    EXPECT_EQ(access.streamChunkSize(handle), layout.family(kFileStream).chunkSize);
    EXPECT_EQ(access.pictureChunkSize(handle), layout.family(kFilePicture).chunkSize);
    EXPECT_TRUE(access.isSdAligned(handle)) << name;
    EXPECT_EQ(access.close(handle), 0);
  }
  EXPECT_TRUE(log.lines().empty());
}

TEST(CardFormatterTest, ReadersFindEachChunkWhereTheDirectorySaysTheFileIs) {
  const CardLayout layout = format(smallCard());
  // Bytes written by the recorder's way are the file's content for a PC.
  CFATAccess access;
  const int handle = access.open("/dev/sdblk0p1:CKST0003", O_RDWR);
  ASSERT_GE(handle, 0);
  ASSERT_EQ(access.write(handle, "stream three", 12), 12);
  ASSERT_EQ(access.close(handle), 0);
  ASSERT_EQ(shell("mcopy -n -i /dev/sdblk0p1 ::/CKST0003 /tmp/three").exitCode, 0);
  const std::vector<uint8_t> file = wholeFile("/tmp/three");
  EXPECT_EQ(file.size(), layout.family(kFileStream).chunkSize);
  EXPECT_EQ(std::string(file.begin(), file.begin() + 12), "stream three");
}

TEST(CardFormatterTest, ToolsForFat32FindNothingWrong) {
  format(smallCard());
  const ShellResult check = shell("fsck.fat -n -v /dev/sdblk0p1");
  EXPECT_EQ(check.exitCode, 0) << check.output;
  const ShellResult list = shell("mdir -b -i /dev/sdblk0p1 ::/");
  EXPECT_EQ(list.exitCode, 0) << list.output;
  EXPECT_EQ(list.output.substr(0, 12), "::/TAIF0000\n");
  EXPECT_THAT(list.output, HasSubstr("::/CKPC0014\n"));
  const ShellResult stat = shell("fsstat -f fat32 /dev/sdblk0p1");
  EXPECT_EQ(stat.exitCode, 0) << stat.output;
  EXPECT_THAT(stat.output, HasSubstr("File System Type: FAT32"));
  EXPECT_THAT(stat.output, HasSubstr("Volume Label (Root Directory): TARN CARD"));
  const ShellResult names = shell("fls -f fat32 /dev/sdblk0p1");
  EXPECT_EQ(names.exitCode, 0) << names.output;
  EXPECT_THAT(names.output, HasSubstr("r/r 3:\tTAIF0000\n"));
  EXPECT_THAT(names.output, HasSubstr("CKDL0003\n"));
}

TEST(CardFormatterTest, AReadmeTellsWhatTheCardIsAndMovesNothing) {
  for (const uint32_t clusterBytes : {512u, 0u}) {
    CardRequest request = smallCard();
    request.clusterBytes = clusterBytes;
    if (clusterBytes == 0) request.sizeBytes = 256 * kMiB;
    const CardLayout layout = format(request);
    const ReadmePlace place = placeOfReadme(layout);
    ASSERT_NE(place.byte, 0u);
    ASSERT_EQ(place.clusters, clusterBytes == 0 ? 1u : 3u);
    for (int type = 0; type < kFileTypeCount; ++type) {
      const CardFamily& family = layout.family(type);
      const bool apart = place.byte >= family.startByte() + family.bytes() ||
                         place.byte + place.clusters * layout.clusterBytes() <= family.startByte();
      EXPECT_TRUE(apart) << type;
    }
    const ShellResult list = shell("mdir -b -i /dev/sdblk0p1 ::/");
    EXPECT_EQ(list.output.substr(0, 12), "::/TAIF0000\n");
    EXPECT_THAT(list.output, ::testing::EndsWith("\n::/README.TXT\n"));
    EXPECT_EQ(shell("mtype -i /dev/sdblk0p1 ::README.TXT").output, readmeText());
    const ShellResult check = shell("fsck.fat -n /dev/sdblk0p1");
    EXPECT_EQ(check.exitCode, 0) << check.output;
  }
  EXPECT_THAT(readmeText(), HasSubstr("do not\r\n- delete"));
}

// Other people's cards, and those of before, have none; one without room for it gets none.
TEST(CardFormatterTest, ADirectoryWithoutRoomForItGetsNoReadme) {
  CardRequest request = smallCard();
  request.clusterBytes = 512;
  request.families[kFileJournal].chunks = 5;
  // Sixteen entries fill a cluster: a pair of chunks more each time, until only the end has room.
  for (uint64_t chunks = 1; chunks < 17; ++chunks) {
    request.families[kFileStream].chunks = chunks;
    FormatOptions anew;
    anew.force = true;
    const CardLayout layout = format(request, anew);
    const bool full = (layout.rootEntries() + 1) * 32 == layout.rootBytes();
    EXPECT_EQ(placeOfReadme(layout).byte == 0, full) << chunks;
    EXPECT_EQ(familiesThatOpen(), kFileTypeCount);
    if (full) return;
  }
  FAIL() << "no directory was full";
}

TEST(CardFormatterTest, NamesBeyondFourDigitsAreLongNamesOfAValidVolume) {
  CardRequest request;
  request.sizeBytes = 2048 * kMiB;
  request.families[kFileStream].chunkSize = 128 * kKiB;
  request.families[kFileStream].chunks = 10002;
  const CardLayout layout = format(request);
  const ShellResult check = shell("fsck.fat -n /dev/sdblk0p1");
  EXPECT_EQ(check.exitCode, 0) << check.output;
  const ShellResult list = shell("mdir -b -i /dev/sdblk0p1 ::/");
  for (const char* name : {"CKST9999", "CKST10000", "CKST10001", "CKPC10000", "CKPC10001"}) {
    EXPECT_THAT(list.output, HasSubstr(std::string("::/") + name + "\n"));
  }
  EXPECT_EQ(shell("mcopy -n -i /dev/sdblk0p1 ::/CKST10001 /tmp/last").exitCode, 0);
  SyslogCapture log;
  CFATAccess access;
  const int handle = access.open("/dev/sdblk0p1:CKPC10001", O_RDONLY);
  ASSERT_GE(handle, 0);
  EXPECT_EQ(access.chunks(handle), 10002);
  EXPECT_EQ(layout.family(kFileStreamManage).chunkSize, 262144u);
}

TEST(CardFormatterTest, NothingOfAnEarlierLifeIsLeftWhereItCouldBeTakenForNew) {
  makeOldFile(34 * kMiB, 'x');
  FormatOptions options;
  options.force = true;
  const CardLayout layout = format(smallCard(), options);
  for (int type : {kFileJournal, kFileSyslog}) {
    const CardFamily& family = layout.family(type);
    EXPECT_EQ(readBytes(family.startByte(), family.bytes()),
              std::vector<uint8_t>(family.bytes(), 0xFF));
  }
  const CardFamily& picture = layout.family(kFilePicture);
  EXPECT_EQ(readBytes(picture.startByte(), picture.bytes()),
            std::vector<uint8_t>(picture.bytes(), 0));
  EXPECT_EQ(getLe32(readBytes(layout.family(kFileDbImage).startByte(), 4).data()), 0u);
  EXPECT_EQ(shell("fsck.fat -n /dev/sdblk0p1").exitCode, 0);
  // Stream data is not worth the time: nothing points at it.
  EXPECT_EQ(readBytes(layout.family(kFileStream).startByte(), 4), std::vector<uint8_t>(4, 'x'));
}

TEST(CardFormatterTest, ManagementFilesBeginUnusedWithGoodChecksums) {
  const CardLayout layout = format(smallCard());
  const std::array<std::pair<int, int>, 3> kinds = {{{kFileJournalManage, kFileJournal},
                                                     {kFileSyslogManage, kFileSyslog},
                                                     {kFileStreamManage, kFileStream}}};
  for (const auto& [manage, chunks] : kinds) {
    const uint32_t length = layout.family(chunks).chunks * 24;
    std::vector<uint8_t> expected(length, 0);
    if (chunks == kFileStream) {
      for (uint32_t i = 0; i < length; i += 24) expected[i + 6] = 0xFF;
    }
    for (uint32_t copy = 0; copy < 2; ++copy) {
      std::vector<uint8_t> file = readBytes(layout.chunkByte(manage, copy), length + 2);
      EXPECT_EQ(getLe16(file.data() + length), crc16(file.data(), length));
      file.resize(length);
      EXPECT_EQ(file, expected);
    }
  }
}

TEST(CardFormatterTest, InfoRecordsNameTheirFamilyAndHoldZerosElsewhere) {
  const CardLayout layout = format(smallCard());
  const std::vector<uint8_t> file = readBytes(layout.family(kFileInfo).startByte(), 760);
  EXPECT_EQ(getLe32(file.data()), 756u);
  const uint8_t* record = file.data() + 4 + 7 * 84;
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(record), 8), "CKST0000");
  for (int i = 8; i < 64; ++i) EXPECT_EQ(record[i], 0);
  EXPECT_EQ(getLe32(record + 64), layout.family(kFileStream).chunkSize);
  EXPECT_EQ(getLe32(record + 68), 0u);
  EXPECT_EQ(getLe32(record + 72), layout.family(kFileStream).chunks);
  EXPECT_EQ(getLe32(record + 76), 0u);
  EXPECT_EQ(getLe32(record + 80), layout.family(kFileStream).startSector);
}

TEST(CardFormatterTest, InvariantFormatsGiveTheSameBytesWhateverWasThere) {
  FormatOptions options;
  options.invariant = true;
  options.force = true;
  format(smallCard(), options);
  const std::vector<uint8_t> first = wholeFile();
  makeOldFile(40 * kMiB, 'y', "/tmp/second");
  format(smallCard(), options, "/tmp/second");
  EXPECT_TRUE(first == wholeFile("/tmp/second"));
  EXPECT_EQ(first.size(), 34 * kMiB);
}

TEST(CardFormatterTest, OtherwiseEachVolumeHasItsOwnId) {
  std::set<uint32_t> ids;
  for (int i = 0; i < 4; ++i) {
    CardFormatter formatter;
    FormatOptions looking;
    looking.look = cardHoldings;
    std::string error;
    ASSERT_EQ(formatter.format(kCard, smallCard(), looking, &error), 0) << error;
    ids.insert(formatter.volumeId());
    EXPECT_EQ(getLe32(readBytes(67, 4).data()), formatter.volumeId());
  }
  EXPECT_GT(ids.size(), 1u);
}

// The state of the file in front of each write, and the promise that no such state opens.
TEST(CardFormatterTest, PowerLostAtAnyWriteOfAFormatLeavesACardThatEveryOpenRefuses) {
  format(smallCard());
  ASSERT_EQ(familiesThatOpen(), kFileTypeCount);
  CardRequest other = smallCard();
  other.families[kFileStream].chunkSize = 65536 * 16;
  std::string error;
  int writes = 0;
  for (;; ++writes) {
    IoFaults faults(kCard);
    // The first write does nothing on the card: an old card would still be whole.
    faults.fail(Call::Pwrite, writes + 2, EIO, IoFaults::kForever);
    if (tryFormat(other, {}, &error) == 0) break;
    EXPECT_THAT(error, HasSubstr("writing to the card failed at byte "));
    EXPECT_EQ(familiesThatOpen(), 0) << "after " << writes + 1 << " writes";
    CardInfo info;
    EXPECT_EQ(info.read(kCard, &error), -1) << "after " << writes + 1 << " writes";
    ASSERT_LT(writes, 1000);
  }
  EXPECT_GE(writes, 15);
  EXPECT_EQ(familiesThatOpen(), kFileTypeCount);
  EXPECT_EQ(shell("fsck.fat -n /dev/sdblk0p1").exitCode, 0);
}

TEST(CardFormatterTest, TheOldCardIsInvalidOnTheMediumBeforeAnythingElseIsWritten) {
  format(smallCard());
  IoFaults calls(kCard);
  format(smallCard());
  const std::string sequence = calls.sequence();
  const std::vector<tarn_test::WriteRecord> writes = calls.writes();
  // First sector, flush; all the rest, flush; boot sector, flush; info file, flush.
  std::string order;
  for (char c : sequence) {
    if (c == 'W' || c == 'f') order += c;
  }
  EXPECT_EQ(order.substr(0, 3), "WfW");
  EXPECT_EQ(order.substr(order.size() - 6), "WfWfWf");
  EXPECT_EQ(std::count(order.begin(), order.end(), 'f'), 4);
  EXPECT_EQ(writes.front(), (tarn_test::WriteRecord{0, 512}));
  EXPECT_EQ(writes[writes.size() - 2], (tarn_test::WriteRecord{0, 512}));
  // One sector: it cannot be torn.
  EXPECT_EQ(writes.back().length, 512u);
}

TEST(CardFormatterTest, AFlushThatFailsFailsTheFormat) {
  for (int n = 1; n <= 4; ++n) {
    IoFaults faults(kCard);
    faults.fail(Call::Fsync, n, EIO);
    std::string error;
    EXPECT_EQ(tryFormat(smallCard(), {}, &error), -1) << n;
    EXPECT_EQ(error, "flushing the card failed: Input/output error");
  }
}

TEST(CardFormatterTest, AFlushThatASignalInterruptsIsMadeAgain) {
  IoFaults faults(kCard);
  for (int n = 1; n <= 8; n += 2) faults.fail(Call::Fsync, n, EINTR);
  std::string error;
  EXPECT_EQ(tryFormat(smallCard(), {}, &error), 0) << error;
  EXPECT_GE(faults.count(Call::Fsync), 8u);
}

TEST(CardFormatterTest, ShortAndInterruptedWritesAreContinued) {
  FormatOptions options;
  options.invariant = true;
  format(smallCard(), options, "/tmp/plain");
  IoFaults faults(kCard);
  faults.shorten(Call::Pwrite, 3, 1000);
  faults.fail(Call::Pwrite, 6, EINTR);
  format(smallCard(), options);
  EXPECT_TRUE(wholeFile() == wholeFile("/tmp/plain"));
}

TEST(CardFormatterTest, AFormatStoppedByItsCallerCanBeDoneAgainWithoutForce) {
  format(smallCard());
  FormatOptions options;
  int calls = 0;
  options.progress = [&calls](uint64_t, uint64_t) { return ++calls < 4; };
  std::string error;
  EXPECT_EQ(tryFormat(smallCard(), options, &error), -1);
  EXPECT_EQ(error, "stopped before the card was finished; format it again");
  EXPECT_EQ(familiesThatOpen(), 0);
  format(smallCard());
  EXPECT_EQ(familiesThatOpen(), kFileTypeCount);
}

TEST(CardFormatterTest, ProgressRisesToItsTotal) {
  for (bool invariant : {false, true}) {
    FormatOptions options;
    options.invariant = invariant;
    uint64_t last = 0;
    uint64_t end = 0;
    options.progress = [&](uint64_t done, uint64_t total) {
      EXPECT_GE(done, last);
      EXPECT_LE(done, total);
      last = done;
      end = total;
      return true;
    };
    format(smallCard(), options);
    EXPECT_EQ(last, end);
  }
}

TEST(CardFormatterTest, ContentThatIsNotACardIsRefusedUnlessForced) {
  // A partition table, a file system's super block at 1 KiB, another one's at 64 KiB.
  for (uint64_t offset : {446u, 1080u, 65600u}) {
    makeOldFile(0, 0);
    ASSERT_EQ(truncate(kCard, static_cast<off_t>(34 * kMiB)), 0);
    writeBytes(offset, "other");
    EXPECT_EQ(refusal(smallCard()),
              "/dev/sdblk0p1 holds something that is not a card of the recorder; force the format "
              "to overwrite it");
    EXPECT_EQ(readBytes(offset, 5), (std::vector<uint8_t>{'o', 't', 'h', 'e', 'r'}));
    FormatOptions force;
    force.force = true;
    format(smallCard(), force);
    EXPECT_EQ(familiesThatOpen(), kFileTypeCount);
  }
}

TEST(CardFormatterTest, AnotherFat32VolumeIsForeign) {
  ASSERT_EQ(shell("truncate -s 40M /dev/sdblk0p1 && mkfs.fat -F 32 /dev/sdblk0p1").exitCode, 0);
  EXPECT_THAT(refusal(smallCard()), HasSubstr("not a card of the recorder"));
}

TEST(CardFormatterTest, ABlankFileNeedsNoForce) {
  ASSERT_EQ(shell("truncate -s 34M /dev/sdblk0p1").exitCode, 0);
  CardRequest request;  // its own size
  EXPECT_EQ(format(request).sizeBytes(), 34 * kMiB);
}

TEST(CardFormatterTest, AnImageFileGetsExactlyTheSizeAskedFor) {
  const auto size = [] {
    struct stat file = {};
    stat(kCard, &file);
    return static_cast<uint64_t>(file.st_size);
  };
  format(smallCard());
  EXPECT_EQ(size(), 34 * kMiB);
  CardRequest larger;
  larger.sizeBytes = 50 * kMiB;
  format(larger);
  EXPECT_EQ(size(), 50 * kMiB);
  EXPECT_EQ(refusal(smallCard()),
            "/dev/sdblk0p1 has 50 MiB, more than the 34 MiB asked for; force the format to cut it "
            "short");
  EXPECT_EQ(size(), 50 * kMiB);
  FormatOptions force;
  force.force = true;
  format(smallCard(), force);
  EXPECT_EQ(size(), 34 * kMiB);
  EXPECT_EQ(familiesThatOpen(), kFileTypeCount);
}

TEST(CardFormatterTest, ADeviceThatCannotBeReadIsNotTakenForForeign) {
  format(smallCard());
  {
    IoFaults faults(kCard);
    faults.fail(Call::Pread, 1, EIO, IoFaults::kForever);
    EXPECT_EQ(refusal(smallCard()), "cannot read /dev/sdblk0p1: Input/output error");
  }
  IoFaults faults(kCard);
  faults.fail(Call::Pread, 1, EIO);
  format(smallCard());  // asked again
}

TEST(CardFormatterTest, AFileThatWasMadeGoesWhenItsFormatFails) {
  for (const Call call : {Call::Pwrite, Call::Fsync}) {
    IoFaults faults(kCard);
    faults.fail(call, 2, ENOSPC, IoFaults::kForever);
    refusal(smallCard());
    EXPECT_NE(access(kCard, F_OK), 0);
  }
  format(smallCard());
  IoFaults faults(kCard);
  faults.fail(Call::Pwrite, 2, ENOSPC, IoFaults::kForever);
  refusal(smallCard());
  EXPECT_EQ(access(kCard, F_OK), 0) << "one that was there stays";
}

TEST(CardFormatterTest, RefusalsOfTheTarget) {
  // Nobody else has put anything there.
  char folder[] = "/tmp/target.XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string none = std::string(folder) + "/none";
  EXPECT_EQ(refusal(CardRequest(), none),
            none + " does not exist: give a size to create it as an image file");
  EXPECT_EQ(refusal(smallCard(), none + "/card"),
            "cannot write to " + none + "/card: No such file or directory");
  EXPECT_EQ(refusal(smallCard(), "/tmp"), "/tmp is neither a block device nor an image file");
  EXPECT_EQ(refusal(smallCard(), "/dev/null"),
            "/dev/null is neither a block device nor an image file");
  CardRequest tooSmall;
  tooSmall.sizeBytes = kMiB;
  EXPECT_THAT(refusal(tooSmall, none), HasSubstr("the card is too small"));
  EXPECT_NE(access(none.c_str(), F_OK), 0) << "a request that cannot work leaves no file";
}

TEST(CardFormatterTest, ACardAtWhichNobodyLookedCountsAsOneWithRecordings) {
  CardFormatter formatter;
  std::string error;
  ASSERT_EQ(formatter.format(kCard, smallCard(), {}, &error), 0) << error;
  EXPECT_EQ(formatter.format(kCard, smallCard(), {}, &error), -1);
  EXPECT_EQ(
      error,
      "nobody looked whether /dev/sdblk0p1 holds recordings; force the format to overwrite it");
}

TEST(CardFormatterTest, ACardThatAnotherToolUsesIsBusy) {
  format(smallCard());
  const int other = open(kCard, O_RDWR);
  ASSERT_EQ(flock(other, LOCK_EX), 0);
  EXPECT_EQ(refusal(smallCard()), "/dev/sdblk0p1 is in use by another program of the recorder");
  EXPECT_EQ(familiesThatOpen(), kFileTypeCount) << "nothing was touched";
  close(other);
  format(smallCard());
}

TEST(CardFormatterTest, ALargeCardCostsOnlyWhatMustBeWritten) {
  CardRequest request;
  request.sizeBytes = 64 * 1024 * kMiB;
  IoFaults calls(kCard);
  const CardLayout layout = format(request);
  uint64_t written = 0;
  for (const tarn_test::WriteRecord& record : calls.writes()) written += record.length;
  const uint64_t needed = 2 * uint64_t{layout.fatSectors()} * 512 +
                          layout.family(kFileJournal).bytes() + layout.family(kFileSyslog).bytes();
  EXPECT_LT(written, needed + kMiB);
  EXPECT_LT(calls.count(Call::Pwrite), 110u);
  EXPECT_EQ(calls.count(Call::Write), 0u);
  EXPECT_EQ(familiesThatOpen(), kFileTypeCount);
}

}  // namespace
}  // namespace tarn
