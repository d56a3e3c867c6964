#include "dblog/RepairRig.h"
#include "manager/CTARNEndlessManagerNative.h"

namespace tarn_test {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

const LogLine kSaved = {LOG_INFO, " saveManageData (ST) "};

class StreamManageRecovery : public RepairTest {
 protected:
  // Management record: 8 bytes of head, then stream use and free, picture use and free.
  static Bytes record(int8_t chType, int8_t recType, uint32_t streamUse, uint32_t streamFree,
                      uint32_t pictureUse, uint32_t pictureFree) {
    Bytes bytes(6, 0);
    bytes.push_back(static_cast<uint8_t>(chType));
    bytes.push_back(static_cast<uint8_t>(recType));
    for (uint32_t word : {streamUse, streamFree, pictureUse, pictureFree}) put(bytes, word, 4);
    return bytes;
  }
  static Bytes freeRecord() { return record(-1, 0, 0, 0, 0, 0); }
  // Stale data in all chunks.
  StreamManageRecovery() {
    Bytes records;
    for (uint32_t chunk = 0; chunk < kRecordChunks; ++chunk) {
      const Bytes one = record(4, 5, 1000 + chunk, 2000 + chunk, 32, 64);
      records.insert(records.end(), one.begin(), one.end());
    }
    stale = records;
    for (int copy : {0, 1}) card.writeManagement(tarn::kFileStreamManage, copy, records);
  }
  // A closed recording: its row, and its header with a data size.
  void layClosed(const Recording& r, uint32_t dataSize, uint32_t chunkSize) {
    putRing(tarn::kFilePicture, r.chunk, r.headerAt, headerBytes(r, dataSize, 1, 1));
    DB_STREAM row = openRow(r);
    row.recSize = 1;
    row.chunkSize = chunkSize;
    insertRowOnly(row);
  }
  static Recording at(uint32_t id, uint32_t chunk, uint32_t headerAt, uint32_t dataAt) {
    Recording r;
    r.id = id;
    r.chunk = chunk;
    r.headerAt = headerAt;
    r.dataAt = dataAt;
    return r;
  }
  Bytes saved(uint32_t chunk, int copy = 0) const {
    return card.readChunk(tarn::kFileStreamManage, copy, 24 * chunk, 24);
  }
  std::vector<LogLine> recover() {
    log.clear();
    EXPECT_EQ(restore.recoverStreamManage(), 0);
    return lines();
  }
  void expectNothingSaved() {
    EXPECT_THAT(lines(), Not(Contains(kSaved)));
    for (int copy : {0, 1}) {
      EXPECT_EQ(card.readChunk(tarn::kFileStreamManage, copy, 0, stale.size()), stale);
    }
  }
  Bytes stale;
};

TEST_F(StreamManageRecovery, ChunksWithoutRowsAreFree) {
  EXPECT_THAT(recover(), ElementsAre(kSaved));
  for (uint32_t chunk = 0; chunk < kRecordChunks; ++chunk) {
    EXPECT_EQ(saved(chunk), freeRecord());
    EXPECT_EQ(saved(chunk, 1), freeRecord());
  }
}

TEST_F(StreamManageRecovery, TheOldestRowGivesTheUseOffsetsAndTheNewestTheFreeOnes) {
  layClosed(at(5, 1, 320, 5000), 100, 64);
  layClosed(at(6, 1, 384, 5100), 900, 96);
  layClosed(at(9, 1, 480, 6000), 700, 3200);
  layClosed(at(7, 2, 0, 0), 10, 64);
  EXPECT_THAT(recover(), ElementsAre(kSaved));
  EXPECT_EQ(saved(0), freeRecord());
  EXPECT_EQ(saved(1), record(0, 0, 5000, 6700, 320, 3680));
  EXPECT_EQ(saved(2), record(0, 0, 0, 10, 0, 64));
  EXPECT_EQ(saved(1, 1), saved(1));
}

TEST_F(StreamManageRecovery, AreasWrap) {
  layClosed(at(5, 0, kPictureChunk - 32, kStreamChunk - 10), 30, 96);
  recover();
  EXPECT_EQ(saved(0), record(0, 0, kStreamChunk - 10, 20, kPictureChunk - 32, 64));
}

TEST_F(StreamManageRecovery, AreasThatEndAtTheEndAreFreeFromTheBegin) {
  layClosed(at(5, 0, kPictureChunk - 96, kStreamChunk - 30), 30, 96);
  recover();
  EXPECT_EQ(saved(0), record(0, 0, kStreamChunk - 30, 0, kPictureChunk - 96, 0));
}

TEST_F(StreamManageRecovery, WhatTheRepairClosedIsCounted) {
  Recording r = at(7, 1, kPictureChunk - 320, kStreamChunk - 1000);
  lay(r);
  repair();
  recover();
  EXPECT_EQ(saved(1), record(0, 0, kStreamChunk - 1000, 250 * 512 - 1000, kPictureChunk - 320,
                             32 * 251 - 320));
  const Bytes once = saved(1);
  recover();
  EXPECT_EQ(saved(1), once);
}

TEST_F(StreamManageRecovery, ReservedBytesAreCarriedThrough) {
  Bytes records;
  for (uint32_t chunk = 0; chunk < kRecordChunks; ++chunk) {
    Bytes one = record(4, 5, 1, 2, 3, 4);
    std::fill(one.begin(), one.begin() + 6, 0xAB);
    records.insert(records.end(), one.begin(), one.end());
  }
  card.writeManagement(tarn::kFileStreamManage, 0, records);
  recover();
  Bytes expected = freeRecord();
  std::fill(expected.begin(), expected.begin() + 6, 0xAB);
  EXPECT_EQ(saved(0), expected);
}

TEST_F(StreamManageRecovery, AChunkWhoseOldestHeaderCannotBeReadKeepsItsUseOffset) {
  layClosed(at(5, 2, 64, 5000), 100, 64);
  card.truncate(card.chunkStart(tarn::kFilePicture, 2) + 64);
  EXPECT_THAT(recover(), ElementsAre(LogLine{LOG_ERR, "readPicture error"}, kSaved));
  EXPECT_EQ(saved(2), record(0, 0, 0, 0, 64, 0));
}

TEST_F(StreamManageRecovery, AChunkWhoseNewestHeaderCannotBeReadKeepsItsPictureOffsets) {
  layClosed(at(5, 2, 64, 5000), 100, 64);
  DB_STREAM row = openRow(at(6, 2, 8192, 0));
  row.recSize = 1;
  row.chunkSize = 64;
  insertRowOnly(row);
  layClosed(at(3, 1, 0, 100), 50, 64);
  card.truncate(card.chunkStart(tarn::kFilePicture, 2) + 8192);
  EXPECT_THAT(recover(), ElementsAre(LogLine{LOG_ERR, "readPicture error"}, kSaved));
  EXPECT_EQ(saved(2), record(0, 0, 5000, 0, 64, 8256));
  EXPECT_EQ(saved(1), record(0, 0, 100, 150, 0, 64));
}

TEST_F(StreamManageRecovery, ARowBehindItsChunkIsReportedAndTheNextChunkRecovered) {
  DB_STREAM row = openRow(at(5, 0, kPictureChunk + 1, 0));
  row.recSize = 1;
  insertRowOnly(row);
  layClosed(at(6, 1, 0, 100), 50, 64);
  EXPECT_THAT(recover(), ElementsAre(LogLine{LOG_WARNING,
                                             "openChunkFile : event start 65537 is "
                                             "beyond the chunk. size 65536"},
                                     LogLine{LOG_ERR, "openChunkFile error"}, kSaved));
  EXPECT_EQ(saved(0), record(0, 0, 0, 0, 0, 0));
  EXPECT_EQ(saved(1), record(0, 0, 100, 150, 0, 64));
}

// For the recorder, which knows what was saved: it would write over what lies in the chunk.
TEST_F(StreamManageRecovery, AReadThatIsRefusedOnceChangesNoAddress) {
  layClosed(at(5, 2, 64, 5000), 100, 64);
  const std::vector<CHUNK_MANAGE> known(kRecordChunks);
  const auto rebuild = [&] {
    return restore.recoverStreamManage(known.data(), static_cast<int>(known.size()));
  };
  size_t reads = 0;
  {
    const IoFaults counted(kCardPath);
    ASSERT_EQ(rebuild(), 0);
    reads = counted.count(Call::Read);
  }
  const Bytes good = card.readChunk(tarn::kFileStreamManage, 0, 0, stale.size());
  ASSERT_GT(reads, 5u);
  for (size_t n = 1; n <= reads; ++n) {
    for (int copy : {0, 1}) card.writeManagement(tarn::kFileStreamManage, copy, stale);
    IoFaults faults(kCardPath);
    faults.fail(Call::Read, static_cast<int>(n), EIO);
    const int result = rebuild();
    const Bytes now = card.readChunk(tarn::kFileStreamManage, 0, 0, stale.size());
    EXPECT_EQ(now, result == 0 ? good : stale) << n;
  }
}

TEST_F(StreamManageRecovery, WithoutACardOrWithABadFileItFails) {
  {
    IoFaults io(kCardPath);
    io.fail(Call::Open, 1, EIO, IoFaults::kForever);
    EXPECT_EQ(restore.recoverStreamManage(), -1);
  }
  stale[3] = 1;
  card.writeChunk(tarn::kFileStreamManage, 0, 0, stale);
  EXPECT_EQ(restore.recoverStreamManage(), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " openManageData() CRC error (ST) "));
}

