#include <cerrno>

#include "chunk/ChunkTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr unsigned long kFailed = static_cast<unsigned long>(-1);

// Three picture records: number, ..., size in bytes 12 to 15.
Bytes pictureRecords() {
  Bytes bytes = patternBytes(96);
  const uint8_t size[4] = {0x78, 0x56, 0x34, 0xF2};
  std::copy(size, size + 4, bytes.begin() + 64 + 12);
  return bytes;
}

TEST(StreamChunk, TheKindSelectsTheFileName) {
  StreamProbe picture(0);
  StreamProbe stream(1);
  StreamProbe other(9);
  for (StreamProbe* chunk : {&picture, &stream, &other}) {
    chunk->chunkID = 7;
    chunk->partition = 1;
  }
  EXPECT_STREQ(picture.makeFatFileName(), "/dev/mmcblk0p1:CKPC0007");
  EXPECT_STREQ(stream.makeFatFileName(), "/dev/mmcblk0p1:CKST0007");
  EXPECT_STREQ(other.makeFatFileName(), "/dev/mmcblk0p1:CKST0007");
  EXPECT_STREQ(picture.displayName, "stream");
  EXPECT_EQ(picture.kind, 0);
  EXPECT_EQ(stream.kind, 1);
}

TEST(StreamChunk, TheKindsFileIsTheOneThatIsOpened) {
  const std::pair<unsigned char, const char*> kinds[] = {{0, "/dev/mmcblk0p1:CKPC0007"},
                                                         {1, "/dev/mmcblk0p1:CKST0007"}};
  for (const auto& [kind, name] : kinds) {
    SyslogCapture log;
    CTARNStreamChunk chunk(kind);
    CHUNK_EVENT event = eventOf(7, 0, 100);
    event.partition = 1;
    EXPECT_EQ(chunk.openChunkFile(&event), -1);  // there is no such device
    EXPECT_THAT(problems(log), ElementsAre(err("open error /dev/mmcblk0p1"),
                                           err(std::string(" error : Can't open file ") + name +
                                               " [openChunkLow]")));
  }
}

TEST(StreamChunk, EachKindHasItsOwnPairOfAddresses) {
  ManagedCard c;
  ASSERT_EQ(c.stream.setUseOffset(1, 10, 0), 0);
  ASSERT_EQ(c.stream.setFreeOffset(1, 20, 0), 0);
  ASSERT_EQ(c.stream.setUseOffset(1, 1000, 1), 0);
  ASSERT_EQ(c.stream.setFreeOffset(1, 2000, 1), 0);
  CTARNStreamChunk picture(0);
  CTARNStreamChunk stream(1);
  ASSERT_EQ(picture.openChunkFile(&c.stream, 1), 0);
  ASSERT_EQ(stream.openChunkFile(&c.stream, 1), 0);
  EXPECT_EQ(picture.getUseAddr(), 10u);
  EXPECT_EQ(picture.getFreeAddr(), 20u);
  EXPECT_EQ(picture.getFreeSize(), 8 * kKiB - 10u);
  EXPECT_EQ(stream.getUseAddr(), 1000u);
  EXPECT_EQ(stream.getFreeAddr(), 2000u);
  picture.setUseAddr(12);
  EXPECT_EQ(picture.setUsageToManager(), 0);
  stream.setUseAddr(1200);
  EXPECT_EQ(stream.setUsageToManager(), 0);
  stream.setFreeAddr(2200);
  EXPECT_EQ(stream.setFreeToManager(), 0);
  CHUNK_USAGE usage = {};
  EXPECT_EQ(c.stream.getUsage(1, &usage, 0), 0);
  EXPECT_EQ(usage.useAddr, 12u);
  EXPECT_EQ(usage.freeAddr, 20u);
  EXPECT_EQ(c.stream.getUsage(1, &usage, 1), 0);
  EXPECT_EQ(usage.useAddr, 1200u);
  EXPECT_EQ(usage.freeAddr, 2200u);
  EXPECT_THAT(problems(c.log), IsEmpty());
}

TEST(StreamChunk, WithoutAManagerTheManagersCallsFail) {
  CTARNStreamChunk chunk(1);
  EXPECT_EQ(chunk.setUsageToManager(), -1);
  EXPECT_EQ(chunk.setFreeToManager(), -1);
  EXPECT_EQ(chunk.getUsageFromManager(), -1);
}

TEST(StreamChunk, AManagerThatDoesNotAnswerLeavesTheUsageUnknown) {
  ManagedCard c;
  CTARNStreamChunk chunk(1);
  ASSERT_EQ(chunk.openChunkFile(&c.stream, 1), 0);
  ASSERT_EQ(writeBytes(chunk, Bytes(100, 'x')), 100);
  c.stopServer();
  EXPECT_EQ(chunk.getUsageFromManager(), -1);
  EXPECT_EQ(chunk.setUsageToManager(), -1);
  EXPECT_EQ(chunk.setFreeToManager(), -1);
  EXPECT_EQ(chunk.getFreeAddr(), 100u);  // what is known stays
}

