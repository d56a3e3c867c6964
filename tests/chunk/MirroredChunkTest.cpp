#include <cerrno>
#include <cstring>

#include "chunk/CTARNMirroredChunk.h"
#include "chunk/ChunkTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MirroredProbe : public CTARNMirroredChunk {
 public:
  using CTARNMirroredChunk::CTARNMirroredChunk;
  using CTARNMirroredChunk::fileType;
  using CTARNMirroredChunk::manager;
  using CTARNMirroredChunk::mirror;
  using CTARNMirroredChunk::mirrorID;
  using CTARNMirroredChunk::original;
};

// Journal chunks 0 and 1, open for writing, with these free addresses.
struct OpenPair : ManagedCard {
  explicit OpenPair(uint32_t originalFree = 0, uint32_t mirrorFree = 0) {
    setUsage(journal, 0, 0, originalFree);
    setUsage(journal, 1, 0, mirrorFree);
    EXPECT_EQ(pair.openChunkFile(&journal, 0, 1), 0);
    io.clear();
    log.clear();
  }
  Bytes copy(int chunk, uint32_t at, size_t length) {
    return card.readChunk(kJournal, chunk, at, length);
  }
  bool untouched(int chunk, uint32_t at, size_t length) {
    return copy(chunk, at, length) == Bytes(length, 0xFF);
  }
  MirroredProbe pair{kJournal};
};

constexpr char kMirrorFailed[] =
    "write fail mirrored chunk. original chunk write point rollbacked:(ret:-1 size:32)\n";

Bytes record(uint32_t seed) { return patternBytes(32, seed); }

TEST(MirroredChunk, TheCrcIsThatOfTheJournal) {
  CTARNMirroredChunk pair(kJournal);
  EXPECT_EQ(pair.calcCrc("123456789", 9), 0x31C3);
  EXPECT_EQ(pair.calcCrc("", 0), 0);
}

TEST(MirroredChunk, ARecordIsWrittenToBothWithItsTrailer) {
  OpenPair p(100, 100);
  Bytes bytes(14, 0xEE);
  memcpy(bytes.data(), "0123456789", 10);
  EXPECT_EQ(p.pair.write(bytes.data(), 14, 10), 14);
  // The CRC of "0123456789" is 0x9C58.
  const Bytes expected = {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 0, 0, 0x9C, 0x58};
  EXPECT_EQ(bytes, expected);
  EXPECT_EQ(p.copy(0, 100, 14), expected);
  EXPECT_EQ(p.copy(1, 100, 14), expected);
  EXPECT_TRUE(p.untouched(0, 114, 100));
  EXPECT_TRUE(p.untouched(1, 114, 100));
  EXPECT_EQ(p.pair.getFreeAddr(), 114u);
  EXPECT_EQ(p.pair.mirror->getFreeAddr(), 114u);
  EXPECT_THAT(problems(p.log), IsEmpty());
}

TEST(MirroredChunk, TheCrcIsStoredHighByteFirst) {
  OpenPair p;
  Bytes bytes(13, 0xEE);
  memcpy(bytes.data(), "123456789", 9);
  EXPECT_EQ(p.pair.write(bytes.data(), 13, 9), 13);
  EXPECT_EQ(p.copy(0, 9, 4), (Bytes{0, 0, 0x31, 0xC3}));
  EXPECT_EQ(p.copy(1, 9, 4), (Bytes{0, 0, 0x31, 0xC3}));
}

TEST(MirroredChunk, TheOriginalIsOnTheMediumBeforeTheMirrorIsTouched) {
  OpenPair p;
  Bytes bytes = record(1);
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), 32);
  EXPECT_EQ(p.io.sequence(), "lwflw");
  const auto original = static_cast<int64_t>(p.card.chunkStart(kJournal, 0));
  const auto mirror = static_cast<int64_t>(p.card.chunkStart(kJournal, 1));
  EXPECT_THAT(p.io.writes(), ElementsAre(WriteRecord{original, 32}, WriteRecord{mirror, 32}));
  p.io.clear();
  EXPECT_EQ(p.pair.settle(), 0);
  EXPECT_EQ(p.io.sequence(), "f");  // the original is there already
}