TEST_F(StreamManageRecovery, AFailedQuerySavesNothing) {
  run("DROP TABLE STREAM");
  log.clear();
  EXPECT_EQ(restore.recoverStreamManage(), -1);
  EXPECT_EQ(log.count(LOG_ERR, " DB LOG select error"), 1u);
  expectNothingSaved();
}

TEST_F(StreamManageRecovery, AFailedQueryForTheNewestRowSavesNothing) {
  layClosed(at(5, 0, 0, 0), 100, 64);
  run("ALTER TABLE STREAM RENAME COLUMN chunkSize TO x");
  log.clear();
  EXPECT_EQ(restore.recoverStreamManage(), -1);
  EXPECT_EQ(log.count(LOG_ERR, " DB LOG select error"), 1u);
  expectNothingSaved();
}

TEST_F(StreamManageRecovery, AFailedSaveIsAFailure) {
  IoFaults io(kCardPath);
  io.fail(Call::Write, 2, EIO);
  EXPECT_EQ(restore.recoverStreamManage(), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " saveManageData: write error "));
}

// ---- the system log ----

class SyslogManageRecovery : public CardTest {
 protected:
  SyslogManageRecovery() { setTimeZone("UTC0"); }
  void setActive(uint8_t chType, uint32_t freeOffset = 77) {
    Bytes records(24 * 5, 0);
    records[6] = chType;
    records[7] = 9;
    for (size_t chunk = 0; chunk < 5; ++chunk) {
      records[24 * chunk + 12] = static_cast<uint8_t>(freeOffset + chunk);
    }
    for (int copy : {0, 1}) card.writeManagement(tarn::kFileSyslogManage, copy, records);
  }
  uint32_t savedFree(int chunk, int copy = 0) const {
    const Bytes bytes =
        card.readChunk(tarn::kFileSyslogManage, copy, static_cast<uint64_t>(chunk) * 24 + 12, 4);
    return bytes[0] | uint32_t{bytes[1]} << 8 | uint32_t{bytes[2]} << 16 | uint32_t{bytes[3]} << 24;
  }
  void setText(int chunk, const std::string& text) {
    card.writeChunk(tarn::kFileSyslog, chunk, 0, Bytes(text.begin(), text.end()));
  }
  CDbRestore restore;
};

