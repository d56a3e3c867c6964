#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"

namespace tarn_test {
namespace {

constexpr char kReadFromMirror[] =
    "read : original side data read error. use mirror size data (read offset = 32)\n";

class Journal : public ServedTest {
 protected:
  DB_EVENT insertEvent(uint32_t seed) {
    DB_EVENT row = eventRow(seed);
    EXPECT_NE(db.insertEvent(&row), 0u);
    return row;
  }
  DB_STREAM insertStream(uint32_t seed) {
    DB_STREAM row = streamRow(seed);
    EXPECT_NE(db.insertStream(&row), 0u);
    return row;
  }

  CApiDb db;
  CDbLog* journalLog = CDbLog::getInstance();
};

TEST_F(Journal, ThereIsOneInstance) { EXPECT_EQ(CDbLog::getInstance(), journalLog); }

TEST_F(Journal, ConnectsOnceAndSaysSo) {
  EXPECT_EQ(journalLog->connect(), 0);
  EXPECT_EQ(journalLog->connect(), 0);
  EXPECT_EQ(log.count(LOG_INFO, "CDbLog :: connect"), 1u);
}

TEST_F(Journal, AnEventGoesToBothChunksAndItsPlaceIntoTheRow) {
  const DB_EVENT row = insertEvent(1);
  EXPECT_EQ(row.eventID, 1u);
  EXPECT_EQ(row.backOffset, 0u);
  const Bytes golden = {
      0xED, 0xFF, 0xFF, 0xFF, 0x01, 0x00, 0x00, 0x00, 0x65, 0x00, 0xC9, 0x00, 0x01, 0xF1, 0x53,
      0x65, 0xF5, 0xF2, 0x53, 0x65, 0x2D, 0x01, 0x91, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
  };
  EXPECT_EQ(journal(0, 0, golden.size()), golden);
  expectPair(0, 0, eventRecord(row));
  EXPECT_EQ(journal(0, 32, 32), Bytes(32, 0xFF));
  DB_EVENT stored = {};
  ASSERT_EQ(db.selectEvent(1, &stored), 1u);
  EXPECT_EQ(eventRecord(stored), eventRecord(row));
}

TEST_F(Journal, AStreamGoesToTheOtherPair) {
  insertStream(1);
  const DB_STREAM row = insertStream(2);
  EXPECT_EQ(row.streamID, 2u);
  EXPECT_EQ(row.backOffset, 64u);
  expectPair(2, 64, streamRecord(row));
  EXPECT_EQ(journal(0, 0, 64), Bytes(64, 0xFF));
}

TEST_F(Journal, EachInsertMovesTheFreeOffsetOfBothChunksOnTheCard) {
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 0u);
  insertEvent(1);
  insertEvent(2);
  insertStream(1);
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 64u);
  EXPECT_EQ(journalLog->getStreamLogBackOffset(), 64u);
  EXPECT_EQ(savedFree(0), (std::vector<uint32_t>{64, 64, 64, 64}));
  EXPECT_EQ(savedFree(1), savedFree(0));
}

TEST_F(Journal, AfterTheEndOfTheChunkTheNextRecordLandsAtItsStart) {
  for (uint32_t i = 1; i <= kJournalSize / 32; ++i) insertEvent(i);
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 0u);
  const DB_EVENT row = insertEvent(90);
  EXPECT_EQ(row.eventID, kJournalSize / 32 + 1);
  EXPECT_EQ(row.backOffset, 0u);
  expectPair(0, 0, eventRecord(row));
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{32, 32, 0, 0}));
}

TEST_F(Journal, AStreamJournalComesRoundTheSameWay) {
  for (uint32_t i = 1; i <= kJournalSize / 64; ++i) insertStream(i);
  const DB_STREAM row = insertStream(90);
  EXPECT_EQ(row.backOffset, 0u);
  expectPair(2, 0, streamRecord(row));
}

