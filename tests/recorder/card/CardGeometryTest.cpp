#include <fcntl.h>
#include <unistd.h>

#include <chrono>

#include "base/Crc16.h"
#include "base/Endian.h"
#include "fat/FatFormat.h"
#include "recorder/card/CardFormatter.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/VolumeFormat.h"
#include "recorder/log/LogWriter.h"
#include "recorder/recovery/Recovery.h"
#include "recorder/server/ManagementServer.h"
#include "recorder/session/RecordingSession.h"
#include "support/CardImage.h"
#include "support/IoFaults.h"
#include "support/SyslogCapture.h"

namespace {

using tarn::CardGeometry;
using tarn::Delivery;
using tarn::GeometryDepth;
using tarn::GeometryReport;
using tarn_test::kCardPath;
using tarn_test::kKiB;
using tarn_test::kMiB;
using testing::HasSubstr;
using Bytes = std::vector<uint8_t>;

// A formatted card of small chunks.
class CardGeometryTest : public testing::Test {
 protected:
  CardGeometryTest() {
    tarn::CardRequest request;
    request.sizeBytes = 34 * kMiB;
    request.families[tarn::kFileStream] = {256 * kKiB, 3};
    request.families[tarn::kFilePicture] = {16 * kKiB, 3};
    request.families[tarn::kFileJournal] = {64 * kKiB, 4};
    std::string error;
    unlink(kCardPath);
    EXPECT_EQ(formatter_.format(kCardPath, request, {}, &error), 0) << error;
    fd_ = open(kCardPath, O_RDWR | O_CLOEXEC);
    EXPECT_TRUE(verify().ok()) << verify().text;
  }
  ~CardGeometryTest() override { close(fd_); }

  const tarn::CardLayout& layout() const { return formatter_.layout(); }
  static GeometryReport verify(GeometryDepth depth = GeometryDepth::kStart) {
    return CardGeometry::verify(kCardPath, depth);
  }

  Bytes read(uint64_t offset, size_t length) const {
    Bytes bytes(length);
    EXPECT_EQ(pread(fd_, bytes.data(), length, static_cast<off_t>(offset)),
              static_cast<ssize_t>(length));
    return bytes;
  }
  void write(uint64_t offset, const Bytes& bytes) {
    EXPECT_EQ(pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(offset)),
              static_cast<ssize_t>(bytes.size()));
  }
  void put(uint64_t offset, uint64_t value, int width) {
    Bytes bytes;
    for (int i = 0; i < width; ++i) bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    write(offset, bytes);
  }

  uint64_t infoByte() const { return layout().chunkByte(tarn::kFileInfo, 0); }
  // A field of a family's record, sealed as our formatter does it or on a card without a seal.
  void setInfo(int type, uint32_t field, uint32_t value, bool sealed = true) {
    Bytes file = read(infoByte(), tarn::kInfoSealedBytes);
    tarn::putLe32(file.data() + 4 + type * 84 + field, value);
    if (sealed) {
      tarn::putLe16(file.data() + 768, tarn::crc16(file.data(), 768));
    } else {
      std::fill(file.begin() + 760, file.end(), uint8_t{0});
    }
    write(infoByte(), file);
  }
  // Byte of the directory entry with this short name.
  uint64_t entryByte(const std::string& name) const {
    const Bytes root = read(layout().dataByte(), static_cast<size_t>(layout().rootBytes()));
    for (size_t at = 0; at < root.size(); at += 32) {
      if (std::equal(name.begin(), name.end(), root.begin() + static_cast<long>(at))) {
        return layout().dataByte() + at;
      }
    }
    ADD_FAILURE() << "no entry " << name;
    return 0;
  }
  uint64_t fatByte(int table, uint32_t cluster) const {
    return (layout().reservedSectors() + uint64_t{layout().fatSectors()} * table) * 512 +
           uint64_t{cluster} * 4;
  }

  void expectMismatch(const std::string& text, GeometryDepth depth = GeometryDepth::kStart) {
    const GeometryReport report = verify(depth);
    EXPECT_EQ(report.verdict, Delivery::kBad);
    EXPECT_THAT(report.text, HasSubstr(text));
    EXPECT_THAT(report.text, HasSubstr("nothing was written"));
  }