TEST_F(SyslogManageRecovery, TheNumberOfTheActiveChunkIsChunkZerosType) {
  CTARNEndlessManagerNative store(tarn::kFileSyslog);
  setActive(3);
  ASSERT_EQ(store.openManageData('3'), 0);
  log.clear();
  EXPECT_EQ(restore.syslogActiveID(&store, 0), 3);
  setActive(0xFF);
  ASSERT_EQ(store.openManageData('3'), 0);
  EXPECT_EQ(restore.syslogActiveID(&store, 0), -1);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SyslogManageRecovery, OtherTypesAreRefused) {
  CTARNEndlessManagerNative store(tarn::kFileSyslog);
  setActive(3);
  ASSERT_EQ(store.openManageData('3'), 0);
  log.clear();
  EXPECT_EQ(restore.syslogActiveID(&store, 1), -1);
  EXPECT_EQ(restore.incrementSyslogActiveID(&store, 255), -1);
  EXPECT_THAT(
      log.lines(),
      ElementsAre(LogLine{LOG_ERR, "incrementSyslogActiveID() invalid syslog type (1)\n"},
                  LogLine{LOG_ERR, "incrementSyslogActiveID() invalid syslog type (255)\n"}));
  EXPECT_EQ(restore.syslogActiveID(&store, 0), 3);
}

