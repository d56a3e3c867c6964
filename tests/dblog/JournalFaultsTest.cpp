#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"

namespace tarn_test {
namespace {

// Failing calls and counted ones. The stand-in for the server touches no card, so every call seen
// is the journal's own.
class JournalFaults : public FakeServedTest {
 protected:
  JournalFaults() {
    DB_EVENT row = eventRow(1);
    EXPECT_EQ(db.insertEvent(&row), 1u);
    DB_STREAM stream = streamRow(1);
    EXPECT_EQ(db.insertStream(&stream), 1u);
    firstEvent = row;
    firstStream = stream;
    server.forget();
    log.clear();
  }

  CApiDb db;
  CDbLog* journalLog = CDbLog::getInstance();
  DB_EVENT firstEvent;
  DB_STREAM firstStream;
};

TEST_F(JournalFaults, AnInsertIsTwoWritesEachFlushedAndFiveRequests) {
  const IoFaults faults(kCardPath);
  DB_EVENT row = eventRow(2);
  row.eventID = 2;
  row.backOffset = 32;
  EXPECT_TRUE(journalLog->insertEvent(&row));
  const auto first = static_cast<int64_t>(card.chunkStart(tarn::kFileJournal, 0));
  const auto second = static_cast<int64_t>(card.chunkStart(tarn::kFileJournal, 1));
  EXPECT_THAT(faults.writes(),
              testing::ElementsAre(WriteRecord{first + 32, 32}, WriteRecord{second + 32, 32}));
  EXPECT_EQ(faults.sequence(), "lwflwf");
  EXPECT_EQ(faults.count(Call::Read), 0u);
  EXPECT_EQ(commands(), (std::vector<uint32_t>{kSetFree, kSetFree, kSetFree, kSetFree, kSave}));
}

TEST_F(JournalFaults, TheOriginalReachesTheCardBeforeTheMirrorIsWritten) {
  const IoFaults faults(kCardPath);
  const DB_STREAM row = firstStream;
  EXPECT_TRUE(journalLog->insertStream(&row));
  std::string changes;
  for (char call : faults.sequence()) {
    if (call == 'w' || call == 'f') changes += call;
  }
  EXPECT_EQ(changes.substr(0, 3), "wfw") << faults.sequence();
}

TEST_F(JournalFaults, AnUpdateReadsAndWritesOneRecordAndSavesNothing) {
  const IoFaults faults(kCardPath);
  firstEvent.endDate = 9;
  EXPECT_TRUE(journalLog->updateEvent(0x10, &firstEvent));
  EXPECT_EQ(faults.count(Call::Read), 1u);
  EXPECT_EQ(faults.count(Call::Write), 2u);
  EXPECT_EQ(faults.count(Call::Fsync), 2u);
  EXPECT_EQ(commands(), (std::vector<uint32_t>{kSetFree, kSetFree, kSetFree, kSetFree}));
  expectPair(0, 0, eventRecord(firstEvent));
}

TEST_F(JournalFaults, ADeleteDoesTheSame) {
  const IoFaults faults(kCardPath);
  EXPECT_TRUE(journalLog->deleteStream(1));
  EXPECT_EQ(faults.count(Call::Read), 1u);
  EXPECT_EQ(faults.count(Call::Write), 2u);
  EXPECT_EQ(faults.count(Call::Fsync), 2u);
  EXPECT_EQ(commands(), (std::vector<uint32_t>{kSetFree, kSetFree, kSetFree, kSetFree}));
  expectPair(2, 0, streamRecord(firstStream, 0xFFFFFFEE));
}

// What a process before this one wrote and never flushed may lie in any of them.
TEST_F(JournalFaults, FlushingTheJournalsFlushesAllFourChunks) {
  const IoFaults faults(kCardPath);
  EXPECT_EQ(journalLog->writeLogNoManage(), 0);
  EXPECT_EQ(faults.sequence(), "ffff");
  EXPECT_EQ(commands(), (std::vector<uint32_t>{kSetFree, kSetFree, kSetFree, kSetFree}));
  server.forget();
  EXPECT_EQ(journalLog->writeLog(), 0);
  EXPECT_EQ(faults.sequence(), "ffffffff");
  EXPECT_EQ(commands(), (std::vector<uint32_t>{kSetFree, kSetFree, kSetFree, kSetFree, kSave}));
}

TEST_F(JournalFaults, FinishingFlushesAllFourChunksAndEachAgainAsItCloses) {
  const IoFaults faults(kCardPath);
  EXPECT_EQ(journalLog->finish(), 0);
  EXPECT_EQ(faults.sequence(), "fffffcfcfcfc");
  EXPECT_EQ(commands(), (std::vector<uint32_t>{kSetFree, kSetFree, kSetFree, kSetFree, kSave,
                                               kSetFree, kSetFree, kSetFree, kSetFree}));
}

TEST_F(JournalFaults, TheFirstChangeBehindAConnectFlushesItsTwoCopiesToo) {
  EXPECT_EQ(journalLog->finish(), 0);
  EXPECT_EQ(journalLog->connect(), 0);
  const IoFaults faults(kCardPath);
  EXPECT_TRUE(journalLog->deleteStream(1));
  EXPECT_EQ(faults.count(Call::Fsync), 2u);
}

TEST_F(JournalFaults, AFlushThatFailedIsTriedAgainWithTheNextChangeOfEitherJournal) {
  IoFaults faults(kCardPath);
  faults.fail(Call::Fsync, 2, EIO);
  EXPECT_TRUE(journalLog->deleteStream(1));
  EXPECT_FALSE(CDbLog::lastChangeOnCard());
  faults.clear();
  EXPECT_TRUE(journalLog->deleteEvent(1));
  EXPECT_TRUE(CDbLog::lastChangeOnCard());
  EXPECT_EQ(faults.count(Call::Fsync), 3u);
  faults.clear();
  EXPECT_TRUE(journalLog->deleteEvent(1));
  EXPECT_EQ(faults.count(Call::Fsync), 2u);
}

TEST_F(JournalFaults, AnInsertThatFailsOnEitherChunkIsNotCounted) {
  for (int n = 1; n <= 2; ++n) {
    log.clear();
    IoFaults faults(kCardPath);
    faults.fail(Call::Write, n, EIO);
    EXPECT_FALSE(journalLog->insertEvent(&firstEvent)) << n;
    EXPECT_TRUE(log.has(LOG_ERR, "CDbLog::insertEvent() write chunk error."));
    EXPECT_EQ(journalLog->getEventLogBackOffset(), 32u) << n;
    EXPECT_EQ(free[0], 32u);
    faults.fail(Call::Write, n, EIO);
    EXPECT_FALSE(journalLog->insertStream(&firstStream)) << n;
    EXPECT_TRUE(log.has(LOG_ERR, "CDbLog::insertStream() write chunk error."));
    EXPECT_EQ(journalLog->getStreamLogBackOffset(), 64u) << n;
  }
}

TEST_F(JournalFaults, AnInsertWhoseFlushOfTheOriginalFailsIsNotCounted) {
  IoFaults faults(kCardPath);
  faults.fail(Call::Fsync, 1, EIO);
  EXPECT_FALSE(journalLog->insertEvent(&firstEvent));
  EXPECT_TRUE(log.has(LOG_ERR, "CDbLog::insertEvent() write chunk error."));
  EXPECT_EQ(faults.count(Call::Write), 1u) << "the mirror still holds the whole old record";
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 32u);
}

TEST_F(JournalFaults, AFailedInsertOfTheDatabaseIsOnlyLogged) {
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 1, EIO);
  DB_EVENT row = eventRow(2);
  EXPECT_EQ(db.insertEvent(&row), 2u) << "the row stays";
  EXPECT_TRUE(log.has(LOG_ERR, "CApiDb::insertEvent() DB log write error"));
  DB_EVENT stored = {};
  EXPECT_EQ(db.selectEvent(2, &stored), 1u);
}