  tarn_test::SyslogCapture log_;
  tarn::CardFormatter formatter_;
  int fd_ = -1;
};

TEST_F(CardGeometryTest, AFormattedCardFitsDownToItsLastCluster) {
  EXPECT_TRUE(verify(GeometryDepth::kWhole).ok()) << verify(GeometryDepth::kWhole).text;
}

TEST_F(CardGeometryTest, FamiliesOfAnyShapeThatTheFormatterLaysOutFit) {
  for (const char* profile : {"default", "many", "long", "small-pictures"}) {
    for (const uint64_t size : {uint64_t{64} * kMiB, uint64_t{3000} * kMiB}) {
      tarn::CardRequest request;
      request.sizeBytes = size;
      request.profile = profile;
      std::string error;
      unlink(kCardPath);
      ASSERT_EQ(tarn::CardFormatter().format(kCardPath, request, {}, &error), 0) << error;
      EXPECT_TRUE(verify(GeometryDepth::kWhole).ok()) << verify(GeometryDepth::kWhole).text;
    }
  }
}

TEST_F(CardGeometryTest, ABootSectorThatLeadsAstrayIsNamedByFieldWithItsBackupsValue) {
  put(13, 16, 1);
  expectMismatch("the boot sector gives 16 sectors to a cluster, its backup 1");
  put(13, 1, 1);
  put(14, 33, 2);
  expectMismatch("the boot sector gives 33 reserved sectors, its backup " +
                 std::to_string(layout().reservedSectors()));
}

TEST_F(CardGeometryTest, ABitOfASealedInfoFileIsSeenWhereverItIs) {
  for (uint64_t at = 0; at < tarn::kInfoSealedBytes; ++at) {
    const Bytes before = read(infoByte() + at, 1);
    write(infoByte() + at, {static_cast<uint8_t>(before[0] ^ (1 << (at % 8)))});
    EXPECT_EQ(verify().verdict, Delivery::kBad) << at;
    write(infoByte() + at, before);
  }
  EXPECT_TRUE(verify().ok());
}

TEST_F(CardGeometryTest, CardsOfBeforeHaveNoSealAndFit) {
  setInfo(tarn::kFileInfo, 68, 0, false);
  EXPECT_TRUE(verify().ok()) << verify().text;
}

TEST_F(CardGeometryTest, ValuesOutsideTheFormatAreRefusedWithBothNumbers) {
  setInfo(tarn::kFileJournal, 64, 16 * kMiB);
  expectMismatch("4 journal chunks of 16777216 bytes, the format 1 to 12582912 bytes");
  setInfo(tarn::kFileJournal, 64, 64 * kKiB + 32);
  expectMismatch("journal chunks of 65568 bytes, the format a multiple of 64");
  setInfo(tarn::kFileJournal, 64, 64 * kKiB);
  setInfo(tarn::kFileJournal, 72, 2);
  expectMismatch("2 journal chunks of 65536 bytes, the format at least 4");
  setInfo(tarn::kFileJournal, 72, 4);
  setInfo(tarn::kFileSyslog, 72, 4);
  expectMismatch("the format at least 5");
  setInfo(tarn::kFileSyslog, 72, 5);
  setInfo(tarn::kFileStream, 72, 0x8003);
  expectMismatch("the format at most 32767");
  setInfo(tarn::kFileStream, 72, 3);
  setInfo(tarn::kFileStream, 64, 0x80040000);
  expectMismatch("stream chunks of 2147745792 bytes");
  setInfo(tarn::kFileStream, 64, 256 * kKiB);
  setInfo(tarn::kFilePicture, 72, 2);
  expectMismatch("3 stream chunks and 2 picture chunks");
  setInfo(tarn::kFilePicture, 72, 3);
  setInfo(tarn::kFileStreamManage, 64, 64);
  expectMismatch("stream management chunks of 64 bytes, its 3 stream chunks need 74");
}

