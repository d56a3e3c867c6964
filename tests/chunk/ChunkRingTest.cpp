#include <cerrno>

#include "chunk/ChunkTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// A syslog chunk of 4096 bytes open for writing; it has the base's write().
struct OpenRing : ManagedCard {
  OpenRing(uint32_t use, uint32_t free) {
    setUsage(syslog, 1, use, free);
    EXPECT_EQ(chunk.openChunkFile(&syslog, 1), 0);
    io.clear();
    log.clear();
  }
  SyslogProbe chunk;
};

// A journal chunk filled with a pattern and opened as an event: unbuffered, read-only.
struct OpenEvent : PlainCard {
  OpenEvent(uint32_t start, uint32_t size) : bytes(patternBytes(4096)) {
    card.writeChunk(kJournal, 1, 0, bytes);
    const CHUNK_EVENT event = eventOf(1, start, size);
    EXPECT_EQ(chunk.openChunkFile(&event), 0);
    io.clear();
  }
  long read(long size) {
    got.assign(8192, 0xAA);
    const long result = chunk.read(got.data(), size);
    if (result >= 0) got.resize(static_cast<size_t>(result));
    return result;
  }
  Bytes bytes;
  Bytes got;
  JournalProbe chunk{kJournal};
};

TEST(ChunkRing, FreeSpaceFollowsTheAddresses) {
  OpenRing r(1000, 1000);
  EXPECT_EQ(r.chunk.getFreeSize(), 4096u);  // equal: empty
  EXPECT_EQ(r.chunk.getUseSize(), 0u);
  r.chunk.setFreeAddr(1500);
  EXPECT_EQ(r.chunk.getFreeSize(), 3596u);
  EXPECT_EQ(r.chunk.getUseSize(), 500u);
  r.chunk.setUseAddr(1501);
  EXPECT_EQ(r.chunk.getFreeSize(), 1u);
  EXPECT_EQ(r.chunk.getUseSize(), 4095u);
}

TEST(ChunkRing, AWriteOfTheWholeChunkIsRefused) {
  OpenRing r(1000, 1000);
  EXPECT_EQ(writeBytes(r.chunk, Bytes(4096, 'x')), -1);
  EXPECT_THAT(problems(r.log),
              ElementsAre(err("write: error write size exceed free space. 4096 <= 4096")));
  EXPECT_EQ(r.chunk.getFreeAddr(), 1000u);
  EXPECT_EQ(r.io.writes().size(), 0u);
}

TEST(ChunkRing, AWriteThatLeavesOneByteWraps) {
  OpenRing r(1000, 1000);
  const Bytes bytes = patternBytes(4095);
  EXPECT_EQ(writeBytes(r.chunk, bytes), 4095);
  EXPECT_EQ(r.chunk.getFreeAddr(), 999u);
  EXPECT_EQ(r.chunk.getFreeSize(), 1u);
  EXPECT_EQ(r.chunk.fSync(), 0);
  EXPECT_EQ(r.card.readChunk(kSyslog, 1, 1000, 3096), part(bytes, 0, 3096));
  EXPECT_EQ(r.card.readChunk(kSyslog, 1, 0, 999), part(bytes, 3096, 999));
  EXPECT_EQ(r.card.readChunk(kSyslog, 1, 999, 1), Bytes(1, 0xFF));  // stays free
  EXPECT_EQ(r.card.readChunk(kSyslog, 2, 0, 4096), Bytes(4096, 0xFF));
  EXPECT_EQ(writeBytes(r.chunk, Bytes(1, 'x')), -1);
  EXPECT_THAT(problems(r.log),
              ElementsAre(err("write: error write size exceed free space. 1 <= 1")));
}

TEST(ChunkRing, AWriteAcrossTheEndIsSplit) {
  OpenRing r(4000, 4000);
  const Bytes bytes = patternBytes(200);
  EXPECT_EQ(writeBytes(r.chunk, bytes), 200);
  EXPECT_EQ(r.chunk.getFreeAddr(), 104u);
  EXPECT_EQ(r.chunk.fSync(), 0);
  EXPECT_EQ(r.card.readChunk(kSyslog, 1, 4000, 96), part(bytes, 0, 96));
  EXPECT_EQ(r.card.readChunk(kSyslog, 1, 0, 104), part(bytes, 96, 104));
  EXPECT_EQ(r.card.readChunk(kSyslog, 1, 104, 10), Bytes(10, 0xFF));
  EXPECT_EQ(r.card.readChunk(kSyslog, 2, 0, 104), Bytes(104, 0xFF));
}

TEST(ChunkRing, AWriteUpToTheEndStoresAddressZero) {
  OpenRing r(4000, 4000);
  EXPECT_EQ(writeBytes(r.chunk, Bytes(96, 'x')), 96);
  EXPECT_EQ(r.chunk.getFreeAddr(), 0u);
  EXPECT_EQ(r.chunk.getFreeSize(), 4000u);
}