TEST_F(SyslogManageRecovery, TheNextChunkBeginsEmpty) {
  CTARNEndlessManagerNative store(tarn::kFileSyslog);
  const std::pair<uint8_t, short> moves[] = {{0, 1},   {3, 4},    {4, 0},   {5, 0},
                                             {127, 0}, {0xFF, 0}, {0x80, 0}};
  for (const auto& [from, to] : moves) {
    setActive(from);
    ASSERT_EQ(store.openManageData('3'), 0);
    EXPECT_EQ(restore.incrementSyslogActiveID(&store, 0), 0);
    EXPECT_EQ(restore.syslogActiveID(&store, 0), to) << int{from};
    CHUNK_MANAGE record{};
    store.getManageData(0, &record);
    EXPECT_EQ(record.recType, 0);
    for (short chunk = 0; chunk < 5; ++chunk) {
      store.getManageData(chunk, &record);
      EXPECT_EQ(record.streamFreeOffset, chunk == to ? 0u : 77u + static_cast<unsigned>(chunk));
    }
  }
  EXPECT_EQ(savedFree(0), 77u);  // not saved
}

TEST_F(SyslogManageRecovery, TheActiveChunksFreeOffsetIsWhereItsTextGoesBackInTime) {
  setActive(2);
  const std::string fresh = "2024-01-01T00:00:00 new\n2024-01-01T00:00:01 newer\n";
  setText(2, fresh + "2023-06-01T00:00:00 old\n");
  EXPECT_EQ(restore.recoverSyslogManage(), 0);
  for (int copy : {0, 1}) {
    EXPECT_EQ(savedFree(2, copy), fresh.size());
    EXPECT_EQ(savedFree(1, copy), 78u);
    EXPECT_EQ(savedFree(3, copy), 80u);
  }
  EXPECT_EQ(card.readChunk(tarn::kFileSyslogManage, 0, 6, 2), (Bytes{2, 9}));
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{LOG_INFO, " saveManageData (SL) "}));
}

TEST_F(SyslogManageRecovery, AnErasedChunkIsFreeFromItsBegin) {
  setActive(1);
  EXPECT_EQ(restore.recoverSyslogManage(), 0);
  EXPECT_EQ(savedFree(1), 0u);
}

TEST_F(SyslogManageRecovery, AFullChunkIsFreeFromItsBegin) {
  setActive(0);
  std::string text;
  while (text.size() < 64 * kKiB) text += "2024-01-01T00:00:00 " + std::string(43, 'x') + "\n";
  ASSERT_EQ(text.size(), 64 * kKiB);
  setText(0, text);
  EXPECT_EQ(restore.recoverSyslogManage(), 0);
  EXPECT_EQ(savedFree(0), 0u);
}

TEST_F(SyslogManageRecovery, WithoutAnActiveChunkItStillSaves) {
  setActive(0xFF);
  EXPECT_EQ(restore.recoverSyslogManage(), 0);
  EXPECT_THAT(log.lines(),
              ElementsAre(LogLine{LOG_ERR, "can't get syslog activeID for syslog type 0"},
                          LogLine{LOG_INFO, " saveManageData (SL) "}));
  EXPECT_EQ(savedFree(0), 77u);
}

