#include <cerrno>

#include "chunk/ChunkTest.h"

namespace tarn_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct OpenJournal : ManagedCard {
  OpenJournal(uint32_t use, uint32_t free) {
    setUsage(journal, 1, use, free);
    EXPECT_EQ(chunk.openChunkFile(&journal, 1), 0);
    io.clear();
    log.clear();
  }
  JournalProbe chunk{kJournal};
};

TEST(EndlessChunk, TheFamilySelectsNameAndLabel) {
  JournalProbe journal(2);
  journal.chunkID = 1;
  journal.partition = 1;
  EXPECT_STREQ(journal.makeFatFileName(), "/dev/mmcblk0p1:CKDL0001");
  EXPECT_STREQ(journal.displayName, "endless(DL)");
  EXPECT_STREQ(journal.getDisplayName(), "endless(DL)");
  const char* labels[] = {"endless(IF)", "endless(DL)", "endless(DL)", "endless(SL)", "endless(SL)",
                          "endless(ST)", "endless(ST)", "endless(ST)", "endless(PC)"};
  for (int type = 0; type < 9; ++type) {
    JournalProbe chunk(static_cast<signed char>(type));
    EXPECT_STREQ(chunk.displayName, labels[type]);
    chunk.chunkID = 12345;
    EXPECT_EQ(std::string(chunk.makeFatFileName()),
              std::string("/dev/sdblk0p1:") + tarn::fileTag(type) + "12345");
  }
}

TEST(EndlessChunk, TheFamilysFileIsTheOneThatIsOpened) {
  SyslogCapture log;
  CTARNEndlessChunk chunk(2);
  CHUNK_EVENT event = eventOf(1, 0, 100);
  event.partition = 1;
  EXPECT_EQ(chunk.openChunkFile(&event), -1);  // there is no such device
  EXPECT_THAT(problems(log),
              ElementsAre(err("open error /dev/mmcblk0p1"),
                          err(" error : Can't open file /dev/mmcblk0p1:CKDL0001 [openChunkLow]")));
}

TEST(EndlessChunk, AWriteOverwritesDataInUse) {
  OpenJournal j(50, 4000);
  const Bytes bytes = patternBytes(200);
  const unsigned long freeSize = j.chunk.getFreeSize();
  EXPECT_EQ(writeBytes(j.chunk, bytes), 200);
  EXPECT_EQ(j.chunk.getFreeAddr(), 104u);
  EXPECT_EQ(j.chunk.getFreeSize(), freeSize);  // does not follow
  EXPECT_EQ(j.card.readChunk(kJournal, 1, 4000, 96), part(bytes, 0, 96));
  EXPECT_EQ(j.card.readChunk(kJournal, 1, 0, 104), part(bytes, 96, 104));
  EXPECT_EQ(j.card.readChunk(kJournal, 2, 0, 104), Bytes(104, 0xFF));
  EXPECT_THAT(problems(j.log), IsEmpty());
}

TEST(EndlessChunk, AWriteCostsOneSeekAndOneWrite) {
  OpenJournal j(0, 128);
  EXPECT_EQ(writeBytes(j.chunk, Bytes(32, 'x')), 32);
  EXPECT_EQ(j.io.sequence(), "lw");
}

TEST(EndlessChunk, AWriteUpToTheEndReturnsToTheStart) {
  OpenJournal j(0, 4064);
  EXPECT_EQ(writeBytes(j.chunk, Bytes(32, 'x')), 32);
  EXPECT_EQ(j.chunk.getFreeAddr(), 0u);
}

TEST(EndlessChunk, AWriteOfTheWholeChunkIsAllowedAndALargerOneRefused) {
  OpenJournal j(0, 100);
  EXPECT_EQ(writeBytes(j.chunk, patternBytes(4096)), 4096);
  EXPECT_EQ(j.chunk.getFreeAddr(), 100u);
  j.io.clear();
  EXPECT_EQ(writeBytes(j.chunk, Bytes(4097)), -1);
  Bytes some(8);
  EXPECT_EQ(j.chunk.write(some.data(), -5), -1);
  EXPECT_EQ(j.chunk.getFreeAddr(), 100u);
  EXPECT_EQ(j.io.writes().size(), 0u);
  EXPECT_THAT(problems(j.log),
              ElementsAre(err("writeDataNoSeek: write error. errno[22]"),
                          err("write: writeNoSeek error"), err("write: writeNoSeek error")));
}