TEST(ChunkRing, NegativeSizesFailInEveryWrite) {
  OpenRing r(0, 0);
  Bytes bytes(16);
  EXPECT_EQ(r.chunk.write(bytes.data(), -1), -1);
  EXPECT_EQ(r.chunk.writeNoSeek(bytes.data(), -1), -1);
  EXPECT_THAT(problems(r.log),
              ElementsAre(err("write: error write size exceed free space. 4096 <= 4294967295"),
                          err("writeDataNoSeek: write error. errno[22]")));
  EXPECT_EQ(r.chunk.flush(), 0);
  EXPECT_EQ(r.io.writes().size(), 0u);
  EXPECT_EQ(r.chunk.getFreeAddr(), 0u);
}

TEST(ChunkRing, AWriteWithoutSeekKeepsTheFreeAddress) {
  OpenRing r(0, 100);
  const Bytes bytes = patternBytes(300);
  ASSERT_EQ(r.chunk.seek(4000, SEEK_SET), 4000);
  EXPECT_EQ(r.chunk.writeNoSeek(Bytes(bytes).data(), 300), 300);
  EXPECT_EQ(r.chunk.getFreeAddr(), 100u);
  EXPECT_EQ(r.chunk.currentOffset(), 204);
  EXPECT_EQ(r.chunk.fSync(), 0);
  EXPECT_EQ(r.card.readChunk(kSyslog, 1, 4000, 96), part(bytes, 0, 96));
  EXPECT_EQ(r.card.readChunk(kSyslog, 1, 0, 204), part(bytes, 96, 204));
}

TEST(ChunkRing, AWriteLargerThanTheChunkOrBehindItIsRefused) {
  OpenRing r(0, 0);
  Bytes bytes(5000);
  EXPECT_EQ(r.chunk.writeNoSeek(bytes.data(), 4097), -1);
  ASSERT_EQ(r.chunk.seek(4097, SEEK_SET), 4097);
  EXPECT_EQ(r.chunk.writeNoSeek(bytes.data(), 1), -1);
  const LogLine refused = err("writeDataNoSeek: write error. errno[22]");
  EXPECT_THAT(problems(r.log), ElementsAre(refused, refused));
  EXPECT_EQ(r.chunk.flush(), 0);
  EXPECT_EQ(r.io.writes().size(), 0u);
  // At the end itself the ring goes on at its start.
  ASSERT_EQ(r.chunk.seek(4096, SEEK_SET), 4096);
  EXPECT_EQ(r.chunk.writeNoSeek(bytes.data(), 4096), 4096);
}

TEST(ChunkRing, AWriteWhoseSeekFailsLeavesTheAddress) {
  OpenRing r(0, 100);
  r.io.fail(Call::Lseek, 1, EIO);
  EXPECT_EQ(writeBytes(r.chunk, Bytes(10, 'x')), -1);
  EXPECT_THAT(problems(r.log), ElementsAre(err("CFATAccess.lseek"), err("write: seek error")));
  EXPECT_EQ(r.chunk.getFreeAddr(), 100u);
}

TEST(ChunkRing, AWriteThatTheBufferRefusesLeavesTheAddress) {
  CardLayout layout = tinyChunks();
  layout.families[kPicture].chunkSize = 64 * kKiB;
  ManagedCard c(layout);
  CTARNStreamChunk picture(0);
  ASSERT_EQ(picture.openChunkFile(&c.stream, 0), 0);
  ASSERT_EQ(writeBytes(picture, Bytes(100, 'a')), 100);
  EXPECT_EQ(writeBytes(picture, Bytes(32 * kKiB + 1, 'b')), -1);
  EXPECT_THAT(problems(c.log), ElementsAre(err("write : data size too large"),
                                           err("writeDataNoSeek: write error. errno[0]"),
                                           err("write: writeNoSeek error")));
  EXPECT_EQ(picture.getFreeAddr(), 100u);
  EXPECT_EQ(writeBytes(picture, Bytes(100, 'c')), 100);
  EXPECT_EQ(picture.fSync(), 0);
  EXPECT_EQ(c.card.readChunk(kPicture, 0, 0, 100), Bytes(100, 'a'));
  EXPECT_EQ(c.card.readChunk(kPicture, 0, 100, 101), [] {
    Bytes expected(100, 'c');
    expected.push_back(0xCC);
    return expected;
  }());
}

