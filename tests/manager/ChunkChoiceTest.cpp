#include "manager/StoreTest.h"

namespace tarn_test {
namespace {

using testing::IsEmpty;

constexpr uint32_t kStreamSize = 128 * kKiB;
constexpr uint32_t kPictureSize = 64 * kKiB;
constexpr signed char kType = 6;

// The database as far as the choice looks at it.
class Rows {
 public:
  Rows() {
    EXPECT_EQ(sqlite3_open("/tmp/DB.dat", &db_), SQLITE_OK);
    run("CREATE TABLE STREAM (streamID INTEGER PRIMARY KEY, chunkID INTEGER)");
  }
  ~Rows() { sqlite3_close(db_); }
  void add(int id, const std::string& chunk) {
    run("INSERT INTO STREAM VALUES (" + std::to_string(id) + ", " + chunk + ")");
  }
  void drop() { run("DROP TABLE STREAM"); }

 private:
  void run(const std::string& sql) {
    EXPECT_EQ(sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK) << sql;
  }
  sqlite3* db_ = nullptr;
};

class ChunkChoiceTest : public testing::Test {
 protected:
  void use(uint32_t chunks) {
    card.emplace(smallCard(chunks));
    card->initManagement();
    ASSERT_EQ(store.openManageData(kPartition), 0);
    log.clear();
  }

  // A chunk of channel `ch` with so many bytes free in its areas.
  void occupy(short chunk, signed char ch, uint32_t streamFree = kStreamSize,
              uint32_t pictureFree = kPictureSize) {
    store.setChType(chunk, ch, 0);
    store.setFree(chunk, kStreamSize - streamFree, 1);
    store.setFree(chunk, kPictureSize - pictureFree, 0);
  }

  short choose(unsigned long need, signed char ch) {
    short chosen = -9;
    printed = printedBy([&] { chosen = store.firstAvailableChunk(need, ch, kType); });
    return chosen;
  }