TEST(EndlessChunk, AFailedWriteLeavesTheFreeAddress) {
  OpenJournal j(0, 4000);
  const Bytes bytes = patternBytes(200);
  j.io.fail(Call::Write, 1, EIO);
  EXPECT_EQ(writeBytes(j.chunk, bytes), -1);
  j.io.shorten(Call::Write, 2, 10, ENOSPC);  // the piece at the start
  EXPECT_EQ(writeBytes(j.chunk, bytes), -1);
  EXPECT_EQ(j.chunk.getFreeAddr(), 4000u);
  EXPECT_THAT(
      problems(j.log),
      ElementsAre(err("writeDataNoSeek: write error. errno[5]"), err("write: writeNoSeek error"),
                  err("writeDataNoSeek: write error. errno[28]"), err("write: writeNoSeek error")));
  // Overwritten by the next write.
  EXPECT_EQ(writeBytes(j.chunk, Bytes(200, 'y')), 200);
  EXPECT_EQ(j.card.readChunk(kJournal, 1, 4000, 96), Bytes(96, 'y'));
}

TEST(EndlessChunk, FailedSeeksLeaveTheFreeAddress) {
  OpenJournal j(0, 4000);
  j.io.fail(Call::Lseek, 1, EIO);
  EXPECT_EQ(writeBytes(j.chunk, Bytes(200, 'x')), -1);
  j.io.fail(Call::Lseek, 2, EIO);  // to the chunk's start
  EXPECT_EQ(writeBytes(j.chunk, Bytes(200, 'x')), -1);
  EXPECT_EQ(j.chunk.getFreeAddr(), 4000u);
  EXPECT_THAT(problems(j.log),
              ElementsAre(err("CFATAccess.lseek"), err("write: seek error. errno[5]"),
                          err("CFATAccess.lseek"), err("writeDataNoSeek: seek error. errno[5]"),
                          err("write: writeNoSeek error")));
}

TEST(EndlessChunk, WriteNoSeekNeedsThePosition) {
  OpenJournal j(0, 0);
  Bytes bytes(32);
  j.io.fail(Call::Lseek, 1, EIO);
  EXPECT_EQ(j.chunk.writeNoSeek(bytes.data(), 32), -1);
  EXPECT_THAT(problems(j.log),
              ElementsAre(err("CFATAccess.lseek"), err("seek: seek error. errno[5]"),
                          err("writeNoSeek : seek error. errno[5]")));
}

TEST(EndlessChunk, ARollbackTakesBackTheLastWrite) {
  OpenJournal j(0, 1000);
  EXPECT_EQ(writeBytes(j.chunk, Bytes(200, 'x')), 200);
  EXPECT_EQ(j.chunk.getFreeAddr(), 1200u);
  EXPECT_EQ(j.chunk.writeRollback(200), 0);
  EXPECT_EQ(j.chunk.getFreeAddr(), 1000u);
  EXPECT_EQ(j.chunk.currentOffset(), 1000);
}

TEST(EndlessChunk, ARollbackGoesBackAcrossTheStart) {
  OpenJournal j(0, 4064);
  EXPECT_EQ(writeBytes(j.chunk, Bytes(32, 'x')), 32);
  EXPECT_EQ(j.chunk.writeRollback(32), 0);
  EXPECT_EQ(j.chunk.getFreeAddr(), 4064u);
  EXPECT_EQ(writeBytes(j.chunk, Bytes(100, 'x')), 100);
  EXPECT_EQ(j.chunk.getFreeAddr(), 68u);
  EXPECT_EQ(j.chunk.writeRollback(100), 0);
  EXPECT_EQ(j.chunk.getFreeAddr(), 4064u);
}

