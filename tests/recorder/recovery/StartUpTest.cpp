#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "dblog/JournalFormat.h"
#include "dblog/JournalRig.h"
#include "recorder/recovery/JournalSurvey.h"
#include "recorder/recovery/StartUp.h"
#include "recorder/rows/DatabaseGate.h"
#include "recorder/rows/JournalGuard.h"
#include "support/Shortcuts.h"

namespace tarn_test {
namespace {

using tarn::JournalKind;
using tarn::JournalSurvey;
using tarn::StartUp;
using tarn::StartUpReport;

class StartUpTest : public CardTest {
 protected:
  void putEvent(uint32_t key, uint32_t offset, uint32_t marker = 0xFFFFFFED) {
    DB_EVENT row = eventRow(key);
    row.backOffset = offset;
    setPair(0, offset, eventRecord(row, marker));
  }
  void putStream(uint32_t key, uint32_t offset, uint32_t marker = 0xFFFFFFEC) {
    DB_STREAM row = streamRow(key);
    row.backOffset = offset;
    setPair(2, offset, streamRecord(row, marker));
  }
  // Keys that the database gives to the next rows.
  static uint32_t nextEventKey() {
    CApiDb db;
    db.setSqlNoResult("INSERT INTO EVENT( backOffset ) VALUES( 9999 )");
    db.setSql("SELECT MAX(eventID) FROM EVENT");
    return db.getValue(0, 0);
  }
  static uint32_t nextStreamKey() {
    CApiDb db;
    db.setSqlNoResult("INSERT INTO STREAM( backOffset ) VALUES( 9999 )");
    db.setSql("SELECT MAX(streamID) FROM STREAM");
    return db.getValue(0, 0);
  }
};

TEST_F(StartUpTest, AnEmptyCardGivesAnEmptyDatabase) {
  unlink("/tmp/DB.dat");
  const StartUpReport report = StartUp().run();
  EXPECT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.eventRows, 0u);
  EXPECT_EQ(report.streamRows, 0u);
  EXPECT_EQ(report.events.records, 0u);
  EXPECT_EQ(nextEventKey(), 1u);
  EXPECT_EQ(nextStreamKey(), 1u);
}

TEST_F(StartUpTest, RowsComeBackAndOffsetsGoBehindThem) {
  putEvent(4, 0);
  putEvent(5, 32);
  putEvent(6, 64, 0xFFFFFFEF);
  putStream(7, 0);
  setManagement({32, 32, 0, 0});
  const StartUpReport report = StartUp().run();
  EXPECT_TRUE(report.ok()) << report.error;
  EXPECT_EQ(report.eventRows, 2u);
  EXPECT_EQ(report.streamRows, 1u);
  EXPECT_EQ(report.events.records, 3u);
  EXPECT_EQ(report.events.live, 2u);
  EXPECT_EQ(report.events.greatestKey, 6u);
  EXPECT_EQ(report.streams.greatestKey, 7u);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{64, 64, 64, 64}));
}

TEST_F(StartUpTest, KeysOfDeletedRowsAreNeverGivenOutAgain) {
  putEvent(40, 0, 0xFFFFFFEF);
  putStream(50, 0, 0xFFFFFFEE);
  EXPECT_TRUE(StartUp().run().ok());
  EXPECT_EQ(nextEventKey(), 41u);
  EXPECT_EQ(nextStreamKey(), 51u);
}

TEST_F(StartUpTest, AKeyThatOnlyOneCopyKnowsCounts) {
  putEvent(40, 0);
  putEvent(41, 32);
  setJournal(0, 32, Bytes(32, 0x12));
  putStream(50, 0);
  putStream(51, 64);
  setJournal(3, 64, Bytes(64, 0xFF));
  EXPECT_TRUE(StartUp().run().ok());
  EXPECT_EQ(nextEventKey(), 42u);
  EXPECT_EQ(nextStreamKey(), 52u);
}

TEST_F(StartUpTest, AKeyInTheMirrorAloneIsNotForgotten) {
  // The original was rewritten by a newer round of the ring, the mirror not yet.
  putEvent(40, 0);
  DB_EVENT old = eventRow(90);
  setJournal(1, 0, eventRecord(old));
  EXPECT_TRUE(StartUp().run().ok());
  EXPECT_EQ(nextEventKey(), 91u);
}

TEST_F(StartUpTest, ARecordOutOfPlaceGivesNoKey) {
  putEvent(4, 0);
  DB_EVENT row = eventRow(900);
  row.backOffset = 0;
  setPair(0, 32, eventRecord(row));
  EXPECT_TRUE(StartUp().run().ok());
  EXPECT_EQ(nextEventKey(), 5u);
}

TEST_F(StartUpTest, RunAgainItChangesNothing) {
  putEvent(4, 0);
  putStream(7, 0);
  EXPECT_TRUE(StartUp().run().ok());
  const Bytes before = card.read(0, static_cast<size_t>(card.size()));
  const StartUpReport again = StartUp().run();
  EXPECT_TRUE(again.ok());
  EXPECT_EQ(again.eventRows, 1u);
  EXPECT_EQ(card.read(0, static_cast<size_t>(card.size())), before);
}

TEST_F(StartUpTest, WithoutADatabaseNothingElseIsDone) {
  unlink("/tmp/DB.dat");
  ASSERT_EQ(system("mkdir -p /tmp/DB.dat/x"), 0);
  const IoFaults faults(kCardPath);
  const StartUpReport report = StartUp().run();
  EXPECT_EQ(report.failed, StartUpReport::kEmptyDatabase);
  EXPECT_EQ(report.error, "the empty database could not be set up");
  EXPECT_EQ(faults.sequence(), "") << "the card is not touched";
  EXPECT_TRUE(log.has(LOG_ERR, "start-up: the empty database could not be set up"));
}