TEST_F(Journal, AnUpdatePatchesExactlyTheSelectedEventFields) {
  insertEvent(1);
  DB_EVENT row = insertEvent(2);
  DB_EVENT other = eventRow(50);
  other.eventID = row.eventID;
  struct Step {
    uint32_t bit;
    void (*apply)(DB_EVENT*, const DB_EVENT&);
  };
  const Step steps[] = {
      {0x02, [](DB_EVENT* to, const DB_EVENT& from) { to->extTrg = from.extTrg; }},
      {0x08, [](DB_EVENT* to, const DB_EVENT& from) { to->startDate = from.startDate; }},
      {0x10, [](DB_EVENT* to, const DB_EVENT& from) { to->endDate = from.endDate; }},
      {0x20, [](DB_EVENT* to, const DB_EVENT& from) { to->startMSec = from.startMSec; }},
      {0x40, [](DB_EVENT* to, const DB_EVENT& from) { to->endMSec = from.endMSec; }},
  };
  for (const Step& step : steps) {
    step.apply(&row, other);
    EXPECT_TRUE(journalLog->updateEvent(step.bit, &other)) << step.bit;
    expectPair(0, 32, eventRecord(row));
  }
  expectPair(0, 0, eventRecord(eventRow(1)));
}

TEST_F(Journal, AnUpdatePatchesExactlyTheSelectedStreamFields) {
  DB_STREAM row = insertStream(1);
  DB_STREAM other = streamRow(70);
  other.streamID = row.streamID;
  struct Step {
    uint32_t bit;
    void (*apply)(DB_STREAM*, const DB_STREAM&);
  };
  const Step steps[] = {
      {0x0002, [](DB_STREAM* to, const DB_STREAM& from) { to->inTrg = from.inTrg; }},
      {0x0004, [](DB_STREAM* to, const DB_STREAM& from) { to->frameSet = from.frameSet; }},
      {0x0008, [](DB_STREAM* to, const DB_STREAM& from) { to->bitrateSet = from.bitrateSet; }},
      {0x0010, [](DB_STREAM* to, const DB_STREAM& from) { to->recSize = from.recSize; }},
      {0x0020, [](DB_STREAM* to, const DB_STREAM& from) { to->chunkID = from.chunkID; }},
      {0x0040, [](DB_STREAM* to, const DB_STREAM& from) { to->chunkOffset = from.chunkOffset; }},
      {0x0080, [](DB_STREAM* to, const DB_STREAM& from) { to->chunkSize = from.chunkSize; }},
      {0x0100, [](DB_STREAM* to, const DB_STREAM& from) { to->status = from.status; }},
      {0x0200, [](DB_STREAM* to, const DB_STREAM& from) { to->startDate = from.startDate; }},
      {0x0400, [](DB_STREAM* to, const DB_STREAM& from) { to->endDate = from.endDate; }},
      {0x0800, [](DB_STREAM* to, const DB_STREAM& from) { to->startMSec = from.startMSec; }},
      {0x1000, [](DB_STREAM* to, const DB_STREAM& from) { to->endMSec = from.endMSec; }},
  };
  for (const Step& step : steps) {
    step.apply(&row, other);
    EXPECT_TRUE(journalLog->updateStream(step.bit | 0x2001, &other)) << step.bit;
    expectPair(2, 0, streamRecord(row));
  }
}

TEST_F(Journal, AnUpdateOfPreSecAloneRewritesTheRecordUnchanged) {
  const DB_EVENT row = insertEvent(1);
  DB_EVENT other = eventRow(50);
  other.eventID = row.eventID;
  EXPECT_TRUE(journalLog->updateEvent(0x04, &other));
  expectPair(0, 0, eventRecord(row));
}

TEST_F(Journal, AnUpdateWithNothingLeftOfItsMaskIsRefused) {
  insertEvent(1);
  insertStream(1);
  const DB_EVENT event = eventRow(1);
  const DB_STREAM stream = streamRow(1);
  for (uint32_t mask : {0x00u, 0x01u, 0x80u, 0x81u, 0x100u}) {
    log.clear();
    EXPECT_FALSE(journalLog->updateEvent(mask, &event)) << mask;
    EXPECT_THAT(log.lines(), testing::ElementsAre(
                                 LogLine{LOG_WARNING, "CDbLog::updateEvent() eRegBit all zero"}));
  }
  for (uint32_t mask : {0x0000u, 0x0001u, 0x2000u, 0x2001u, 0x4000u}) {
    log.clear();
    EXPECT_FALSE(journalLog->updateStream(mask, &stream)) << mask;
    EXPECT_THAT(log.lines(), testing::ElementsAre(
                                 LogLine{LOG_WARNING, "CDbLog::updateStream() sRegBit all zero"}));
  }
}