TEST(MirroredChunk, SynchronisingFlushesBothWhetherOrNotAnythingIsNew) {
  OpenPair p;
  Bytes bytes = record(1);
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), 32);
  p.io.clear();
  EXPECT_EQ(p.pair.fSync(), 0);
  EXPECT_EQ(p.io.sequence(), "ff");
  EXPECT_EQ(p.pair.fSync(), 0);
  EXPECT_EQ(p.io.sequence(), "ffff");
}

TEST(MirroredChunk, TheMirrorIsWrittenOnlyWhenTheOriginalsFlushHasReturned) {
  OpenPair p;
  p.io.block(Call::Fsync, 1);
  Bytes bytes = record(1);
  std::thread writer([&] { EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), 32); });
  EXPECT_TRUE(p.io.waitUntilBlocked());
  EXPECT_FALSE(p.untouched(0, 0, 32));
  EXPECT_TRUE(p.untouched(1, 0, 32));
  p.io.release();
  writer.join();
  EXPECT_EQ(p.copy(1, 0, 32), p.copy(0, 0, 32));
}

TEST(MirroredChunk, ARewriteFlushesTheOriginalFirstToo) {
  OpenPair p(320, 320);
  Bytes bytes = record(1);
  ASSERT_EQ(p.pair.seek(64, SEEK_SET), 64);
  p.io.clear();
  EXPECT_EQ(p.pair.writeNoSeek(bytes.data(), 32, 28), 32);
  EXPECT_EQ(p.io.sequence(), "lwflw");
  EXPECT_EQ(p.copy(0, 64, 32), bytes);
  EXPECT_EQ(p.copy(1, 64, 32), bytes);
  EXPECT_EQ(p.pair.getFreeAddr(), 320u);
  EXPECT_EQ(p.pair.mirror->getFreeAddr(), 320u);
  EXPECT_TRUE(p.untouched(0, 320, 32));
}

TEST(MirroredChunk, BothCopiesLieAtTheOriginalsOffset) {
  OpenPair p(96, 512);
  Bytes bytes = record(1);
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), 32);
  EXPECT_EQ(p.copy(0, 96, 32), bytes);
  EXPECT_EQ(p.copy(1, 96, 32), bytes);
  EXPECT_TRUE(p.untouched(1, 512, 32));
  EXPECT_EQ(p.pair.fSync(), 0);
  EXPECT_EQ(usageOf(p.journal, 0).freeAddr, 128u);
  EXPECT_EQ(usageOf(p.journal, 1).freeAddr, 128u);
}

TEST(MirroredChunk, ARecordThatEndsWithTheChunkReturnsToItsStart) {
  OpenPair p(4064, 4064);
  Bytes bytes = record(1);
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), 32);
  EXPECT_EQ(p.pair.getFreeAddr(), 0u);
  EXPECT_EQ(p.copy(0, 4064, 32), bytes);
  EXPECT_EQ(p.copy(1, 4064, 32), bytes);
}

TEST(MirroredChunk, AFailedOriginalWriteLeavesTheMirrorAlone) {
  OpenPair p(96, 96);
  Bytes bytes = record(1);
  p.io.fail(Call::Write, 1, EIO);
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), -1);
  EXPECT_THAT(problems(p.log), ElementsAre(err("writeDataNoSeek: write error. errno[5]"),
                                           err("write: writeNoSeek error"),
                                           err("write fail original chunk. (ret:-1 size:32)\n")));
  EXPECT_EQ(p.pair.getFreeAddr(), 96u);
  EXPECT_TRUE(p.untouched(1, 0, 4096));
}