TEST_F(SyslogManageRecovery, AnActiveChunkThatIsNotThereIsNotOpened) {
  setActive(5);
  EXPECT_EQ(restore.recoverSyslogManage(), -1);
  EXPECT_THAT(log.lines(), ElementsAre(LogLine{LOG_ERR, "openChunkFile error"}));
}

TEST_F(SyslogManageRecovery, AChunkThatCannotBeOpenedFails) {
  setActive(0);
  IoFaults io(kCardPath);
  io.fail(Call::Open, 4, EIO);  // behind the store's three
  EXPECT_EQ(restore.recoverSyslogManage(), -1);
  EXPECT_TRUE(log.has(LOG_ERR, "openChunkFile error"));
  EXPECT_EQ(savedFree(0), 77u);
}

TEST_F(SyslogManageRecovery, WithoutAStoreOrASaveItFails) {
  setActive(0);
  {
    IoFaults io(kCardPath);
    io.fail(Call::Write, 1, EIO);
    EXPECT_EQ(restore.recoverSyslogManage(), -1);
  }
  card.fill(card.chunkStart(tarn::kFileSyslogManage, 0), 122, 0x31);
  EXPECT_EQ(restore.recoverSyslogManage(), -1);
  EXPECT_TRUE(log.has(LOG_ERR, " openManageData() CRC error (SL) "));
}

TEST_F(SyslogManageRecovery, AReadErrorEndsTheScan) {
  setActive(0);
  std::string text;
  while (text.size() < 16 * kKiB) text += "2024-01-01T00:00:00 " + std::string(43, 'x') + "\n";
  setText(0, text);
  EXPECT_EQ(restore.recoverSyslogManage(), 0);
  ASSERT_EQ(savedFree(0), 16 * kKiB);
  IoFaults counted(kCardPath);
  EXPECT_EQ(restore.recoverSyslogManage(), 0);
  int n = 0;
  int reads = 0;
  for (const IoRecord& call : counted.calls()) {
    if (call.call != Call::Read) continue;
    ++reads;
    if (call.offset == static_cast<int64_t>(card.chunkStart(tarn::kFileSyslog, 0)) + 8192)
      n = reads;
  }
  ASSERT_GT(n, 0);
  counted.fail(Call::Read, n, EIO);
  EXPECT_EQ(restore.recoverSyslogManage(), 0);
  EXPECT_EQ(savedFree(0), 8192u);
}

// For the recorder: it would write new lines over the ones behind the refused block.
TEST_F(SyslogManageRecovery, TextThatTheDeviceRefusesIsAskedForAgainAndNotTakenForTheEnd) {
  setActive(0);
  std::string text;
  while (text.size() < 16 * kKiB) text += "2024-01-01T00:00:00 " + std::string(43, 'x') + "\n";
  setText(0, text);
  std::string unread;
  size_t reads = 0;
  {
    const IoFaults counted(kCardPath);
    ASSERT_EQ(restore.recoverSyslogManage(&unread), 0);
    reads = counted.count(Call::Read);
  }
  ASSERT_EQ(savedFree(0), 16 * kKiB);
  for (int times : {1, IoFaults::kForever}) {
    for (size_t n = 1; n <= reads; ++n) {
      setActive(0);
      unread.clear();
      IoFaults faults(kCardPath);
      faults.fail(Call::Read, static_cast<int>(n), EIO, times);
      const int result = restore.recoverSyslogManage(&unread);
      const bool saved = result == 0 && unread.empty();
      EXPECT_EQ(savedFree(0), saved ? 16 * kKiB : 77u) << n;
      if (result == 0 && times != 1) {
        EXPECT_EQ(unread.rfind("syslog chunk 0 offset ", 0), 0u) << n << unread;
      }
      EXPECT_TRUE(times != 1 || unread.empty()) << n << unread;
    }
  }
}

}  // namespace
}  // namespace tarn_test