TEST_F(Journal, AKeyWithoutARowTouchesNoChunk) {
  insertEvent(1);
  insertStream(1);
  DB_EVENT event = eventRow(77);
  DB_STREAM stream = streamRow(77);
  const IoFaults card_calls(kCardPath);
  EXPECT_FALSE(journalLog->updateEvent(0x02, &event));
  EXPECT_FALSE(journalLog->updateStream(0x02, &stream));
  EXPECT_FALSE(journalLog->deleteEvent(77));
  EXPECT_FALSE(journalLog->deleteStream(77));
  EXPECT_EQ(card_calls.sequence(), "");
  EXPECT_THAT(log.atPriority(LOG_ERR),
              testing::ElementsAre(LogLine{LOG_ERR, "CDbLog::updateEvent() no record found."},
                                   LogLine{LOG_ERR, "CDbLog::updateStream() no record found."},
                                   LogLine{LOG_ERR, "CDbLog::deleteEvent() no record found."},
                                   LogLine{LOG_ERR, "CDbLog::deleteStream() no record found."}));
}

TEST_F(Journal, ADeleteChangesOnlyTheMarker) {
  const DB_EVENT event = insertEvent(1);
  const DB_STREAM stream = insertStream(1);
  EXPECT_TRUE(journalLog->deleteEvent(1));
  EXPECT_TRUE(journalLog->deleteStream(1));
  expectPair(0, 0, eventRecord(event, 0xFFFFFFEF));
  expectPair(2, 0, streamRecord(stream, 0xFFFFFFEE));
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{32, 32, 64, 64})) << "the space is not given back";
}

TEST_F(Journal, DeletingADeletedRecordSucceeds) {
  const DB_EVENT event = insertEvent(1);
  const DB_STREAM stream = insertStream(1);
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(journalLog->deleteEvent(1));
    EXPECT_TRUE(journalLog->deleteStream(1));
  }
  expectPair(0, 0, eventRecord(event, 0xFFFFFFEF));
  expectPair(2, 0, streamRecord(stream, 0xFFFFFFEE));
}

TEST_F(Journal, ADeletedRecordIsPatchedLikeALiveOne) {
  DB_EVENT event = insertEvent(1);
  EXPECT_TRUE(journalLog->deleteEvent(1));
  event.endDate = 42;
  EXPECT_TRUE(journalLog->updateEvent(0x10, &event));
  expectPair(0, 0, eventRecord(event, 0xFFFFFFEF));
}

TEST_F(Journal, ABadOriginalIsReadFromTheMirrorAndBothAreRewritten) {
  DB_EVENT row = insertEvent(1);
  Bytes torn = eventRecord(row);
  torn[9] ^= 0x55;
  setJournal(0, 0, torn);
  log.clear();
  row.endDate = 1234;
  EXPECT_TRUE(journalLog->updateEvent(0x10, &row));
  EXPECT_TRUE(log.has(LOG_WARNING, kReadFromMirror)) << testing::PrintToString(log.lines());
  expectPair(0, 0, eventRecord(row));
}

TEST_F(Journal, ABadMirrorIsRewrittenFromTheOriginal) {
  const DB_STREAM row = insertStream(1);
  setJournal(3, 0, Bytes(64, 0x77));
  EXPECT_TRUE(journalLog->deleteStream(1));
  expectPair(2, 0, streamRecord(row, 0xFFFFFFEE));
}

TEST_F(Journal, ClearMovesBothJournalsToTheirStart) {
  insertEvent(1);
  insertStream(1);
  EXPECT_TRUE(journalLog->clearDbLogFreeAddr());
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 0u);
  EXPECT_EQ(journalLog->getStreamLogBackOffset(), 0u);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{0, 0, 0, 0}));
  const DB_EVENT row = insertEvent(2);
  EXPECT_EQ(row.backOffset, 0u);
  expectPair(0, 0, eventRecord(row));
}

