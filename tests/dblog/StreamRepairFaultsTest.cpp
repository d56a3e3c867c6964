#include "dblog/RepairRig.h"

namespace tarn_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::Not;

class StreamRepairFaults : public RepairTest {
 protected:
  // Lays r again, and fails the read of this place of a chunk during the repair.
  std::vector<LogLine> repairWithBadPlace(const Recording& r, int type, uint32_t offset) {
    lay(r);
    const int n = readOf(type, r.chunk, offset, [this] { repair(); });
    EXPECT_GT(n, 0);
    lay(r);
    IoFaults io(kCardPath);
    io.fail(Call::Read, n, EIO);
    return repair();
  }
};

TEST_F(StreamRepairFaults, WithoutACardTheRepairFails) {
  lay(Recording());
  IoFaults io(kCardPath);
  io.fail(Call::Open, 1, EIO, IoFaults::kForever);
  EXPECT_EQ(restore.fixUpLastStream(), -1);
}

TEST_F(StreamRepairFaults, ABadManagementFileFailsTheRepair) {
  lay(Recording());
  card.fill(card.chunkStart(tarn::kFileStreamManage, 0), 74, 0x31);
  EXPECT_EQ(restore.fixUpLastStream(), -1);
  expectUntouched(Recording());
}

TEST_F(StreamRepairFaults, AFailedSelectFailsTheRepair) {
  run("DROP TABLE STREAM");
  EXPECT_EQ(restore.fixUpLastStream(), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " DB LOG select error"));
}

TEST_F(StreamRepairFaults, AChunkThatTheCardDoesNotHaveIsNotOpened) {
  for (uint32_t chunk : {3u, 65536u, 0xFFFFFFFFu}) {
    Recording r;
    DB_STREAM row = openRow(r);
    row.chunkID = chunk;
    insert(row);
    EXPECT_THAT(repair(), ElementsAre(countLine(1), placeLine("openChunkFileError<pictureChunk>")));
    EXPECT_EQ(rowBytes(7), streamRecord(row));
    expectPair(2, 64, streamRecord(row));
  }
}

TEST_F(StreamRepairFaults, AnOffsetBehindThePictureChunkIsNotOpened) {
  Recording r;
  DB_STREAM row = openRow(r);
  row.chunkOffset = kPictureChunk + 32;
  insert(row);
  EXPECT_THAT(
      repair(),
      ElementsAre(
          countLine(1),
          LogLine{LOG_WARNING, "openChunkFile : event start 65568 is beyond the chunk. size 65536"},
          placeLine("openChunkFileError<pictureChunk>")));
  expectPair(2, 64, streamRecord(row));
}

TEST_F(StreamRepairFaults, AHeaderThatTheDeviceDoesNotGiveDeletesNothing) {
  Recording r;
  EXPECT_THAT(repairWithBadPlace(r, tarn::kFilePicture, 0),
              ElementsAre(countLine(1), placeLine("read stream header error.")));
  expectUntouched(r);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, 250)));
}

TEST_F(StreamRepairFaults, AHeaderBehindTheDevicesEndDeletesNothing) {
  Recording r;
  r.chunk = 2;
  r.headerAt = 4096;
  lay(r);
  card.truncate(card.chunkStart(tarn::kFilePicture, 2) + 4096 + 16);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), placeLine("read stream header error.")));
  expectUntouched(r);
}

TEST_F(StreamRepairFaults, AHeaderWhoseDataBeginsBehindTheStreamChunkIsLeft) {
  Recording r;
  r.pictures = 0;
  r.dataAt = kStreamChunk + 1;
  lay(r);
  EXPECT_THAT(
      repair(),
      ElementsAre(countLine(1),
                  LogLine{LOG_WARNING,
                          "openChunkFile : event start 262145 is beyond the chunk. size 262144"},
                  placeLine("openChunkFileError<streamChunk>")));
  expectUntouched(r);
}

TEST_F(StreamRepairFaults, OneRecordingThatCannotBeOpenedDoesNotKeepTheNextFromRepair) {
  Recording bad;
  bad.dataAt = kStreamChunk + 1;
  bad.pictures = 0;
  lay(bad);
  Recording good;
  good.id = 8;
  good.chunk = 1;
  good.backOffset = 128;
  lay(good);
  EXPECT_THAT(repair(), Contains(closedLine(good, 250)));
  expectClosed(good, 250);
  expectUntouched(bad);
}

TEST_F(StreamRepairFaults, AnEntryThatTheDeviceDoesNotGiveEndsTheWalk) {
  Recording r;
  // Entry 127 begins the second block. The picture confirmed last is number 200, index 100.
  EXPECT_THAT(repairWithBadPlace(r, tarn::kFilePicture, 4096),
              ElementsAre(countLine(1), placeLine("read picture error."),
                          closedLine(r, 127, r.timeOf(100))));
  expectClosed(r, 127, r.timeOf(100), 101);
}

