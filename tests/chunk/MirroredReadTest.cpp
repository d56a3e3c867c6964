#include <cerrno>

#include "chunk/CTARNMirroredChunk.h"
#include "chunk/ChunkTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MirroredProbe : public CTARNMirroredChunk {
 public:
  using CTARNMirroredChunk::CTARNMirroredChunk;
  using CTARNMirroredChunk::mirror;
  using CTARNMirroredChunk::original;
};

uint16_t crcOf(const Bytes& bytes) {
  unsigned crc = 0;
  for (uint8_t byte : bytes) {
    crc ^= static_cast<unsigned>(byte) << 8;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 0x8000) != 0 ? (crc << 1) ^ 0x1021 : crc << 1;
    crc &= 0xFFFF;
  }
  return static_cast<uint16_t>(crc);
}

Bytes validRecord(uint32_t seed) {
  Bytes bytes = patternBytes(28, seed);
  const uint16_t crc = crcOf(bytes);
  bytes.insert(bytes.end(), {0, 0, static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc)});
  return bytes;
}

// Two copies of four valid records, open as events of these sizes.
struct OpenPair : PlainCard {
  explicit OpenPair(uint32_t originalSize = 4096, uint32_t mirrorSize = 4096) {
    for (uint32_t i = 0; i < 4; ++i) {
      records.push_back(validRecord(i + 1));
      for (int chunk : {0, 1}) card.writeChunk(kJournal, chunk, i * 32, records.back());
    }
    const CHUNK_EVENT original = eventOf(0, 0, originalSize);
    const CHUNK_EVENT mirror = eventOf(1, 0, mirrorSize);
    EXPECT_EQ(pair.openChunkFile(&original, &mirror), 0);
    io.clear();
  }
  void spoil(int chunk, uint32_t at) {
    Bytes byte = card.readChunk(kJournal, chunk, at, 1);
    byte[0] ^= 1;
    card.writeChunk(kJournal, chunk, at, byte);
  }
  long read(long size = 32, long crcLength = 28) {
    got.assign(64, 0xAA);
    const long result = pair.read(got.data(), size, crcLength);
    got.resize(result > 0 ? static_cast<size_t>(result) : 0);
    return result;
  }
  std::vector<Bytes> records;
  Bytes got;
  MirroredProbe pair{kJournal};
};

TEST(MirroredRead, GoodRecordsComeFromTheOriginalAndKeepBothInStep) {
  OpenPair p;
  for (long i = 0; i < 4; ++i) {
    EXPECT_EQ(p.read(), 32);
    EXPECT_EQ(p.got, p.records[static_cast<size_t>(i)]);
    EXPECT_EQ(p.pair.original->currentOffset(), (i + 1) * 32);
    EXPECT_EQ(p.pair.mirror->currentOffset(), (i + 1) * 32);
  }
  EXPECT_EQ(p.io.count(Call::Read), 4u);
  EXPECT_THAT(p.log.lines(), IsEmpty());
}

TEST(MirroredRead, ARecordWithAWrongCrcComesFromTheMirror) {
  for (uint32_t byte : {32u, 59u, 62u, 63u}) {  // of the payload and of the CRC
    SCOPED_TRACE(byte);
    OpenPair p;
    p.spoil(0, byte);
    EXPECT_EQ(p.read(), 32);
    EXPECT_EQ(p.read(), 32);
    EXPECT_EQ(p.got, p.records[1]);
    EXPECT_THAT(p.log.lines(),
                ElementsAre(warning("read : original side data read error. use mirror size data "
                                    "(read offset = 64)\n")));
    EXPECT_EQ(p.read(), 32);  // both read on behind it
    EXPECT_EQ(p.got, p.records[2]);
  }
}

TEST(MirroredRead, TheTrailersZeroBytesAreNotTested) {
  OpenPair p;
  p.spoil(0, 28);
  p.spoil(0, 29);
  EXPECT_EQ(p.read(), 32);
  EXPECT_THAT(p.log.lines(), IsEmpty());
}

TEST(MirroredRead, ARecordThatCannotBeReadComesFromTheMirror) {
  OpenPair p;
  p.io.fail(Call::Read, 1, EIO);
  EXPECT_EQ(p.read(), 32);
  EXPECT_EQ(p.got, p.records[0]);
  EXPECT_THAT(p.log.lines(),
              ElementsAre(err("readData: read error. errno[5]"), err("read_dsize , size = -1, 32"),
                          LogLine{LOG_INFO, "readAndCheck read data error. error=-1"},
                          warning("read : original side data read error. use mirror size data "
                                  "(read offset = 32)\n")));
  // The original is not synchronised again: it stands where the device left it.
  EXPECT_EQ(p.pair.original->currentOffset(), 0);
  EXPECT_EQ(p.pair.mirror->currentOffset(), 32);
}

TEST(MirroredRead, NeitherCopyGoodIsAFailure) {
  OpenPair p;
  p.spoil(0, 0);
  p.spoil(1, 1);
  EXPECT_EQ(p.read(), -1);
  EXPECT_THAT(p.log.lines(), IsEmpty());
  EXPECT_EQ(p.read(), 32);
  EXPECT_EQ(p.got, p.records[1]);
}