TEST_F(CardGeometryTest, NothingMayLieInFrontOfTheDataRegionOrInAnothersPlace) {
  const uint32_t start = layout().family(tarn::kFileStream).startSector;
  setInfo(tarn::kFileStream, 80, 64);
  expectMismatch("has the stream chunks at byte 32768, the data region begins at byte " +
                 std::to_string(layout().dataByte()));
  setInfo(tarn::kFileStream, 80, static_cast<uint32_t>(layout().dataByte() / 512));
  expectMismatch("the stream chunks begin at byte");
  setInfo(tarn::kFileStream, 80, start);
  setInfo(tarn::kFilePicture, 80, start + 512);
  expectMismatch("the stream chunks end at byte");
}

// Cards without a seal, where only the directory can tell.
TEST_F(CardGeometryTest, TheRootDirectoryContradictsAWrongInfoFile) {
  const uint32_t start = layout().family(tarn::kFilePicture).startSector;
  setInfo(tarn::kFilePicture, 80, start + 128, false);
  expectMismatch("the info file has CKPC0000 at byte " + std::to_string((start + 128) * 512ull) +
                 ", the root directory at byte " + std::to_string(start * 512ull));
  setInfo(tarn::kFilePicture, 80, start, false);
  setInfo(tarn::kFileSyslog, 64, 32 * kKiB, false);
  expectMismatch("gives syslog chunks of 32768 bytes, the root directory CKSL0000 with 65536");
  setInfo(tarn::kFileSyslog, 64, 64 * kKiB, false);
  setInfo(tarn::kFileStream, 72, 2, false);
  setInfo(tarn::kFilePicture, 72, 2, false);
  expectMismatch("the info file gives 2 stream chunks, the root directory has CKST0002");
}

TEST_F(CardGeometryTest, AWrongDirectoryEntryContradictsTheInfoFile) {
  const uint64_t entry = entryByte("CKST0001");
  const Bytes before = read(entry, 32);
  put(entry + 3, 'S', 1);
  expectMismatch("gives 3 stream chunks, the root directory has no CKST0001");
  write(entry, before);
  put(entry + 28, 128 * kKiB, 4);
  expectMismatch("the root directory CKST0001 with 131072");
  write(entry, before);
  put(entry + 26, 77, 2);
  expectMismatch("(cluster 77)");
  write(entry, before);
  put(entry + 12, 0x18, 1);  // what PCs keep there concerns nobody
  EXPECT_TRUE(verify().ok());
}

TEST_F(CardGeometryTest, WithoutTheInfoFilesEntryThereIsNoCard) {
  const uint64_t entry = entryByte("TAIF0000");
  put(entry, 'U', 1);
  expectMismatch("the root directory has no TAIF0000");
  put(entry, 'T', 1);
  put(entry + 20, 0x4000, 2);
  expectMismatch("has TAIF0000 at byte");
}

TEST_F(CardGeometryTest, OneGoodFatIsEnough) {
  const uint32_t cluster = layout().clusterOfByte(layout().chunkByte(tarn::kFileJournal, 2)) + 5;
  put(fatByte(0, cluster), 0, 4);
  EXPECT_TRUE(verify().ok()) << verify().text;
  put(fatByte(1, cluster + 1), 0, 4);
  EXPECT_TRUE(verify().ok()) << verify().text;
  put(fatByte(1, cluster), 7, 4);
  expectMismatch("has CKDL0002 in one piece, the FATs lead elsewhere at cluster " +
                 std::to_string(cluster));
}

TEST_F(CardGeometryTest, StreamChainsAreTheMatterOfTheWholeLook) {
  const uint32_t cluster = layout().clusterOfByte(layout().chunkByte(tarn::kFileStream, 1)) + 9;
  for (int table : {0, 1}) put(fatByte(table, cluster), 3, 4);
  EXPECT_TRUE(verify().ok()) << verify().text;
  expectMismatch("has CKST0001 in one piece", GeometryDepth::kWhole);
}