TEST(EndlessChunk, ARollbackWhoseSeekFailsHasMovedTheAddress) {
  OpenJournal j(0, 1000);
  j.io.fail(Call::Lseek, 1, EIO);
  EXPECT_EQ(j.chunk.writeRollback(200), -1);
  EXPECT_EQ(j.chunk.getFreeAddr(), 800u);
  EXPECT_THAT(problems(j.log),
              ElementsAre(err("CFATAccess.lseek"), err("write: seek error. errno[5]")));
}

TEST(EndlessChunk, ARollbackOfNoPossibleWriteIsRefused) {
  OpenJournal j(0, 1000);
  EXPECT_EQ(j.chunk.writeRollback(-1), -1);
  EXPECT_EQ(j.chunk.writeRollback(4097), -1);
  EXPECT_EQ(j.chunk.getFreeAddr(), 1000u);
  EXPECT_THAT(problems(j.log), ElementsAre(err("writeRollback: size -1 is not that of a write"),
                                           err("writeRollback: size 4097 is not that of a write")));
}

TEST(EndlessChunk, ARollbackFromAnUnknownAddressFailsLikeItsSeek) {
  PlainCard c;
  CTARNEndlessChunk chunk(kJournal);
  const CHUNK_EVENT event = eventOf(1, 0, 100);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  EXPECT_EQ(chunk.writeRollback(32), -1);
  EXPECT_EQ(chunk.getFreeAddr(), 0u);
  EXPECT_EQ(chunk.currentOffset(), 0);
  EXPECT_THAT(problems(c.log), ElementsAre(err("write: seek error. errno[22]")));
}

TEST(EndlessChunk, SettingTheFreeAddressLeavesTheSizes) {
  OpenJournal j(0, 1000);
  const unsigned long freeSize = j.chunk.getFreeSize();
  j.chunk.setFreeAddr(2000);
  EXPECT_EQ(j.chunk.getFreeAddr(), 2000u);
  EXPECT_EQ(j.chunk.getFreeSize(), freeSize);
  j.chunk.initFreeAddr();
  EXPECT_EQ(j.chunk.getFreeAddr(), 0u);
  EXPECT_EQ(j.chunk.getFreeSize(), freeSize);
}

TEST(EndlessChunk, AnEventsReaderCannotWrite) {
  PlainCard c;
  CTARNEndlessChunk chunk(kJournal);
  const CHUNK_EVENT event = eventOf(1, 0, 100);
  ASSERT_EQ(chunk.openChunkFile(&event), 0);
  EXPECT_EQ(writeBytes(chunk, Bytes(10, 'x')), -1);
  chunk.setFreeAddr(0);
  EXPECT_EQ(writeBytes(chunk, Bytes(10, 'x')), -1);
  EXPECT_THAT(problems(c.log), ElementsAre(err("write: free address is not known"),
                                           err("writeDataNoSeek: write error. errno[9]"),
                                           err("write: writeNoSeek error")));
  EXPECT_EQ(c.card.readChunk(kJournal, 1, 0, 10), Bytes(10, 0xFF));
}

TEST(SyslogChunk, HasItsNameAndLabel) {
  SyslogProbe chunk;
  chunk.chunkID = 4;
  EXPECT_STREQ(chunk.makeFatFileName(), "/dev/sdblk0p1:CKSL0004");
  EXPECT_STREQ(chunk.displayName, "syslog");
  EXPECT_EQ(chunk.handle, -1);
}

TEST(SyslogChunk, RefusesAWriteThatWouldFillIt) {
  ManagedCard c;
  setUsage(c.syslog, 1, 300, 200);
  CTARNSyslogChunk chunk;
  ASSERT_EQ(chunk.openChunkFile(&c.syslog, 1), 0);
  EXPECT_EQ(writeBytes(chunk, Bytes(100, 'x')), -1);
  EXPECT_THAT(problems(c.log),
              ElementsAre(err("write: error write size exceed free space. 100 <= 100")));
  EXPECT_EQ(writeBytes(chunk, Bytes(99, 'x')), 99);
  EXPECT_EQ(chunk.getFreeAddr(), 299u);
}

}  // namespace
}  // namespace tarn_test