TEST_F(StreamRepairFaults, DataThatTheDeviceDoesNotGiveEndsTheWalk) {
  Recording r;
  EXPECT_THAT(repairWithBadPlace(r, tarn::kFileStream, r.dataOf(200)),
              ElementsAre(countLine(1), LogLine{LOG_ERR, "readData: read error. errno[5]"},
                          LogLine{LOG_ERR, "read_dsize , size = -1, 287"},
                          placeLine("read stream error."), closedLine(r, 200, r.timeOf(100))));
  expectClosed(r, 200, r.timeOf(100), 101);
}

TEST_F(StreamRepairFaults, DataOfTheFirstPictureThatTheDeviceDoesNotGiveDeletesTheRecording) {
  Recording r;
  EXPECT_THAT(repairWithBadPlace(r, tarn::kFileStream, 0),
              ElementsAre(countLine(1), LogLine{LOG_ERR, "readData: read error. errno[5]"},
                          LogLine{LOG_ERR, "read_dsize , size = -1, 287"},
                          placeLine("read stream error."), deletedLine(r)));
  expectDeleted(r);
}

TEST_F(StreamRepairFaults, DataOffsetsThatAreNoPositionsEndTheWalk) {
  Recording r;
  lay(r);
  putRing(tarn::kFilePicture, 0, r.entryAt(100), entryBytes(200, 0x80000000, 512));
  EXPECT_THAT(repair(), ElementsAre(countLine(1), placeLine("seek stream error."), deletedLine(r)));
  lay(r);
  putRing(tarn::kFilePicture, 0, r.entryAt(200), entryBytes(300, 0x80000000, 512));
  EXPECT_THAT(repair(), ElementsAre(countLine(1), placeLine("seek stream error."),
                                    closedLine(r, 200, r.timeOf(100))));
}

TEST_F(StreamRepairFaults, DataOffsetsBehindTheChunkAreReadErrors) {
  Recording r;
  lay(r);
  putRing(tarn::kFilePicture, 0, r.entryAt(200), entryBytes(300, kStreamChunk + 1, 512));
  const auto lines = repair();
  EXPECT_THAT(lines, Contains(placeLine("read stream error.")));
  EXPECT_EQ(lines.back(), closedLine(r, 200, r.timeOf(100)));
}

TEST_F(StreamRepairFaults, ThePlaceBehindTheLastByteIsTheFirst) {
  Recording r;
  r.dataAt = kStreamChunk - 512 * 200;
  lay(r);
  putRing(tarn::kFilePicture, 0, r.entryAt(200), entryBytes(300, kStreamChunk, 512));
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, 250)));
}

TEST_F(StreamRepairFaults, LessThanAPicturesHeadBeforeTheRecordingsOwnStartIsAReadError) {
  Recording r;
  r.dataAt = 5000;
  r.pictures = 30;
  for (uint32_t room : {286u, 1u}) {
    lay(r);
    putRing(tarn::kFileStream, 0, 5000 - room, Bytes(room, 0));
    putRing(tarn::kFilePicture, 0, r.entryAt(20), entryBytes(120, 5000 - room, 512));
    EXPECT_THAT(repair(),
                ElementsAre(countLine(1), placeLine("read stream error."), closedLine(r, 20)));
  }
  lay(r);
  putRing(tarn::kFileStream, 0, 5000 - 287, pictureBytes(r.timeOf(20), 287));
  putRing(tarn::kFilePicture, 0, r.entryAt(20), entryBytes(120, 5000 - 287, 512));
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, 30)));
}

TEST_F(StreamRepairFaults, AFullRingEndsTheWalk) {
  Recording r;
  r.headerAt = 640;
  r.pictures = 2047;  // every record of the picture chunk
  r.pictureSize = 100;
  lay(r);
  EXPECT_THAT(repair(), Not(Contains(deletedLine(r))));
  CApiDb database;
  database.setSql("SELECT recSize, endDate FROM STREAM");
  EXPECT_GE(database.getValue(0, 0), 2047u);
  EXPECT_LE(database.getValue(0, 0), 2048u);
  EXPECT_EQ(database.getValue(0, 1), r.timeOf(2000));
}

// ---- the database and the journal ----

TEST_F(StreamRepairFaults, AFailedDeleteStillMarksTheRecordAndCleansUpTheEvents) {
  Recording r;
  r.pictures = 1;
  lay(r);
  const DB_EVENT later = event(1, r.start, 0);
  insert(later);
  run("CREATE TRIGGER t BEFORE DELETE ON STREAM BEGIN SELECT RAISE(ABORT, 'no'); END");
  const auto lines = repair();
  EXPECT_THAT(lines, Contains(deletedLine(r)));
  EXPECT_THAT(lines, Contains(LogLine{LOG_ERR, " DB delete error "}));
  EXPECT_EQ(rowBytes(7), streamRecord(openRow(r)));
  expectPair(2, 64, streamRecord(openRow(r), 0xFFFFFFEE));
  expectPair(0, 32, eventRecord(later, 0xFFFFFFEF));
  EXPECT_EQ(eventBytes(1), Bytes());
}