TEST_F(JournalFaults, ARecordBadInBothCopiesIsNotPatched) {
  setPair(0, 0, Bytes(32, 0x5A));
  setPair(2, 0, Bytes(64, 0x5A));
  const IoFaults faults(kCardPath);
  EXPECT_FALSE(journalLog->updateEvent(0x10, &firstEvent));
  EXPECT_FALSE(journalLog->deleteEvent(1));
  EXPECT_FALSE(journalLog->updateStream(0x10, &firstStream));
  EXPECT_FALSE(journalLog->deleteStream(1));
  EXPECT_THAT(log.atPriority(LOG_ERR),
              testing::ElementsAre(LogLine{LOG_ERR, "CDbLog::updateEvent() read chunk error."},
                                   LogLine{LOG_ERR, "CDbLog::deleteEvent() read chunk error."},
                                   LogLine{LOG_ERR, "CDbLog::updateStream() read chunk error."},
                                   LogLine{LOG_ERR, "CDbLog::deleteStream() read chunk error."}));
  EXPECT_EQ(faults.count(Call::Write), 0u);
}

TEST_F(JournalFaults, ARewriteWhoseOriginalFailsLeavesTheMirror) {
  const struct {
    std::function<bool()> run;
    const char* text;
  } cases[] = {
      {[&] { return journalLog->updateEvent(0x10, &firstEvent); },
       "CDbLog::updateEvent() write chunk error."},
      {[&] { return journalLog->deleteEvent(1); }, "CDbLog::deleteEvent() write chunk error. "},
      {[&] { return journalLog->updateStream(0x10, &firstStream); },
       "CDbLog::updateStream() write chunk error."},
      {[&] { return journalLog->deleteStream(1); }, "CDbLog::deleteStream() write chunk error."},
  };
  for (const auto& one : cases) {
    log.clear();
    IoFaults faults(kCardPath);
    faults.fail(Call::Write, 1, EIO);
    EXPECT_FALSE(one.run()) << one.text;
    EXPECT_TRUE(log.has(LOG_ERR, one.text)) << one.text;
    EXPECT_EQ(faults.count(Call::Write), 1u);
  }
  expectPair(0, 0, eventRecord(firstEvent));
  expectPair(2, 0, streamRecord(firstStream));
}