TEST(MirroredChunk, AFailedFlushCountsAsAFailedWriteOfTheOriginal) {
  for (uint32_t address : {96u, 4064u}) {
    OpenPair p(address, address);
    Bytes bytes = record(1);
    p.io.fail(Call::Fsync, 1, EIO);
    EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), -1);
    EXPECT_THAT(problems(p.log), ElementsAre(err("write fail original chunk. (ret:-1 size:32)\n")));
    EXPECT_EQ(p.pair.getFreeAddr(), address);
    EXPECT_EQ(p.pair.mirror->getFreeAddr(), address);
    EXPECT_TRUE(p.untouched(1, 0, 4096));
    // The next record takes the same place.
    Bytes next = record(2);
    EXPECT_EQ(p.pair.write(next.data(), 32, 28), 32);
    EXPECT_EQ(p.copy(0, address, 32), next);
    EXPECT_EQ(p.copy(1, address, 32), next);
  }
}

TEST(MirroredChunk, AFailedMirrorAppendTakesTheOriginalBack) {
  for (uint32_t address : {0u, 96u, 4064u, 4080u}) {
    SCOPED_TRACE(address);
    OpenPair p(address, address);
    Bytes bytes = record(1);
    p.io.fail(Call::Write, address == 4080 ? 3 : 2, EIO);
    EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), -1);
    EXPECT_THAT(problems(p.log), ElementsAre(err("writeDataNoSeek: write error. errno[5]"),
                                             err("write: writeNoSeek error"), err(kMirrorFailed)));
    EXPECT_EQ(p.pair.getFreeAddr(), address);
    EXPECT_EQ(p.pair.currentOffset(), static_cast<long>(address));
    Bytes next = record(2);
    EXPECT_EQ(p.pair.write(next.data(), 32, 28), 32);
    EXPECT_EQ(p.copy(0, address, 16), part(next, 0, 16));
    EXPECT_EQ(p.copy(1, address, 16), part(next, 0, 16));
  }
}

TEST(MirroredChunk, AFailedMirrorRewriteMovesTheFreeAddressBackByTheRecord) {
  const std::pair<uint32_t, uint32_t> cases[] = {{320, 288}, {0, 4064}};
  for (const auto& [before, after] : cases) {
    OpenPair p(before, before);
    Bytes bytes = record(1);
    ASSERT_EQ(p.pair.seek(64, SEEK_SET), 64);
    p.io.fail(Call::Write, 2, EIO);
    EXPECT_EQ(p.pair.writeNoSeek(bytes.data(), 32, 28), -1);
    EXPECT_THAT(problems(p.log),
                ElementsAre(err("writeDataNoSeek: write error. errno[5]"), err(kMirrorFailed)));
    EXPECT_EQ(p.pair.getFreeAddr(), after);
    EXPECT_EQ(p.copy(0, 64, 32), bytes);
    EXPECT_TRUE(p.untouched(1, 64, 32));
  }
}

TEST(MirroredChunk, AFailedOriginalRewriteChangesNothingElse) {
  OpenPair p(320, 320);
  Bytes bytes = record(1);
  ASSERT_EQ(p.pair.seek(64, SEEK_SET), 64);
  p.io.fail(Call::Write, 1, EIO);
  EXPECT_EQ(p.pair.writeNoSeek(bytes.data(), 32, 28), -1);
  EXPECT_THAT(problems(p.log), ElementsAre(err("writeDataNoSeek: write error. errno[5]")));
  p.log.clear();
  ASSERT_EQ(p.pair.seek(64, SEEK_SET), 64);
  p.io.fail(Call::Fsync, 1, EIO);
  EXPECT_EQ(p.pair.writeNoSeek(bytes.data(), 32, 28), -1);
  EXPECT_THAT(problems(p.log), IsEmpty());
  EXPECT_EQ(p.pair.getFreeAddr(), 320u);
  EXPECT_TRUE(p.untouched(1, 0, 4096));
}