TEST(MirroredRead, TheEndOfTheEventIsNotLookedForInTheMirror) {
  OpenPair p(40, 4096);
  EXPECT_EQ(p.read(), 32);
  EXPECT_EQ(p.read(), 0);
  EXPECT_EQ(p.read(), 0);
  EXPECT_EQ(p.pair.mirror->currentOffset(), 32);
  EXPECT_THAT(p.log.lines(), IsEmpty());
}

TEST(MirroredRead, TheMirrorsOwnEndIsItsResult) {
  OpenPair p(4096, 40);
  p.spoil(0, 32);
  EXPECT_EQ(p.read(), 32);
  EXPECT_EQ(p.read(), 0);
}

TEST(MirroredRead, ANegativePayloadLengthSkipsTheTest) {
  OpenPair p;
  p.spoil(0, 0);
  EXPECT_EQ(p.read(32, -1), 32);
  EXPECT_EQ(part(p.got, 1, 31), part(p.records[0], 1, 31));
  EXPECT_THAT(p.log.lines(), IsEmpty());
}

TEST(MirroredRead, APayloadThatLeavesNoRoomForTheTrailerIsRefused) {
  OpenPair p;
  EXPECT_EQ(p.read(32, 29), -1);
  EXPECT_EQ(p.read(3, 0), -1);
  EXPECT_EQ(p.read(-1, -1), -1);
  EXPECT_EQ(p.io.count(Call::Read), 0u);
  EXPECT_EQ(p.pair.currentOffset(), 0);
}

TEST(MirroredRead, OneSideCanBeReadAlone) {
  OpenPair p;
  p.spoil(1, 32);
  Bytes out(32);
  EXPECT_EQ(p.pair.readAndCheck(p.pair.mirror, out.data(), 32, 28), 32);
  EXPECT_EQ(out, p.records[0]);
  EXPECT_EQ(p.pair.readAndCheck(p.pair.mirror, out.data(), 32, 28), -1);
  EXPECT_EQ(p.pair.readAndCheck(p.pair.original, out.data(), 32, 28), 32);
  EXPECT_EQ(p.pair.original->currentOffset(), 32);
}

TEST(MirroredRead, SeeksMoveBoth) {
  OpenPair p;
  EXPECT_EQ(p.pair.seek(64, SEEK_SET), 64);
  EXPECT_EQ(p.pair.mirror->currentOffset(), 64);
  EXPECT_EQ(p.pair.seek(4064, SEEK_CUR), 32);
  EXPECT_EQ(p.pair.mirror->currentOffset(), 32);
  EXPECT_EQ(p.pair.currentOffset(), 32);
  EXPECT_EQ(p.pair.seek(-64, SEEK_CUR), -1);
  EXPECT_EQ(p.pair.currentOffset(), 32);
  EXPECT_EQ(p.pair.mirror->currentOffset(), 32);
}

TEST(MirroredRead, AnEventSeekThatWorksGivesZero) {
  OpenPair p;
  EXPECT_EQ(p.pair.seekEvent(96, SEEK_SET), 0);
  EXPECT_EQ(p.pair.original->currentOffset(), 96);
  EXPECT_EQ(p.pair.mirror->currentOffset(), 96);
}

TEST(MirroredRead, AnEventSeekOutsideTheOriginalMovesNeither) {
  OpenPair p(64, 4096);
  EXPECT_EQ(p.pair.seekEvent(65, SEEK_SET), -1);
  EXPECT_EQ(p.pair.original->currentOffset(), 0);
  EXPECT_EQ(p.pair.mirror->currentOffset(), 0);
  EXPECT_EQ(p.log.lines().size(), 2u);
}

TEST(MirroredRead, AnEventSeekOutsideTheMirrorTakesTheOriginalBack) {
  OpenPair p(4096, 64);
  ASSERT_EQ(p.pair.seek(32, SEEK_SET), 32);
  EXPECT_EQ(p.pair.seekEvent(96, SEEK_SET), -1);
  EXPECT_EQ(p.pair.original->currentOffset(), 32);
  EXPECT_EQ(p.pair.mirror->currentOffset(), 32);
  EXPECT_THAT(p.log.lines(), ElementsAre(warning("seekEvent: SEEK_SET range error"),
                                         warning("EventSize(64) < offset(96) or offset is minus")));
}

TEST(MirroredRead, ATakeBackThatFailsIsReported) {
  OpenPair p(4096, 64);
  // Position query, the original's seek, the way back.
  p.io.fail(Call::Lseek, 3, EIO);
  EXPECT_EQ(p.pair.seekEvent(96, SEEK_SET), -1);
  EXPECT_THAT(problems(p.log), ElementsAre(warning("seekEvent: SEEK_SET range error"),
                                           warning("EventSize(64) < offset(96) or offset is minus"),
                                           err("CFATAccess.lseek"),
                                           err("CTARNMirrorChunk::seekEvent rollback fail.")));
}

}  // namespace
}  // namespace tarn_test