  Rows rows;
  std::optional<CardImage> card;
  SyslogCapture log;
  StreamStore store;
  std::string printed;
};

TEST_F(ChunkChoiceTest, EmptyTableStartsAfterChunkZero) {
  use(4);
  EXPECT_EQ(choose(1, 2), 1);
  EXPECT_EQ(printed, "Found nonused chunk = 1 for ch(2) type(6)---");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ChunkChoiceTest, ChunkZeroIsVisitedLastWithAnEmptyTable) {
  use(4);
  for (short chunk : {short{1}, short{2}, short{3}}) occupy(chunk, 5);
  EXPECT_EQ(choose(1, 2), 0);
  EXPECT_EQ(printed, "Found nonused chunk = 0 for ch(2) type(6)---");
}

TEST_F(ChunkChoiceTest, ChunkOfTheNewestStreamComesFirst) {
  use(4);
  rows.add(1, "0");
  rows.add(7, "2");
  rows.add(3, "1");
  occupy(2, 2, 1000);
  EXPECT_EQ(choose(1000, 2), 2);
  EXPECT_EQ(printed, "Found available chunk = 2 for ch(2) type(6)---");
}

TEST_F(ChunkChoiceTest, UnusedChunkAfterTheNewestComesNext) {
  use(4);
  rows.add(1, "2");
  occupy(2, 2, 999);  // no longer has room
  occupy(3, 2);       // has room, but an unused one is preferred
  EXPECT_EQ(choose(1000, 2), 0);
  EXPECT_EQ(printed, "Found nonused chunk = 0 for ch(2) type(6)---");
}

TEST_F(ChunkChoiceTest, NewestChunkOfAnotherChannelIsOnlyTheStart) {
  use(4);
  rows.add(1, "2");
  occupy(2, 1);
  EXPECT_EQ(choose(1, 2), 3);
  EXPECT_EQ(printed, "Found nonused chunk = 3 for ch(2) type(6)---");
}

TEST_F(ChunkChoiceTest, ChunkOfTheSameChannelComesLast) {
  use(4);
  rows.add(1, "2");
  occupy(0, 2, 1000);
  occupy(1, 2);
  occupy(2, 1);
  occupy(3, 1);
  EXPECT_EQ(choose(1000, 2), 0);
  EXPECT_EQ(printed, "Found available chunk = 0 for ch(2) type(6)---");
  EXPECT_EQ(choose(1001, 2), 1);
}

TEST_F(ChunkChoiceTest, NoChunkWithRoomIsMinusOne) {
  use(4);
  for (short chunk = 0; chunk < 4; ++chunk) occupy(chunk, 2, 999);
  EXPECT_EQ(choose(1000, 2), -1);
  EXPECT_EQ(printed, "");
  EXPECT_EQ(choose(999, 3), -1);
}

TEST_F(ChunkChoiceTest, MoreThan32PictureBytesMustStayFreeInEveryCase) {
  use(2);
  rows.add(1, "0");
  occupy(0, 2, kStreamSize, 32);
  occupy(1, -1, kStreamSize, 32);  // not used, but its picture area is full
  EXPECT_EQ(choose(1, 2), -1);
  occupy(0, 2, kStreamSize, 33);
  EXPECT_EQ(choose(1, 2), 0);
  occupy(0, 2, kStreamSize, 32);
  occupy(1, -1, kStreamSize, 33);
  EXPECT_EQ(choose(1, 2), 1);
  occupy(1, 2, kStreamSize, 33);
  EXPECT_EQ(choose(1, 2), 1);
  EXPECT_EQ(printed, "Found available chunk = 1 for ch(2) type(6)---");
}

TEST_F(ChunkChoiceTest, StreamSpaceOfAnUnusedChunkIsNotExamined) {
  use(2);
  occupy(1, -1, 10);
  EXPECT_EQ(choose(1000, 2), 1);
}

TEST_F(ChunkChoiceTest, OneChunkIsVisitedByBothPasses) {
  use(1);
  EXPECT_EQ(choose(1, 2), 0);
  EXPECT_EQ(printed, "Found nonused chunk = 0 for ch(2) type(6)---");
  occupy(0, 2, 500);
  EXPECT_EQ(choose(500, 2), 0);
  EXPECT_EQ(printed, "Found available chunk = 0 for ch(2) type(6)---");
  EXPECT_EQ(choose(501, 2), -1);
}

TEST_F(ChunkChoiceTest, NoChunksGiveMinusOne) {
  EXPECT_EQ(choose(0, 2), -1);  // never opened
  use(2);
  store.closeManageData();
  EXPECT_EQ(choose(0, 2), -1);
  EXPECT_EQ(printed, "");
}

TEST_F(ChunkChoiceTest, ANewestChunkThatTheCardDoesNotHaveCountsAsNone) {
  for (const char* chunk : {"4", "65536", "65538", "4294967295", "-1"}) {
    store.closeManageData();
    card.reset();
    use(4);
    rows.drop();
    Rows fresh;
    fresh.add(1, chunk);
    EXPECT_EQ(choose(1, 2), 1) << chunk;
  }
}

TEST_F(ChunkChoiceTest, FailedQueryStartsAfterChunkZero) {
  use(3);
  rows.add(1, "1");
  rows.drop();
  occupy(2, 2);
  EXPECT_EQ(choose(1, 2), 1);
  EXPECT_EQ(printed, "Found nonused chunk = 1 for ch(2) type(6)---");
  const std::string sql = "SELECT chunkID FROM STREAM ORDER BY streamID DESC LIMIT 1";
  const std::vector<LogLine> attempt = {{LOG_ERR, "SQLite Err no such table: STREAM"},
                                        {LOG_ERR, "setSql() errorSQL = (" + sql + ")"},
                                        {LOG_WARNING, " error [no such table: STREAM] SQL=" + sql}};
  std::vector<LogLine> expected = attempt;
  expected.insert(expected.end(), attempt.begin(), attempt.end());
  expected.push_back({LOG_ERR, " firstAvailableChunk DB select error"});
  EXPECT_EQ(log.lines(), expected);
}

TEST_F(ChunkChoiceTest, NeedIsCutTo32Bits) {
  if (sizeof(unsigned long) == 4) GTEST_SKIP() << "an unsigned long has 32 bits here";
  use(1);
  occupy(0, 2, 500);
  EXPECT_EQ(choose(static_cast<unsigned long>(0x1000001F4ull), 2), 0);
}

TEST_F(ChunkChoiceTest, TypeTakesNoPartInTheChoice) {
  use(2);
  rows.add(1, "1");
  occupy(1, 2);
  store.setChType(1, 2, 44);
  EXPECT_EQ(choose(1, 2), 1);
}

}  // namespace
}  // namespace tarn_test