TEST(MirroredChunk, WritesTellTheLengthOfThePayloadEachInItsWay) {
  OpenPair p;
  const Bytes plain(32, 'x');
  Bytes bytes = plain;
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 0), 32);  // as it is
  EXPECT_EQ(bytes, plain);
  EXPECT_EQ(p.copy(1, 0, 32), plain);
  EXPECT_EQ(p.pair.writeNoSeek(bytes.data(), 32, -1), 32);  // as it is
  EXPECT_EQ(bytes, plain);
  EXPECT_EQ(p.copy(1, 32, 32), plain);
  EXPECT_EQ(p.pair.writeNoSeek(bytes.data(), 32, 0), 32);  // an empty payload
  EXPECT_EQ(part(bytes, 0, 5), (Bytes{0, 0, 0, 0, 'x'}));
  EXPECT_EQ(p.copy(1, 64, 32), bytes);
  p.io.clear();
  EXPECT_EQ(p.pair.write(bytes.data(), 32, -1), -1);
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 29), -1);  // no room for the trailer
  EXPECT_EQ(p.pair.writeNoSeek(bytes.data(), 32, 29), -1);
  EXPECT_EQ(p.pair.writeNoSeek(bytes.data(), 3, 0), -1);
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 0x7FFFFFFF), -1);
  EXPECT_EQ(p.pair.write(nullptr, 32, 28), -1);
  EXPECT_EQ(p.pair.writeNoSeek(nullptr, 32, 28), -1);
  EXPECT_EQ(p.pair.write(bytes.data(), -1, 0), -1);
  EXPECT_EQ(p.io.writes().size(), 0u);
}

TEST(MirroredChunk, OpeningThroughAManagerTakesBothOrNeither) {
  ManagedCard c;
  MirroredProbe pair(kJournal);
  EXPECT_EQ(pair.fileType, kJournal);
  EXPECT_EQ(pair.openChunkFile(&c.journal, 2, 4), -1);  // there is no chunk 4
  EXPECT_FALSE(pair.isOpen());
  EXPECT_FALSE(pair.mirror->isOpen());
  EXPECT_EQ(pair.openChunkFile(&c.journal, 4, 2), -1);
  EXPECT_FALSE(pair.mirror->isOpen());
  EXPECT_EQ(c.io.count(Call::Open), c.io.count(Call::Close));
  EXPECT_EQ(pair.openChunkFile(&c.journal, 2, 3), 0);
  EXPECT_EQ(pair.manager, &c.journal);
  EXPECT_TRUE(pair.isUsageKnown());
  EXPECT_EQ(pair.original->getChunkId(), 2);
  EXPECT_EQ(pair.mirror->getChunkId(), 3);
  EXPECT_EQ(pair.getChunkId(), 0);  // not recorded in this way
  EXPECT_EQ(pair.getChunkSize(), 4096u);
  EXPECT_EQ(pair.closeChunkFile(), 0);
  EXPECT_EQ(pair.closeChunkFile(), -1);
}

TEST(MirroredChunk, OpeningForEventsTakesBothOrNeither) {
  PlainCard c;
  MirroredProbe pair(kJournal);
  const CHUNK_EVENT original = eventOf(2, 0, 4096);
  const CHUNK_EVENT mirror = eventOf(3, 0, 4096);
  const CHUNK_EVENT none = eventOf(3, 0, 0);
  EXPECT_EQ(pair.openChunkFile(&original, &none), -1);
  EXPECT_FALSE(pair.isOpen());
  EXPECT_EQ(pair.getChunkId(), 0);
  EXPECT_EQ(pair.openChunkFile(&original, &mirror), 0);
  EXPECT_EQ(pair.getChunkId(), 2);
  EXPECT_EQ(pair.mirrorID, 3);
  EXPECT_EQ(pair.fSync(), -1);  // no manager to tell
  EXPECT_EQ(pair.closeChunkFile(), 0);
}

TEST(MirroredChunk, AnOpenPairStaysAsItIs) {
  OpenPair p(96, 96);
  const CHUNK_EVENT event = eventOf(2, 0, 4096);
  EXPECT_EQ(p.pair.openChunkFile(&event, &event), -1);
  EXPECT_EQ(p.pair.openChunkFile(&p.journal, 2, 3), -1);
  EXPECT_TRUE(p.pair.isOpen());
  EXPECT_TRUE(p.pair.mirror->isOpen());
  Bytes bytes = record(1);
  EXPECT_EQ(p.pair.write(bytes.data(), 32, 28), 32);
  EXPECT_EQ(p.copy(0, 96, 32), bytes);
}

