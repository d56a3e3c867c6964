#include "dblog/JournalRig.h"
#include "recorder/rows/JournaledRows.h"
#include "recorder/rows/RowMessages.h"

namespace tarn_test {
namespace {

using tarn::JournaledRows;
using Outcome = JournaledRows::Outcome;

constexpr DB_STREAM_REG_BIT kClose = kStreamRegRecSize | kStreamRegEndDate;

// The stand-in for the server touches no card: what is counted is the journal's own.
class JournaledRowsTest : public FakeServedTest {
 protected:
  JournaledRowsTest() {
    stream = streamRow(1);
    event = eventRow(1);
    EXPECT_EQ(rows.insert(&stream), Outcome::kDone);
    EXPECT_EQ(rows.insert(&event), Outcome::kDone);
    server.forget();
  }

  DB_STREAM stored(uint32_t key) {
    CApiDb reader;
    DB_STREAM row = {};
    EXPECT_EQ(reader.selectStream(key, &row), 1u) << key;
    return row;
  }
  size_t streamCount() {
    CApiDb reader;
    reader.setSql("SELECT COUNT(*) FROM STREAM");
    return reader.getValue(0, 0);
  }

  CApiDb db;
  JournaledRows rows{&db};
  DB_STREAM stream;
  DB_EVENT event;
};

TEST_F(JournaledRowsTest, AnInsertIsARowAndARecord) {
  EXPECT_EQ(stream.streamID, 1u);
  EXPECT_EQ(stream.backOffset, 0u);
  expectPair(2, 0, streamRecord(stream));
  expectPair(0, 0, eventRecord(event));
}

// A close asked the journal twice: four writes, four flushes, eight requests.
TEST_F(JournaledRowsTest, ACloseGoesThroughTheJournalOnce) {
  const IoFaults io(kCardPath);
  DB_STREAM closed = stream;
  closed.recSize = 77;
  closed.endDate = 1700009999;
  EXPECT_EQ(rows.update(kClose, stream, closed), Outcome::kDone);
  EXPECT_EQ(io.count(Call::Write), 2u);
  EXPECT_EQ(io.count(Call::Fsync), 2u);
  EXPECT_EQ(commands(), (std::vector<uint32_t>{kSetFree, kSetFree, kSetFree, kSetFree}));
  EXPECT_EQ(stored(1).recSize, 77u);
  expectPair(2, 0, streamRecord(closed));
}

TEST_F(JournaledRowsTest, ARemoveGoesThroughTheJournalOnce) {
  const IoFaults io(kCardPath);
  EXPECT_EQ(rows.removeStream(1), Outcome::kDone);
  EXPECT_EQ(io.count(Call::Write), 2u);
  EXPECT_EQ(io.count(Call::Fsync), 2u);
  EXPECT_EQ(commands().size(), 4u);
  EXPECT_EQ(streamCount(), 0u);
  EXPECT_EQ(rows.removeEvent(1), Outcome::kDone);
  expectPair(0, 0, eventRecord(event, 0xFFFFFFEF));
}

TEST_F(JournaledRowsTest, AnUpdateThatTheJournalRefusesLeavesTheRowAsItWas) {
  for (const Call call : {Call::Write, Call::Fsync}) {
    for (int n = 1; n <= 2; ++n) {
      DB_STREAM closed = stream;
      closed.recSize = 77;
      closed.endDate = 1700009999;
      {
        IoFaults io(kCardPath);
        io.fail(call, n, EIO);
        EXPECT_EQ(rows.update(kClose, stream, closed), Outcome::kJournal) << n;
      }
      EXPECT_STREQ(rows.failure(), tarn::kErrJournal);
      EXPECT_EQ(stored(1).recSize, stream.recSize);
      EXPECT_EQ(stored(1).endDate, stream.endDate);
      EXPECT_EQ(rows.update(kClose, closed, stream), Outcome::kDone);
    }
  }
}

TEST_F(JournaledRowsTest, AnInsertThatTheJournalRefusesLeavesNeitherRowNorLiveRecord) {
  for (const Call call : {Call::Write, Call::Fsync}) {
    for (int n = 1; n <= 2; ++n) {
      DB_STREAM row = streamRow(9);
      {
        IoFaults io(kCardPath);
        io.fail(call, n, EIO);
        EXPECT_EQ(rows.insert(&row), Outcome::kJournal) << n;
      }
      EXPECT_EQ(streamCount(), 1u);
      for (const int copy : {2, 3}) {
        const Bytes record = journal(copy, row.backOffset, 4);
        EXPECT_NE(record, (Bytes{0xEC, 0xFF, 0xFF, 0xFF})) << "live, copy " << copy << " " << n;
      }
    }
  }
  DB_STREAM next = streamRow(2);
  EXPECT_EQ(rows.insert(&next), Outcome::kDone);
  expectPair(2, next.backOffset, streamRecord(next));
}

TEST_F(JournaledRowsTest, ARowWhoseRecordCannotBeDeletedStays) {
  for (const Call call : {Call::Write, Call::Fsync}) {
    IoFaults io(kCardPath);
    io.fail(call, 1, EIO);
    EXPECT_EQ(rows.removeStream(1), Outcome::kJournal);
    EXPECT_EQ(streamCount(), 1u);
  }
}

// The gateway journals a failed insert under the connection's previous key: the record of a
// recording that is safe would count twice, and be dropped with the newer one.
TEST_F(JournaledRowsTest, AnInsertThatTheDatabaseRefusesLeavesNoRecord) {
  const Bytes before = journal(2, 0, kJournalSize);
  db.setSqlNoResult("ALTER TABLE STREAM RENAME TO AWAY");
  DB_STREAM row = streamRow(2);
  EXPECT_EQ(rows.insert(&row), Outcome::kDatabase);
  EXPECT_STREQ(rows.failure(), tarn::kErrRow);
  EXPECT_EQ(journal(2, 0, kJournalSize), before);
  db.setSqlNoResult("ALTER TABLE AWAY RENAME TO STREAM");
  EXPECT_EQ(rows.insert(&row), Outcome::kDone);
  EXPECT_EQ(row.backOffset, 64u);
  EXPECT_FALSE(db.isStrict()) << "the connection is somebody else's";
}

TEST_F(JournaledRowsTest, AnUpdateOfARowThatIsGoneIsNoMatterOfTheJournal) {
  DB_STREAM gone = stream;
  gone.streamID = 55;
  EXPECT_EQ(rows.update(kClose, gone, gone), Outcome::kDatabase);
}

}  // namespace
}  // namespace tarn_test