TEST(ChunkRing, ReadingPastAnEventEndsThere) {
  OpenEvent e(1000, 200);
  EXPECT_EQ(e.read(300), 200);
  EXPECT_EQ(e.got, part(e.bytes, 1000, 200));
  EXPECT_EQ(e.read(300), 0);  // at the end
  EXPECT_EQ(e.chunk.seek(1500, SEEK_SET), 1500);
  EXPECT_EQ(e.read(300), 0);  // behind it
  EXPECT_EQ(e.chunk.seek(100, SEEK_SET), 100);
  EXPECT_EQ(e.read(300), 0);  // in front of it: a whole ring behind its start
  EXPECT_THAT(e.log.lines(), IsEmpty());
  EXPECT_EQ(e.io.count(Call::Read), 1u);
}

TEST(ChunkRing, AnEventAcrossTheEndIsReadInTwoPieces) {
  OpenEvent e(4000, 200);
  Bytes expected = part(e.bytes, 4000, 96);
  const Bytes rest = part(e.bytes, 0, 104);
  expected.insert(expected.end(), rest.begin(), rest.end());
  EXPECT_EQ(e.read(300), 200);
  EXPECT_EQ(e.got, expected);
  EXPECT_EQ(e.chunk.currentOffset(), 104);
  EXPECT_EQ(e.chunk.seekEvent(150, SEEK_SET), 54);
  EXPECT_EQ(e.read(100), 50);
  EXPECT_EQ(e.got, part(e.bytes, 54, 50));
  EXPECT_THAT(e.log.lines(), IsEmpty());
}

TEST(ChunkRing, ANegativeReadFailsWithoutTouchingTheDevice) {
  OpenEvent e(1000, 200);
  EXPECT_EQ(e.read(-1), -1);
  EXPECT_EQ(e.read(0), 0);
  EXPECT_EQ(e.io.count(Call::Read), 0u);
}

TEST(ChunkRing, AReadThatExceedsTheEventByMoreThanTheChunkIsReportedAndCut) {
  OpenEvent e(1000, 200);
  EXPECT_EQ(e.read(4296), 200);  // exceeds by the chunk's size: nothing to say
  EXPECT_THAT(e.log.lines(), IsEmpty());
  EXPECT_EQ(e.chunk.seekEvent(0, SEEK_SET), 1000);
  EXPECT_EQ(e.read(4297), 200);
  EXPECT_THAT(e.log.lines(), ElementsAre(err("readData : size exceed check error")));
  EXPECT_EQ(e.read(4297), 0);
  EXPECT_EQ(e.log.lines().size(), 2u);
}

TEST(ChunkRing, AReadThatTheDeviceCutsShortFails) {
  OpenEvent e(1000, 200);
  e.io.shorten(Call::Read, 1, 50);
  EXPECT_EQ(e.read(100), -1);
  EXPECT_THAT(e.log.lines(), ElementsAre(err("readData: read error. errno[0]"),
                                         err("read_dsize , size = 50, 100")));
  EXPECT_TRUE(e.chunk.lastReadFailed());
  e.log.clear();
  e.io.fail(Call::Read, 1, EIO);
  EXPECT_EQ(e.read(100), -1);
  EXPECT_THAT(e.log.lines(), ElementsAre(err("readData: read error. errno[5]"),
                                         err("read_dsize , size = -1, 100")));
  e.log.clear();
  EXPECT_EQ(e.read(100), 100);
  EXPECT_FALSE(e.chunk.lastReadFailed());
}

TEST(ChunkRing, EitherPieceOfAReadAcrossTheEndMayFail) {
  OpenEvent e(4000, 200);
  for (int n : {1, 2}) {
    EXPECT_EQ(e.chunk.seekEvent(0, SEEK_SET), 4000);
    e.io.shorten(Call::Read, n, 10);
    EXPECT_EQ(e.read(200), -1);
  }
  const LogLine failed = err("readData: read error. errno[0]");
  EXPECT_THAT(e.log.lines(), ElementsAre(failed, failed));
}

TEST(ChunkRing, AReadWhoseSeeksFailIsReported) {
  OpenEvent e(4000, 200);
  e.io.fail(Call::Lseek, 1, EIO);  // the position query
  EXPECT_EQ(e.read(200), -1);
  EXPECT_THAT(problems(e.log),
              ElementsAre(err("CFATAccess.lseek"), err("readData : seek error. errno[5]")));
  EXPECT_EQ(e.chunk.seekEvent(0, SEEK_SET), 4000);
  e.log.clear();
  e.io.fail(Call::Lseek, 2, EIO);  // to the chunk's start
  EXPECT_EQ(e.read(200), -1);
  EXPECT_THAT(problems(e.log),
              ElementsAre(err("CFATAccess.lseek"), err("readData: seek error. errno[5]")));
}