TEST(MirroredChunk, TheUsageOfBothMustBeKnown) {
  ManagedCard c;
  MirroredProbe pair(kJournal);
  EXPECT_FALSE(pair.isUsageKnown());
  c.stopServer();
  ASSERT_EQ(pair.openChunkFile(&c.journal, 0, 1), 0);
  EXPECT_FALSE(pair.isUsageKnown());
  Bytes bytes = record(1);
  c.log.clear();
  EXPECT_EQ(pair.write(bytes.data(), 32, 28), -1);
  EXPECT_THAT(problems(c.log), ElementsAre(err("write: free address is not known"),
                                           err("write fail original chunk. (ret:-1 size:32)\n")));
  pair.original->setFreeAddr(0);
  EXPECT_FALSE(pair.isUsageKnown());
  pair.setFreeAddr(64);
  EXPECT_TRUE(pair.isUsageKnown());
  EXPECT_EQ(pair.mirror->getFreeAddr(), 64u);
  pair.initFreeAddr();
  EXPECT_EQ(pair.getFreeAddr(), 0u);
  EXPECT_EQ(pair.mirror->getFreeAddr(), 0u);
}

TEST(MirroredChunk, ClosingTellsTheManagerBothFreeAddresses) {
  OpenPair p(96, 96);
  Bytes bytes = record(1);
  ASSERT_EQ(p.pair.write(bytes.data(), 32, 28), 32);
  EXPECT_EQ(p.pair.closeChunkFile(), 0);
  EXPECT_EQ(usageOf(p.journal, 0).freeAddr, 128u);
  EXPECT_EQ(usageOf(p.journal, 1).freeAddr, 128u);
}

TEST(MirroredChunk, SynchronisingGivesTheFirstFailure) {
  OpenPair p;
  EXPECT_EQ(p.pair.fSync(), 0);
  p.stopServer();
  EXPECT_EQ(p.pair.fSync(), -1);
  EXPECT_EQ(p.pair.flush(), 0);  // needs no manager
}

TEST(MirroredChunk, PrintsBothChunks) {
  PlainCard c;
  MirroredProbe pair(kJournal);
  const CHUNK_EVENT original = eventOf(2, 100, 200);
  const CHUNK_EVENT mirror = eventOf(3, 50, 200);
  ASSERT_EQ(pair.openChunkFile(&original, &mirror), 0);
  pair.original->setFreeAddr(1024);
  pair.mirror->setFreeAddr(12);
  pair.mirror->calcFreeSize();
  const std::string rule = "=============== ==================== =========================";
  EXPECT_EQ(printedBy([&] { pair.dispParameter(); }),
            "                Original             Mirrored\n" + rule +
                "\n"
                " ChunkId                           2                    3\n"
                " ChunkSize                      4096                 4096\n"
                " FreeAddr                       1024                   12\n"
                " FreeSize                          0                 4084\n"
                " curOffset                       100                   50\n" +
                rule +
                "\n\n"
                "----------------------\n"
                "chunkID     = 2\n"
                "freeAddr()  = 1024\n"
                "useAddr()   = 0\n"
                "freeSize()  = 0 kbyte\n"
                "----------------------\n"
                "----------------------\n"
                "chunkID     = 3\n"
                "freeAddr()  = 12\n"
                "useAddr()   = 0\n"
                "freeSize()  = 3 kbyte\n"
                "----------------------\n");
}

TEST(MirroredChunk, DeviceNamesComeFromTheSameTable) {
  CTARNMirroredChunk pair(kJournal);
  char name[15] = {};
  EXPECT_EQ(pair.ConvertPartitionNumberToDeviceName('3', name), 1);
  EXPECT_STREQ(name, "/dev/sdblk0p1");
  EXPECT_EQ(pair.ConvertPartitionNumberToDeviceName(3, name), 1);
  EXPECT_STREQ(name, "/tmp/dev/mmc");
}

}  // namespace
}  // namespace tarn_test