// Another kind than the two names a stream chunk, but neither pair of addresses: the manager's
// answer is no failure, and nothing is written at a place that nobody told.
TEST(StreamChunk, AnotherKindHasNoAddresses) {
  ManagedCard c;
  EXPECT_EQ(c.stream.setFreeOffset(1, 2200, 1), 0);
  CTARNStreamChunk chunk(2);
  ASSERT_EQ(chunk.openChunkFile(&c.stream, 1), 0);
  EXPECT_EQ(chunk.getUsageFromManager(), 0);
  EXPECT_FALSE(chunk.isUsageKnown());
  EXPECT_EQ(chunk.getFreeAddr(), 0u);
  EXPECT_EQ(chunk.getFreeSize(), chunk.getChunkSize());
  EXPECT_EQ(writeBytes(chunk, Bytes(100, 'x')), -1);
  EXPECT_THAT(problems(c.log), ElementsAre(err("write: free address is not known")));
}

TEST(StreamChunk, WrittenSizeIsAlwaysZero) {
  ManagedCard c;
  CTARNStreamChunk chunk(1);
  ASSERT_EQ(chunk.openChunkFile(&c.stream, 1), 0);
  ASSERT_EQ(writeBytes(chunk, Bytes(100, 'x')), 100);
  EXPECT_EQ(chunk.writtenSize(), 0u);
}

TEST(StreamChunk, AStreamWrapsAroundItsRing) {
  ManagedCard c;
  ASSERT_EQ(c.stream.setUseOffset(1, 256 * kKiB - 500, 1), 0);
  ASSERT_EQ(c.stream.setFreeOffset(1, 256 * kKiB - 500, 1), 0);
  CTARNStreamChunk chunk(1);
  ASSERT_EQ(chunk.openChunkFile(&c.stream, 1), 0);
  const Bytes bytes = patternBytes(2000);
  EXPECT_EQ(writeBytes(chunk, part(bytes, 0, 800)), 800);
  EXPECT_EQ(writeBytes(chunk, part(bytes, 800, 1200)), 1200);
  EXPECT_EQ(chunk.getFreeAddr(), 1500u);
  EXPECT_EQ(chunk.closeChunkFile(), 0);
  EXPECT_EQ(c.card.readChunk(kStream, 1, 256 * kKiB - 500, 500), part(bytes, 0, 500));
  EXPECT_EQ(c.card.readChunk(kStream, 1, 0, 1500), part(bytes, 500, 1500));
  CHUNK_USAGE usage = {};
  EXPECT_EQ(c.stream.getUsage(1, &usage, 1), 0);
  EXPECT_EQ(usage.freeAddr, 1500u);
}

TEST(StreamChunk, SeekReadReadsAtAPosition) {
  PlainCard c;
  const Bytes bytes = pictureRecords();
  c.card.writeChunk(kPicture, 2, 100, bytes);
  CTARNStreamChunk chunk(0);
  const CHUNK_EVENT event = eventOf(2, 100, 96);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  Bytes out(32);
  EXPECT_EQ(chunk.seekRead(132, out.data(), 32), 32);
  EXPECT_EQ(out, part(bytes, 32, 32));
  EXPECT_EQ(chunk.seekRead(180, out.data(), 32), 16);  // to the event's end
  EXPECT_EQ(chunk.seekRead(0xFFFFFFF0ul, out.data(), 32), -1);
  EXPECT_THAT(c.log.lines(), ElementsAre(err("seekRead: seek error")));
}

TEST(StreamChunk, StreamSizeIsThatOfThePictureRecord) {
  PlainCard c;
  c.card.writeChunk(kPicture, 2, 100, pictureRecords());
  CTARNStreamChunk chunk(0);
  const CHUNK_EVENT event = eventOf(2, 100, 96);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  ASSERT_EQ(chunk.seekEvent(7, SEEK_SET), 107);
  EXPECT_EQ(chunk.streamSize(164), 0xF2345678ul);
  EXPECT_EQ(chunk.currentOffset(), 107);
  EXPECT_THAT(c.log.lines(), IsEmpty());
}

TEST(StreamChunk, StreamSizeOfAStreamChunkTouchesNoDevice) {
  PlainCard c;
  CTARNStreamChunk chunk(1);
  EXPECT_EQ(chunk.streamSize(0), kFailed);
  const CHUNK_EVENT event = eventOf(2, 0, 96);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  c.io.clear();
  EXPECT_EQ(chunk.streamSize(0), kFailed);
  const LogLine refused = err(" error : is not pictue chunk");
  EXPECT_THAT(c.log.lines(), ElementsAre(refused, refused));
  EXPECT_EQ(c.io.sequence(), "");
}