TEST_F(Journal, ClearAlsoMovesTheUseOffsets) {
  stopServer();
  setManagement({96, 96, 128, 128}, {32, 32, 64, 64});
  startServer();
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 96u);
  EXPECT_TRUE(journalLog->clearDbLogFreeAddr());
  for (int chunk = 0; chunk < 4; ++chunk) EXPECT_EQ(savedOffset(0, chunk, 8), 0u) << chunk;
}

TEST_F(Journal, FinishDoesNotWaitForALockOfTheDead) {
  DB_EVENT row = insertEvent(1);
  row.extTrg = 3;
  EXPECT_TRUE(journalLog->updateEvent(kEventRegExtTrg, &row)) << "it looks into the database";
  const pid_t child = fork();
  if (child == 0) {
    CApiDb().lockSem();
    _exit(0);
  }
  waitpid(child, nullptr, 0);
  EXPECT_EQ(journalLog->finish(), 0);
  EXPECT_EQ(journalLog->finish(), 0);
  EXPECT_EQ(CApiDb().unlockSem(), 0u);
  EXPECT_EQ(journalLog->finish(), 0);
  row.extTrg = 4;
  EXPECT_TRUE(journalLog->updateEvent(kEventRegExtTrg, &row));
}

TEST_F(Journal, FinishSavesAndTheNextOperationConnectsAgain) {
  insertEvent(1);
  EXPECT_EQ(journalLog->finish(), 0);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{32, 32, 0, 0}));
  EXPECT_EQ(journalLog->finish(), 0);
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 32u);
  EXPECT_EQ(log.count(LOG_INFO, "CDbLog :: connect"), 2u);
}

TEST_F(Journal, FlushingAndSavingAlwaysSucceed) {
  EXPECT_EQ(journalLog->writeLog(), 0);
  EXPECT_EQ(journalLog->writeLogNoManage(), 0);
  insertEvent(1);
  EXPECT_EQ(journalLog->writeLog(), 0);
  EXPECT_EQ(journalLog->writeLogNoManage(), 0);
}

TEST_F(Journal, AnOffsetBehindTheChunkIsNoPlaceOfARecord) {
  insertEvent(1);
  // Offset 1024 of chunk 0 is offset 0 of chunk 1, where a record just as good lies.
  db.setSqlNoResult("UPDATE EVENT SET backOffset = 1024 WHERE eventID = 1");
  DB_EVENT row = eventRow(1);
  EXPECT_FALSE(journalLog->updateEvent(0x10, &row));
  EXPECT_FALSE(journalLog->deleteEvent(1));
  EXPECT_THAT(log.atPriority(LOG_ERR),
              testing::ElementsAre(LogLine{LOG_ERR, "CDbLog::updateEvent() seek error."},
                                   LogLine{LOG_ERR, "CDbLog::deleteEvent() seek error."}));
  expectPair(0, 0, eventRecord(eventRow(1)));
}

// Two of the records, two of the management data; nothing else reaches the card.
TEST_F(Journal, AnInsertServerIncludedIsFourWritesEachFlushed) {
  insertEvent(1);
  const IoFaults faults(kCardPath);
  insertEvent(2);
  EXPECT_EQ(faults.count(Call::Write), 4u);
  EXPECT_EQ(faults.count(Call::Fsync), 4u);
  EXPECT_EQ(faults.count(Call::Read), 0u);
  EXPECT_EQ(faults.count(Call::Open), 0u);
  std::string changes;
  for (char call : faults.sequence()) {
    if (call == 'w' || call == 'f') changes += call;
  }
  EXPECT_EQ(changes, "wfwfwfwf");
}

// What one change costs: calls on the card, and requests to the server. Each request is read once
// by the server and its answer once by the client, which run in this process.
struct Cost {
  explicit Cost(const std::function<void()>& change) {
    const IoFaults card(kCardPath);
    const IoFaults all("");
    change();
    reads = card.count(Call::Read);
    opens = card.count(Call::Open);
    requests = (all.count(Call::Read) - reads) / 2;
    for (char call : card.sequence()) {
      if (call == 'w' || call == 'f') changes += call;
    }
  }
  size_t reads, opens, requests;
  std::string changes;  // writes and flushes, in order
};