TEST_F(StreamRepairFaults, AFailedUpdateStillPatchesTheRecordAndTheHeader) {
  Recording r;
  lay(r);
  run("CREATE TRIGGER t BEFORE UPDATE ON STREAM BEGIN SELECT RAISE(ABORT, 'no'); END");
  const auto lines = repair();
  EXPECT_THAT(lines, Contains(closedLine(r, 250)));
  EXPECT_THAT(lines, Contains(LogLine{LOG_ERR, " DB update error"}));
  EXPECT_EQ(rowBytes(7), streamRecord(openRow(r)));
  DB_STREAM row = openRow(r);
  row.status = repairedStatus(r.status);
  row.recSize = 250;
  row.chunkSize = 32 * 251;
  row.endDate = r.timeOf(249);
  expectPair(2, 64, streamRecord(row));
  EXPECT_EQ(pictureChunk(0, 0, 32), headerBytes(r, 250 * 512, r.timeOf(249), 250));
}

TEST_F(StreamRepairFaults, ARecordThatIsNotInTheJournalIsLoggedAndTheRowClosed) {
  Recording r;
  layCard(r);
  DB_STREAM row = openRow(r);
  row.backOffset = kJournalSize;
  insertRowOnly(row);
  EXPECT_THAT(repair(), ElementsAre(countLine(1), closedLine(r, 250),
                                    LogLine{LOG_ERR, " error : can't seek file"}));
  EXPECT_EQ(pictureChunk(0, 0, 32), headerBytes(r, 250 * 512, r.timeOf(249), 250));
}

// ---- writePictureChunk ----

TEST_F(StreamRepairFaults, APieceIsWrittenIntoAPictureChunk) {
  const Bytes bytes = patternBytes(32);
  EXPECT_EQ(restore.writePictureChunk(1, 96, bytes.data(), 32), 0);
  EXPECT_EQ(pictureChunk(1, 96, 32), bytes);
  EXPECT_EQ(pictureChunk(1, 64, 32), Bytes(32, 0xCC));
  EXPECT_EQ(pictureChunk(1, 128, 32), Bytes(32, 0xCC));
  EXPECT_EQ(restore.writePictureChunk(1, kPictureChunk - 32, bytes.data(), 32), 0);
  EXPECT_EQ(pictureChunk(1, kPictureChunk - 32, 32), bytes);
  EXPECT_THAT(lines(), ElementsAre());
}

TEST_F(StreamRepairFaults, APieceForAChunkThatIsNotThereIsRefused) {
  const Bytes bytes(32, 1);
  for (short chunk : {short{3}, short{-1}}) {
    log.clear();
    EXPECT_EQ(restore.writePictureChunk(chunk, 0, bytes.data(), 32), -1);
    char name[40];
    snprintf(name, sizeof name, "/dev/sdblk0p1:CKPC%04d", chunk);
    EXPECT_THAT(lines(),
                ElementsAre(LogLine{LOG_ERR, std::string(" error : can't open file ") + name}));
  }
  log.clear();
  IoFaults io(kCardPath);
  io.fail(Call::Open, 1, ENODEV);
  EXPECT_EQ(restore.writePictureChunk(2, 0, bytes.data(), 32), -1);
  EXPECT_THAT(lines(),
              ElementsAre(LogLine{LOG_ERR, "open error /dev/sdblk0p1"},
                          LogLine{LOG_ERR, " error : can't open file /dev/sdblk0p1:CKPC0002"}));
}

TEST_F(StreamRepairFaults, APieceBehindTheChunksEndIsAFailedSeek) {
  const Bytes bytes(32, 1);
  for (unsigned long offset : {kPictureChunk - 31ul, 0x80000000ul, 0xFFFFFFFFul}) {
    log.clear();
    EXPECT_EQ(restore.writePictureChunk(0, offset, bytes.data(), 32), -1);
    EXPECT_THAT(lines(), ElementsAre(LogLine{LOG_ERR, " error : can't seek file"}));
  }
  EXPECT_EQ(restore.writePictureChunk(0, 0, bytes.data(), -1), -1);
  EXPECT_EQ(pictureChunk(1, 0, 32), Bytes(32, 0xCC));
}

TEST_F(StreamRepairFaults, APieceLargerThanAWriteBufferIsAFailedWrite) {
  const Bytes bytes(32 * kKiB + 1, 1);
  EXPECT_EQ(restore.writePictureChunk(0, 0, bytes.data(), static_cast<long>(bytes.size())), -1);
  EXPECT_THAT(lines(), ElementsAre(LogLine{LOG_ERR, "write : data size too large"},
                                   LogLine{LOG_ERR, " error : can't write file"}));
  EXPECT_EQ(pictureChunk(0, 0, 32), Bytes(32, 0xCC));
}

}  // namespace
}  // namespace tarn_test