TEST_F(CardGeometryTest, ACardThatWasCutShortIsRefusedAndNotMadeLonger) {
  const uint64_t end =
      layout().family(tarn::kFilePicture).startByte() + layout().family(tarn::kFilePicture).bytes();
  ASSERT_EQ(truncate(kCardPath, static_cast<off_t>(end - 512)), 0);
  expectMismatch("the picture chunks end at byte " + std::to_string(end) + ", the card at byte " +
                 std::to_string(end - 512));
  EXPECT_THAT(tarn::Recovery().run().error, HasSubstr("the picture chunks end at byte"));
  EXPECT_EQ(lseek(fd_, 0, SEEK_END), static_cast<off_t>(end - 512));
}

TEST_F(CardGeometryTest, WhateverWritesToACardPassesTheGateFirst) {
  // Without a seal each of them accepted this card and wrote into its root directory.
  setInfo(tarn::kFileStreamManage, 80, static_cast<uint32_t>(layout().dataByte() / 512), false);
  const Bytes before = read(0, 34 * kMiB);
  const std::string text = verify().text;
  EXPECT_THAT(text, HasSubstr("stream management chunks"));
  EXPECT_EQ(tarn::Recovery().run().error, text);
  std::string error;
  EXPECT_EQ(close(open("/tmp/DB.dat", O_CREAT | O_WRONLY, 0600)), 0);
  EXPECT_EQ(tarn::Recovery().saveImage(&error), -1);
  EXPECT_EQ(error, text);
  EXPECT_EQ(tarn::ManagementServer().start(), -1);
  tarn::RecordingSession session;
  EXPECT_EQ(session.open({}), -1);
  EXPECT_EQ(session.error(), tarn::RecordingError::kCard);
  EXPECT_EQ(session.errorText(), text);
  tarn::LogWriter writer;
  EXPECT_EQ(writer.open(), -1);
  EXPECT_EQ(writer.errorText(), text);
  EXPECT_TRUE(read(0, 34 * kMiB) == before);
}

TEST_F(CardGeometryTest, ReadsThatFailForAMomentAreAskedAgain) {
  tarn_test::IoFaults faults(kCardPath);
  for (int n = 1; n <= 5; ++n) {
    faults.fail(tarn_test::Call::Pread, n, EIO, 2);
    EXPECT_TRUE(verify().ok()) << n;
    faults.clear();
  }
}

TEST_F(CardGeometryTest, ACardThatCannotBeReadIsNotCalledDamaged) {
  tarn_test::IoFaults faults(kCardPath);
  faults.fail(tarn_test::Call::Pread, 2, EIO, tarn_test::IoFaults::kForever);
  const GeometryReport report = verify();
  EXPECT_EQ(report.verdict, Delivery::kRefused);
  EXPECT_EQ(report.text,
            std::string(kCardPath) + " cannot be read: the root directory; nothing was written");
  EXPECT_EQ(CardGeometry::verify("/dev/none", GeometryDepth::kStart).verdict, Delivery::kRefused);
}

TEST_F(CardGeometryTest, AFewReadsAndTwoMillisecondsAreAllItCosts) {
  tarn_test::IoFaults faults(kCardPath);
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_TRUE(verify().ok());
  const auto took = std::chrono::steady_clock::now() - begin;
  EXPECT_LE(faults.count(tarn_test::Call::Pread), 16u);
  RecordProperty(
      "microseconds",
      std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
}

// What another formatter may do differently.
TEST(CardGeometryOfOthers, CardsThatReadersAcceptFit) {
  const auto expectFit = [](const tarn_test::CardLayout& layout) {
    const tarn_test::CardImage card(layout);
    const GeometryReport report = CardGeometry::verify(kCardPath, GeometryDepth::kWhole);
    EXPECT_TRUE(report.ok()) << report.text;
  };
  tarn_test::CardLayout layout;
  layout.fillUndefined = false;
  expectFit(layout);
  layout.rootCluster = 5;  // the number of the first cluster is the root directory's
  expectFit(layout);
  layout.rootCluster = 2;
  layout.infoEntry = 300;
  layout.reservedSectors = 8;
  layout.fatCount = 1;
  layout.fat32Size = 128;
  expectFit(layout);
  layout.families[tarn::kFilePicture].startSector = 8192;  // families in another order, with gaps
  layout.families[tarn::kFileStream].startSector = 12288;
  expectFit(layout);
}

}  // namespace