TEST_F(Journal, AnInsertAsksTheServerFiveTimes) {
  insertEvent(1);
  insertStream(1);
  EXPECT_EQ(Cost([this] { insertEvent(2); }).requests, 5u);
  const Cost stream([this] { insertStream(2); });
  EXPECT_EQ(stream.requests, 5u);
  EXPECT_EQ(stream.changes, "wfwfwfwf");
  EXPECT_EQ(stream.reads, 0u);
  EXPECT_EQ(stream.opens, 0u);
}

TEST_F(Journal, AnUpdateIsOneReadAndTwoFlushedWrites) {
  insertEvent(1);
  DB_EVENT row = eventRow(1);
  EXPECT_TRUE(journalLog->updateEvent(kEventRegEndDate, &row));
  const Cost cost([&] { EXPECT_TRUE(journalLog->updateEvent(kEventRegEndDate, &row)); });
  EXPECT_EQ(cost.reads, 1u);
  EXPECT_EQ(cost.changes, "wfwf");
  EXPECT_EQ(cost.opens, 0u);
  EXPECT_EQ(cost.requests, 4u);
}

TEST_F(Journal, ADeleteIsOneReadAndTwoFlushedWrites) {
  insertStream(1);
  insertStream(2);
  EXPECT_TRUE(journalLog->deleteStream(1));
  const Cost cost([&] { EXPECT_TRUE(journalLog->deleteStream(2)); });
  EXPECT_EQ(cost.reads, 1u);
  EXPECT_EQ(cost.changes, "wfwf");
  EXPECT_EQ(cost.opens, 0u);
  EXPECT_EQ(cost.requests, 4u);
}

TEST_F(Journal, LooksRowsUpInTheDatabase) {
  insertEvent(1);
  insertEvent(2);
  insertStream(1);
  insertStream(2);
  EXPECT_EQ(journalLog->searchEventBackOffset(2), 32u);
  EXPECT_EQ(journalLog->searchStreamBackOffset(2), 64u);
  EXPECT_EQ(journalLog->searchEventBackOffset(3), 0xFFFFFFFFu);
  EXPECT_EQ(journalLog->searchStreamBackOffset(3), 0xFFFFFFFFu);
  EXPECT_EQ(journalLog->searchEventBackOffset(static_cast<unsigned long>(0x100000002)), 32u)
      << "keys have 32 bits";
}

TEST_F(Journal, ALookUpThatFailsSaysSoAndOneThatFindsNothingDoesNot) {
  insertEvent(1);
  log.clear();
  EXPECT_EQ(journalLog->searchEventBackOffset(3), 0xFFFFFFFFu);
  EXPECT_THAT(log.lines(), testing::IsEmpty());
  db.setSqlNoResult("DROP TABLE STREAM");
  EXPECT_EQ(journalLog->searchStreamBackOffset(1), 0xFFFFFFFFu);
  const std::string sql = "SELECT backOffset FROM STREAM WHERE streamID = 1";
  const std::vector<LogLine> attempt = {{LOG_ERR, "SQLite Err no such table: STREAM"},
                                        {LOG_ERR, "setSql() errorSQL = (" + sql + ")"},
                                        {LOG_WARNING, " error [no such table: STREAM] SQL=" + sql}};
  std::vector<LogLine> expected = attempt;
  expected.insert(expected.end(), attempt.begin(), attempt.end());
  expected.push_back({LOG_ERR, " DB LOG select error"});
  EXPECT_EQ(log.lines(), expected);
}

TEST_F(Journal, LookUpsFollowTheDatabaseFile) {
  insertEvent(1);
  EXPECT_EQ(journalLog->searchEventBackOffset(1), 0u);
  makeDatabase();
  EXPECT_EQ(journalLog->searchEventBackOffset(1), 0xFFFFFFFFu);
}

TEST_F(Journal, TakesACorrectedFreeOffset) {
  insertEvent(1);
  EXPECT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kEvent, 96), 0);
  EXPECT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kStream, 128), 0);
  EXPECT_EQ(journalLog->getEventLogBackOffset(), 96u);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{96, 96, 128, 128}));
  EXPECT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kEvent, 1024), -1);
  EXPECT_EQ(journalLog->correctFreeOffset(tarn::JournalKind::kStream, 32), -1);
  EXPECT_EQ(journalLog->getJournalChunkSize(), kJournalSize);
}

}  // namespace
}  // namespace tarn_test