TEST(StreamChunk, StreamSizeOfAClosedChunkFails) {
  SyslogCapture log;
  StreamProbe chunk(0);
  chunk.chunkID = 12;
  EXPECT_EQ(chunk.streamSize(0), kFailed);
  EXPECT_THAT(log.lines(), ElementsAre(err(" error : pictue chunk not opened(id=12)")));
}

TEST(StreamChunk, StreamSizeOfARecordThatCannotBeReadFails) {
  PlainCard c;
  CTARNStreamChunk chunk(0);
  const CHUNK_EVENT event = eventOf(2, 100, 96);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  EXPECT_EQ(chunk.streamSize(180), kFailed);  // the event ends inside it
  EXPECT_EQ(chunk.streamSize(0xFFFFFFF0ul), kFailed);
  const LogLine cantRead = err(" error : can't read picure chunk(id=2)");
  EXPECT_THAT(c.log.lines(), ElementsAre(cantRead, err("seekRead: seek error"), cantRead));
  c.log.clear();
  // The device fails; the buffered read would give zeros.
  ASSERT_EQ(chunk.seekEvent(0, SEEK_SET), 100);
  c.io.fail(Call::Read, 1, EIO);
  EXPECT_EQ(chunk.streamSize(132), kFailed);
  EXPECT_THAT(c.log.lines(), ElementsAre(cantRead));
}

TEST(StreamChunk, PicturesThatTheDeviceDoesNotDeliverAreZerosAndTold) {
  PlainCard c;
  c.card.writeChunk(kPicture, 2, 0, patternBytes(3200));
  CTARNStreamChunk chunk(0);
  const CHUNK_EVENT event = eventOf(2, 0, 3200);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  Bytes out(32, 0xAA);
  c.io.fail(Call::Read, 1, EIO);
  EXPECT_EQ(chunk.read(out.data(), 32), 32);
  EXPECT_EQ(out, Bytes(32, 0));
  EXPECT_TRUE(chunk.lastReadFailed());
  EXPECT_EQ(chunk.seekEvent(0, SEEK_SET), 0);
  EXPECT_EQ(chunk.read(out.data(), 32), 32);
  EXPECT_EQ(out, patternBytes(32));
  EXPECT_FALSE(chunk.lastReadFailed());
}

TEST(StreamChunk, AFailureInFrontOfTheRingsEndIsTold) {
  PlainCard c;
  CTARNStreamChunk chunk(0);
  const auto size = static_cast<uint32_t>(c.card.family(kPicture).chunkSize);
  const CHUNK_EVENT event = eventOf(2, size - 64, 3200);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  Bytes out(128);
  c.io.fail(Call::Read, 1, EIO);
  EXPECT_EQ(chunk.read(out.data(), 128), 128);
  EXPECT_TRUE(chunk.lastReadFailed());
  EXPECT_EQ(chunk.read(out.data(), 32), 32);
  EXPECT_FALSE(chunk.lastReadFailed());
}

TEST(StreamChunk, PicturesAreReadInBlocks) {
  PlainCard c;
  const Bytes bytes = patternBytes(3200);
  c.card.writeChunk(kPicture, 2, 0, bytes);
  CTARNStreamChunk chunk(0);
  const CHUNK_EVENT event = eventOf(2, 0, 3200);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  c.io.clear();
  Bytes out(3200);
  for (size_t at = 0; at < 3200; at += 32) {
    ASSERT_EQ(chunk.read(out.data() + at, 32), 32);
  }
  EXPECT_EQ(out, bytes);
  EXPECT_EQ(c.io.sequence(), "r");
}

TEST(StreamChunk, ReadAheadStopsAtTheChunksEndAndAtTheEvents) {
  ManagedCard c;
  const Bytes bytes = patternBytes(8 * kKiB);
  c.card.writeChunk(tarn::kFilePicture, 1, 0, bytes);
  CTARNStreamChunk picture(0);
  const CHUNK_EVENT event = eventOf(1, 8000, 400);
  ASSERT_EQ(picture.openChunkFile(&event), 0);
  uint8_t out[4096];
  EXPECT_EQ(picture.readAhead(out, 32, 32), 0);  // nothing was read yet
  ASSERT_EQ(picture.read(out, 32), 32);
  EXPECT_EQ(picture.readAhead(out, sizeof out, 32), 160);
  EXPECT_EQ(memcmp(out, bytes.data() + 8032, 160), 0);
  EXPECT_EQ(picture.readAhead(out, sizeof out, 32), 0);
  ASSERT_EQ(picture.read(out, 32), 32);  // across the end
  EXPECT_EQ(memcmp(out, bytes.data(), 32), 0);
  EXPECT_EQ(picture.readAhead(out, sizeof out, 32), 160);  // 176 bytes of the event are left
  EXPECT_EQ(memcmp(out, bytes.data() + 32, 160), 0);
  EXPECT_EQ(picture.currentOffset(), 192);
  EXPECT_EQ(picture.readAhead(out, sizeof out, 32), 0);
  EXPECT_EQ(picture.readAhead(out, -1, 32), 0);
}

}  // namespace
}  // namespace tarn_test