// As a shell tells of a program that it became and that was killed.
int dieWithTheDatabaseLocked() {
  const pid_t process = fork();
  if (process == 0) _exit(CApiDb().lockSem() == 0 ? 0 : 1);
  waitpid(process, nullptr, 0);
  return SIGKILL;
}

TEST_F(StartUpTest, ASetUpThatIsKilledWithTheDatabaseLockedIsNotWaitedFor) {
  g_setUpInstead = dieWithTheDatabaseLocked;
  const IoFaults faults(kCardPath);
  const StartUpReport report = StartUp().run();
  EXPECT_EQ(report.failed, StartUpReport::kEmptyDatabase);
  EXPECT_EQ(
      report.error.rfind("the empty database could not be set up: it is locked by process ", 0), 0u)
      << report.error;
  EXPECT_NE(report.error.find(", which is gone"), std::string::npos);
  EXPECT_EQ(faults.sequence(), "") << "the card is not touched";
  g_setUpInstead = nullptr;
  EXPECT_TRUE(tarn::DatabaseGate::releaseDead());
  EXPECT_TRUE(StartUp().run().ok());
}

TEST_F(StartUpTest, AfterAFailedReplayNoOffsetIsMoved) {
  putEvent(4, 0);
  setManagement({96, 96, 0, 0});
  card.fill(card.chunkStart(tarn::kFileJournalManage, 0), 24, 0x44);
  const Bytes before = card.read(0, static_cast<size_t>(card.size()));
  const StartUpReport report = StartUp().run();
  EXPECT_EQ(report.failed, uint32_t{StartUpReport::kEventReplay} | StartUpReport::kStreamReplay);
  EXPECT_EQ(report.error, "the events could not be rebuilt from the card's journal");
  EXPECT_EQ(card.read(0, static_cast<size_t>(card.size())), before);
}

TEST_F(StartUpTest, ASaveThatFailsIsNamed) {
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 5, EIO);  // two replays save twice each
  const StartUpReport report = StartUp().run();
  EXPECT_EQ(report.failed, StartUpReport::kJournalManage);
  EXPECT_EQ(report.error, "the card's journal could not be made ready");
}

TEST_F(StartUpTest, TheSurveyCountsWhatIsUnreadable) {
  putEvent(1, 0);
  setPair(0, 32, Bytes(32, 0x21));
  putEvent(3, 64);
  JournalSurvey survey;
  EXPECT_EQ(tarn::surveyJournal(JournalKind::kEvent, &survey), 0);
  EXPECT_EQ(survey.records, 3u);
  EXPECT_EQ(survey.live, 2u);
  EXPECT_EQ(survey.unreadable, 1u);
  EXPECT_EQ(survey.greatestKey, 3u);
}

TEST_F(StartUpTest, TheSurveyGoesOnBehindABlockThatCannotBeRead) {
  putEvent(1, 0);
  putEvent(2, 32);
  const IoFaults counted(kCardPath);
  JournalSurvey survey;
  EXPECT_EQ(tarn::surveyJournal(JournalKind::kEvent, &survey), 0);
  int reads = 0;
  for (const IoRecord& call : counted.calls()) {
    if (call.call != Call::Read) continue;
    ++reads;
    if (call.offset == static_cast<int64_t>(card.chunkStart(tarn::kFileJournal, 0))) break;
  }
  for (int failing : {1, 2}) {
    IoFaults faults(kCardPath);
    faults.fail(Call::Read, reads, EIO, failing);
    JournalSurvey again;
    EXPECT_EQ(tarn::surveyJournal(JournalKind::kEvent, &again), 0);
    EXPECT_EQ(again.records, survey.records) << failing;
    EXPECT_EQ(again.live, survey.live);
    EXPECT_EQ(again.greatestKey, 2u);
  }
}

TEST_F(StartUpTest, TheSurveySaysWhenAChunkCannotBeOpened) {
  for (int open : {1, 2}) {
    IoFaults faults(kCardPath);
    faults.fail(Call::Open, open, EIO, IoFaults::kForever);
    JournalSurvey survey;
    EXPECT_EQ(tarn::surveyJournal(JournalKind::kStream, &survey), -1);
    EXPECT_TRUE(log.has(LOG_ERR, open == 1 ? "journal: chunk 2 cannot be opened"
                                           : "journal: chunk 3 cannot be opened"));
  }
}

// A life of the recorder: insert, die, start up, insert, with the real server each time.
class StartUpLife : public ServedTest {};

TEST_F(StartUpLife, ARecorderThatDiesAgainAndAgainLosesNoRowAndReusesNoKey) {
  CApiDb* db = new CApiDb;
  for (uint32_t life = 1; life <= 5; ++life) {
    for (int i = 0; i < 10; ++i) {
      tarn::JournalGuard guard(db);
      DB_EVENT row = eventRow(life);
      ASSERT_TRUE(guard.beforeEventInsert());
      ASSERT_EQ(db->insertEvent(&row), (life - 1) * 10 + static_cast<uint32_t>(i) + 1);
      if (i == 9) db->deleteEvent(row.eventID);
    }
    CDbLog::getInstance()->finish();
    stopServer();
    delete db;
    unlink("/tmp/DB.dat");
    const StartUpReport report = StartUp().run();
    ASSERT_TRUE(report.ok()) << report.error;
    EXPECT_EQ(report.events.greatestKey, life * 10);
    EXPECT_EQ(report.eventRows, report.events.live);
    startServer();
    db = new CApiDb;
  }
  delete db;
}

}  // namespace
}  // namespace tarn_test