TEST(ChunkRing, NothingIsReadBehindTheChunk) {
  OpenRing r(0, 0);
  ASSERT_EQ(r.chunk.seek(4097, SEEK_SET), 4097);
  Bytes out(10);
  EXPECT_EQ(r.chunk.read(out.data(), 10), -1);
  EXPECT_THAT(problems(r.log), ElementsAre(err("readData : seek error. errno[22]")));
  EXPECT_EQ(r.io.count(Call::Read), 0u);
}

TEST(ChunkRing, AChunkOpenForWritingIsReadWithoutAnEvent) {
  OpenRing r(0, 0);
  const Bytes bytes = patternBytes(4096);
  r.card.writeChunk(kSyslog, 1, 0, bytes);
  Bytes out(4096);
  ASSERT_EQ(r.chunk.seek(4000, SEEK_SET), 4000);
  EXPECT_EQ(r.chunk.read(out.data(), 4096), 4096);
  EXPECT_EQ(part(out, 0, 96), part(bytes, 4000, 96));
  EXPECT_EQ(part(out, 96, 4000), part(bytes, 0, 4000));
}

// What a 32-bit machine keeps of an argument is what counts, on every machine.
TEST(ChunkRing, SizesAndOffsetsAreCutTo32Bits) {
  if (sizeof(long) == 4) GTEST_SKIP() << "arguments have 32 bits";
  const auto wide = [](long value) { return static_cast<long>((int64_t{1} << 32) + value); };
  OpenRing r(0, 0);
  const Bytes bytes = patternBytes(16);
  EXPECT_EQ(r.chunk.write(Bytes(bytes).data(), wide(16)), 16);
  EXPECT_EQ(r.chunk.getFreeAddr(), 16u);
  EXPECT_EQ(r.chunk.write(Bytes(bytes).data(), wide(-1)), -1);
  EXPECT_EQ(r.chunk.seek(wide(4), SEEK_SET), 4);
  EXPECT_EQ(r.chunk.seek(wide(5), SEEK_CUR), 9);
  EXPECT_EQ(r.chunk.seekEvent(wide(2), SEEK_SET), 2);
  Bytes out(8);
  EXPECT_EQ(r.chunk.read(out.data(), wide(8)), 8);
  EXPECT_EQ(out, part(bytes, 2, 8));
  EXPECT_EQ(r.chunk.read(out.data(), 0x80000000l), -1);
  r.chunk.setFreeAddr(static_cast<unsigned long>(wide(100)));
  EXPECT_EQ(r.chunk.getFreeAddr(), 100u);
  EXPECT_THAT(problems(r.log),
              ElementsAre(err("write: error write size exceed free space. 4080 <= 4294967295")));
}

TEST(ChunkRing, SeekWrapsAtTheEndOnly) {
  OpenEvent e(0, 4096);
  EXPECT_EQ(e.chunk.seek(4000, SEEK_SET), 4000);
  EXPECT_EQ(e.chunk.seek(0, SEEK_CUR), 4000);
  EXPECT_EQ(e.chunk.seek(95, SEEK_CUR), 4095);
  EXPECT_EQ(e.chunk.seek(1, SEEK_CUR), 0);  // the end is the start
  EXPECT_EQ(e.chunk.seek(4000, SEEK_CUR), 4000);
  EXPECT_EQ(e.chunk.seek(200, SEEK_CUR), 104);
  EXPECT_EQ(e.chunk.seek(-104, SEEK_CUR), 0);
  EXPECT_EQ(e.chunk.seek(5000, SEEK_SET), 5000);  // no wrap
  EXPECT_THAT(e.log.lines(), IsEmpty());
}

TEST(ChunkRing, ASeekBeforeTheChunkIsRefused) {
  OpenEvent e(0, 4096);
  EXPECT_EQ(e.chunk.seek(100, SEEK_SET), 100);
  EXPECT_EQ(e.chunk.seek(-101, SEEK_CUR), -1);
  EXPECT_EQ(e.chunk.seek(-2, SEEK_SET), -1);
  EXPECT_EQ(e.chunk.currentOffset(), 100);
}

TEST(ChunkRing, OtherSeeksAreRefused) {
  OpenEvent e(0, 4096);
  EXPECT_EQ(e.chunk.seek(0, SEEK_END), -1);
  EXPECT_THAT(problems(e.log), ElementsAre(err("lseek: SEEK_END is not supported")));
  EXPECT_EQ(e.chunk.seek(0, 3), -1);
  EXPECT_EQ(e.log.lines().size(), 1u);
}

TEST(ChunkRing, ASeekThatCannotAskForThePositionIsReported) {
  OpenEvent e(0, 4096);
  e.io.fail(Call::Lseek, 1, EIO);
  EXPECT_EQ(e.chunk.seek(10, SEEK_CUR), -1);
  EXPECT_THAT(problems(e.log),
              ElementsAre(err("CFATAccess.lseek"), err("seek: seek error. errno[5]")));
}

}  // namespace
}  // namespace tarn_test
