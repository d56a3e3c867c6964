#include "dblog/CDbRestore.h"
#include "dblog/JournalRig.h"

namespace tarn_test {
namespace {

class RecoverJournalManage : public CardTest {
 protected:
  void addEvent(uint32_t key, uint32_t offset) {
    db.setSqlNoResult(("INSERT INTO EVENT VALUES( " + std::to_string(key) + ", 1, 1, 1, 1, 1, 1, " +
                       std::to_string(offset) + " )")
                          .c_str());
  }
  void addStream(uint32_t key, uint32_t offset) {
    db.setSqlNoResult(("INSERT INTO STREAM VALUES( " + std::to_string(key) +
                       ", 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, " + std::to_string(offset) + " )")
                          .c_str());
  }

  CDbRestore restore;
  CApiDb db;
};

TEST_F(RecoverJournalManage, FreeOffsetsGoBehindTheNewestRowsOnBothChunksAndCopies) {
  setManagement({0, 32, 64, 0}, {0, 32, 64, 128});
  addEvent(3, 64);
  addEvent(2, 96);
  addStream(8, 128);
  addStream(9, 64);
  EXPECT_EQ(restore.recoverJournalManage(), 0);
  EXPECT_EQ(savedFree(0), (std::vector<uint32_t>{96, 96, 128, 128}));
  EXPECT_EQ(savedFree(1), savedFree(0));
  for (int chunk = 0; chunk < 4; ++chunk) {
    EXPECT_EQ(savedOffset(0, chunk, 8), (std::vector<uint32_t>{0, 32, 64, 128})[chunk]);
  }
}

TEST_F(RecoverJournalManage, AtTheChunksEndTheyGoToItsStart) {
  setManagement({96, 96, 64, 64});
  addEvent(3, kJournalSize - 32);
  addStream(3, kJournalSize - 64);
  EXPECT_EQ(restore.recoverJournalManage(), 0);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{0, 0, 0, 0}));
}

TEST_F(RecoverJournalManage, WithoutRowsTheyStayAndTheMirrorFollows) {
  setManagement({96, 32, 192, 0});
  EXPECT_EQ(restore.recoverJournalManage(), 0);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{96, 96, 192, 192}));
}

TEST_F(RecoverJournalManage, WithoutRowsANonsenseOffsetBecomesZero) {
  setManagement({97, 32, kJournalSize - 32, 0});
  EXPECT_EQ(restore.recoverJournalManage(), 0);
  EXPECT_EQ(savedFree(), (std::vector<uint32_t>{0, 0, 0, 0}));
}

TEST_F(RecoverJournalManage, RunAgainItChangesNothing) {
  addEvent(3, 64);
  EXPECT_EQ(restore.recoverJournalManage(), 0);
  const Bytes before = card.read(0, static_cast<size_t>(card.size()));
  EXPECT_EQ(restore.recoverJournalManage(), 0);
  EXPECT_EQ(card.read(0, static_cast<size_t>(card.size())), before);
}

TEST_F(RecoverJournalManage, AFailedSaveIsReported) {
  IoFaults faults(kCardPath);
  faults.fail(Call::Write, 2, EIO);
  EXPECT_EQ(restore.recoverJournalManage(), -1);
}

// No answer and no row look the same: the next insert would go over the record of a row.
TEST_F(RecoverJournalManage, ADatabaseThatDoesNotAnswerMovesNoOffset) {
  addEvent(3, 64);
  for (const char* table : {"EVENT", "STREAM"}) {
    makeDatabase();
    {
      CApiDb db;
      db.setSqlNoResult((std::string("DROP TABLE ") + table).c_str());
    }
    const IoFaults faults(kCardPath);
    EXPECT_EQ(restore.recoverJournalManage(), -1) << table;
    EXPECT_EQ(faults.count(Call::Write), 0u) << table;
  }
}

class RecoverFewChunks : public testing::Test {};

TEST_F(RecoverFewChunks, ACardWithTooFewJournalChunksIsRefused) {
  CardLayout layout = journalCard();
  layout.families[tarn::kFileJournal].count = 3;
  CardImage card(layout);
  card.initManagement();
  const SyslogCapture log;
  std::string error;
  ASSERT_TRUE(tarn::DatabaseSetup::createEmpty("/tmp/DB.dat", &error)) << error;
  CDbRestore restore;
  EXPECT_EQ(restore.recoverJournalManage(), -1);
  EXPECT_EQ(restore.restoreStreamDb(2), -1);
  EXPECT_EQ(restore.restoreEventDb(), 0);
}

// The whole of it: power goes after the record was written and before the management file was.
class LostManagement : public ServedTest {};

TEST_F(LostManagement, TheNextInsertDoesNotOverwriteTheNewestRecord) {
  CApiDb db;
  DB_EVENT rows[3];
  for (uint32_t i = 0; i < 3; ++i) {
    rows[i] = eventRow(i + 1);
    ASSERT_EQ(db.insertEvent(&rows[i]), i + 1);
  }
  CDbLog::getInstance()->finish();
  stopServer();
  setManagement({64, 64, 0, 0});
  makeDatabase();
  CDbRestore restore;
  EXPECT_EQ(restore.restoreEventDb(), 0);
  EXPECT_EQ(restore.restoreStreamDb(2), 0);
  EXPECT_EQ(restore.recoverJournalManage(), 0);
  startServer();
  CApiDb after;
  DB_EVENT row = eventRow(9);
  EXPECT_EQ(after.insertEvent(&row), 4u);
  EXPECT_EQ(row.backOffset, 96u);
  for (const DB_EVENT& old : rows) expectPair(0, old.backOffset, eventRecord(old));
}

}  // namespace
}  // namespace tarn_test