TEST_F(JournalFaults, ARewriteWhoseMirrorFailsMovesTheFreeOffsetBackByOneRecord) {
  DB_EVENT row = eventRow(2);
  ASSERT_EQ(db.insertEvent(&row), 2u);
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 2, EIO);
  DB_EVENT changed = firstEvent;
  changed.endDate = 77;
  EXPECT_FALSE(journalLog->updateEvent(0x10, &changed));
  EXPECT_TRUE(log.has(LOG_ERR, "CDbLog::updateEvent() write chunk error."));
  EXPECT_EQ(journal(0, 0, 32), eventRecord(changed)) << "the original holds the new record";
  EXPECT_EQ(journal(1, 0, 32), eventRecord(firstEvent));
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 32u) << "it was 64";
}

TEST_F(JournalFaults, AFailedSeekHasItsOwnTexts) {
  const struct {
    std::function<bool()> run;
    const char* text;
  } cases[] = {
      {[&] { return journalLog->updateEvent(0x10, &firstEvent); },
       "CDbLog::updateEvent() seek error."},
      {[&] { return journalLog->deleteEvent(1); }, "CDbLog::deleteEvent() seek error."},
      {[&] { return journalLog->updateStream(0x10, &firstStream); },
       "CDbLog::updateStream() seek error."},
      {[&] { return journalLog->deleteStream(1); }, "CDbLog::deleteStream() seek error."},
  };
  for (const auto& one : cases) {
    log.clear();
    IoFaults faults(kCardPath);
    faults.fail(Call::Lseek, 1, EIO);
    EXPECT_FALSE(one.run()) << one.text;
    EXPECT_TRUE(log.has(LOG_ERR, one.text)) << one.text;
    EXPECT_EQ(faults.count(Call::Read), 0u);
    EXPECT_EQ(faults.count(Call::Write), 0u);
  }
}

TEST_F(JournalFaults, ADeviceErrorOfTheOriginalIsReadFromTheMirror) {
  IoFaults faults(kCardPath);
  faults.fail(Call::Read, 1, EIO);
  firstStream.endDate = 5;
  EXPECT_TRUE(journalLog->updateStream(0x400, &firstStream));
  expectPair(2, 0, streamRecord(firstStream));
}

// Zeros have the checksum of zeros.
TEST_F(JournalFaults, ACopyLostAsZerosIsNeitherPatchedNorWrittenOverTheOther) {
  for (const int lost : {0, 1}) {
    setJournal(lost, 0, Bytes(32, 0));
    setJournal(2 + lost, 0, Bytes(64, 0));
    firstEvent.endDate = 700u + static_cast<uint32_t>(lost);
    EXPECT_TRUE(journalLog->updateEvent(0x10, &firstEvent));
    expectPair(0, 0, eventRecord(firstEvent));
    firstStream.endDate = 800u + static_cast<uint32_t>(lost);
    EXPECT_TRUE(journalLog->updateStream(0x400, &firstStream));
    expectPair(2, 0, streamRecord(firstStream));
  }
  setJournal(0, 0, Bytes(32, 0));
  EXPECT_TRUE(journalLog->deleteEvent(1));
  expectPair(0, 0, eventRecord(firstEvent, 0xFFFFFFEF));
}

TEST_F(JournalFaults, BesideARefusedOriginalZerosAreNotPatched) {
  setJournal(1, 0, Bytes(32, 0));
  IoFaults faults(kCardPath);
  faults.fail(Call::Read, 1, EIO);
  EXPECT_FALSE(journalLog->updateEvent(0x10, &firstEvent));
  EXPECT_EQ(faults.count(Call::Write), 0u);
}

TEST_F(JournalFaults, AServerThatRefusesToSaveDoesNotFailAnInsert) {
  server.misbehave(FakeServer::Misbehave::Refuse, 5);
  DB_EVENT row = eventRow(2);
  row.backOffset = 32;
  EXPECT_TRUE(journalLog->insertEvent(&row));
  EXPECT_TRUE(log.has(LOG_ERR, "CTARNManagerBase:saveManageData() result NG"));
  expectPair(0, 32, eventRecord(row));
}

TEST_F(JournalFaults, ARefusedCorrectionIsReported) {
  server.misbehave(FakeServer::Misbehave::Refuse, 1);
  EXPECT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kEvent, 96), -1);
  EXPECT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kEvent, 96), 0);
}

}  // namespace
}  // namespace tarn_test
