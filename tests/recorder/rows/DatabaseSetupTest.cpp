#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "db/CApiDb.h"
#include "recorder/rows/DatabaseSetup.h"

namespace {

using tarn::DatabaseSetup;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr char kPath[] = "/tmp/DB.dat";

std::vector<std::string> rowsOf(const std::string& sql) {
  sqlite3* db = nullptr;
  std::vector<std::string> rows;
  const auto addRow = [](void* arg, int count, char** values, char**) {
    std::string row;
    for (int i = 0; i < count; ++i) {
      row += (i > 0 ? "|" : "") + std::string(values[i] != nullptr ? values[i] : "NULL");
    }
    static_cast<std::vector<std::string>*>(arg)->push_back(row);
    return 0;
  };
  if (sqlite3_open(kPath, &db) != SQLITE_OK ||
      sqlite3_exec(db, sql.c_str(), addRow, &rows, nullptr) != SQLITE_OK) {
    rows.push_back(std::string("error: ") + sqlite3_errmsg(db));
  }
  sqlite3_close(db);
  return rows;
}

std::vector<std::string> filesInTmp() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
    const std::string name = entry.path().filename();
    if (name.rfind("DB.dat", 0) == 0) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

void write(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

class DatabaseSetupTest : public testing::Test {
 protected:
  bool create() { return DatabaseSetup::createEmpty(kPath, &error_); }
  bool check() { return DatabaseSetup::check(kPath, &error_); }
  bool seed(uint32_t event, uint32_t stream) {
    return DatabaseSetup::seedKeys(kPath, event, stream, &error_);
  }

  std::string error_;
};

TEST_F(DatabaseSetupTest, DefaultPathIsTheRecordersDatabase) {
  EXPECT_STREQ("/tmp/DB.dat", DatabaseSetup::defaultPath());
}

TEST_F(DatabaseSetupTest, NewDatabaseHasBothTablesInRecordOrderWithIntegerColumns) {
  ASSERT_TRUE(create()) << error_;
  EXPECT_THAT(rowsOf("SELECT cid, name, type, pk FROM pragma_table_info( 'EVENT' )"),
              ElementsAre("0|eventID|INTEGER|1", "1|extTrg|INTEGER|0", "2|preSec|INTEGER|0",
                          "3|startDate|INTEGER|0", "4|endDate|INTEGER|0", "5|startMSec|INTEGER|0",
                          "6|endMSec|INTEGER|0", "7|backOffset|INTEGER|0"));
  EXPECT_THAT(rowsOf("SELECT cid, name, type, pk FROM pragma_table_info( 'STREAM' )"),
              ElementsAre("0|streamID|INTEGER|1", "1|inTrg|INTEGER|0", "2|frameSet|INTEGER|0",
                          "3|bitrateSet|INTEGER|0", "4|recSize|INTEGER|0", "5|chunkID|INTEGER|0",
                          "6|chunkOffset|INTEGER|0", "7|chunkSize|INTEGER|0", "8|status|INTEGER|0",
                          "9|startDate|INTEGER|0", "10|endDate|INTEGER|0", "11|startMSec|INTEGER|0",
                          "12|endMSec|INTEGER|0", "13|backOffset|INTEGER|0"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM EVENT"), ElementsAre("0"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM STREAM"), ElementsAre("0"));
  EXPECT_THAT(rowsOf("PRAGMA integrity_check"), ElementsAre("ok"));
}

TEST_F(DatabaseSetupTest, NewDatabaseHasTheIndexesThatPayAndNoOthers) {
  ASSERT_TRUE(create()) << error_;
  EXPECT_THAT(
      rowsOf("SELECT m.tbl_name, i.name FROM sqlite_master m, pragma_index_info( m.name ) i WHERE "
             "m.type = 'index' ORDER BY 1, 2"),
      ElementsAre("EVENT|backOffset", "EVENT|startDate", "STREAM|backOffset", "STREAM|chunkID",
                  "STREAM|startDate"));
}

TEST_F(DatabaseSetupTest, NewDatabaseIsOneFileThatEveryProcessMayRead) {
  ASSERT_TRUE(create()) << error_;
  EXPECT_THAT(filesInTmp(), ElementsAre("DB.dat"));
  struct stat info;
  ASSERT_EQ(0, stat(kPath, &info));
  EXPECT_EQ(0644u, info.st_mode & 0777u);
  // A copy of this one file is a copy of the database: no write-ahead log beside it.
  EXPECT_THAT(rowsOf("PRAGMA journal_mode"), ElementsAre("delete"));
}

TEST_F(DatabaseSetupTest, NewDatabaseReplacesAFilledOne) {
  ASSERT_TRUE(create()) << error_;
  rowsOf("INSERT INTO EVENT( extTrg ) VALUES( 1 )");
  ASSERT_TRUE(create()) << error_;
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM EVENT"), ElementsAre("0"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM sqlite_sequence"), ElementsAre("0"));
}

TEST_F(DatabaseSetupTest, StaleJournalOfAnOldDatabaseIsNotPlayedBackIntoTheNewOne) {
  // A transaction that a killed process left: the file holds pages that the journal takes back.
  ASSERT_TRUE(create()) << error_;
  const pid_t pid = fork();
  if (pid == 0) {
    sqlite3* db = nullptr;
    sqlite3_open(kPath, &db);
    sqlite3_exec(db,
                 "PRAGMA cache_size = 5; PRAGMA cache_spill = 1; BEGIN; WITH RECURSIVE n(i) AS ( "
                 "SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 20000 ) INSERT INTO EVENT( "
                 "extTrg, backOffset ) SELECT i, i FROM n",
                 nullptr, nullptr, nullptr);
    _exit(0);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  ASSERT_EQ(0, access("/tmp/DB.dat-journal", F_OK));
  ASSERT_TRUE(create()) << error_;
  EXPECT_THAT(filesInTmp(), ElementsAre("DB.dat"));
  EXPECT_TRUE(check()) << error_;
  EXPECT_THAT(rowsOf("PRAGMA integrity_check"), ElementsAre("ok"));
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM EVENT"), ElementsAre("0"));
}

TEST_F(DatabaseSetupTest, CreationThatFailsLeavesNoOldDatabaseBehind) {
  ASSERT_TRUE(create()) << error_;
  // The journal's name is taken by a folder that holds a file: it cannot be removed.
  ASSERT_EQ(0, mkdir("/tmp/DB.dat-journal", 0755));
  write("/tmp/DB.dat-journal/file", "x");
  EXPECT_FALSE(create());
  EXPECT_THAT(error_, HasSubstr("cannot remove /tmp/DB.dat-journal"));
  EXPECT_FALSE(check());
  EXPECT_THAT(error_, HasSubstr("no database at /tmp/DB.dat"));
}

TEST_F(DatabaseSetupTest, CreationThatCannotReplaceWhatIsThereFails) {
  ASSERT_EQ(0, mkdir(kPath, 0755));
  EXPECT_FALSE(create());
  EXPECT_THAT(error_, HasSubstr("cannot remove /tmp/DB.dat"));
  EXPECT_FALSE(check());
  EXPECT_THAT(error_, HasSubstr("is not a regular file"));
  EXPECT_FALSE(DatabaseSetup::createEmpty("/tmp/none/DB.dat", &error_));
  EXPECT_THAT(error_, HasSubstr("cannot create /tmp/none/DB.dat"));
}

TEST_F(DatabaseSetupTest, NameThatTheGatewayWouldCutIsRefused) {
  const std::string path = "/tmp/" + std::string(123, 'a');
  EXPECT_FALSE(DatabaseSetup::createEmpty(path.c_str(), &error_));
  EXPECT_FALSE(DatabaseSetup::check(path.c_str(), &error_));
  EXPECT_FALSE(DatabaseSetup::seedKeys(path.c_str(), 1, 1, &error_));
  EXPECT_THAT(error_, HasSubstr("name longer than 127 characters"));
  const std::string longest = path.substr(0, 127);
  EXPECT_TRUE(DatabaseSetup::createEmpty(longest.c_str(), &error_)) << error_;
  EXPECT_TRUE(DatabaseSetup::check(longest.c_str(), &error_)) << error_;
}

TEST_F(DatabaseSetupTest, ReaderNeverSeesHalfADatabase) {
  ASSERT_TRUE(create()) << error_;
  constexpr int kWhole = 9;
  std::atomic<bool> stop{false};
  std::atomic<int> looks{0}, halves{0};
  std::thread reader([&] {
    while (!stop) {
      // Opened read-only: it must not make a file itself.
      sqlite3* db = nullptr;
      int tables = 2;
      if (sqlite3_open_v2(kPath, &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_exec(
            db, "SELECT COUNT(*) FROM sqlite_master",
            [](void* arg, int, char** values, char**) {
              *static_cast<int*>(arg) = atoi(values[0]);
              return 0;
            },
            &tables, nullptr);
        // Two tables, five indexes, the key counters and what the planner is told.
        if (tables != 2 && tables != kWhole) ++halves;
        if (tables == kWhole) ++looks;
      }
      sqlite3_close(db);
    }
  });
  for (int i = 0; i < 50 || looks < 20; ++i) ASSERT_TRUE(create()) << error_;
  stop = true;
  reader.join();
  EXPECT_EQ(0, halves);
}

TEST_F(DatabaseSetupTest, FilesChangePlacesUnderTheDatabaseLock) {
  CApiDb holder;
  ASSERT_EQ(0u, holder.lockSem());
  const pid_t pid = fork();
  if (pid == 0) {
    std::string error;
    _exit(DatabaseSetup::createEmpty(kPath, &error) ? 0 : 1);
  }
  usleep(100000);
  EXPECT_THAT(filesInTmp(), IsEmpty());
  int status = 0;
  EXPECT_EQ(0, waitpid(pid, &status, WNOHANG));
  EXPECT_EQ(0u, holder.unlockSem());
  EXPECT_EQ(pid, waitpid(pid, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_TRUE(check()) << error_;
}

TEST_F(DatabaseSetupTest, CheckAcceptsAFilledDatabaseAndChangesNothing) {
  ASSERT_TRUE(create()) << error_;
  rowsOf("INSERT INTO EVENT( extTrg ) VALUES( 1 )");
  EXPECT_TRUE(check()) << error_;
  EXPECT_THAT(rowsOf("SELECT COUNT(*) FROM EVENT"), ElementsAre("1"));
}

TEST_F(DatabaseSetupTest, CheckDoesNotMakeTheFileThatIsMissing) {
  EXPECT_FALSE(check());
  EXPECT_EQ("no database at /tmp/DB.dat: No such file or directory", error_);
  EXPECT_THAT(filesInTmp(), IsEmpty());
}

TEST_F(DatabaseSetupTest, CheckRefusesAnEmptyFileAndOneThatIsNoDatabase) {
  write(kPath, "");
  EXPECT_FALSE(check());
  EXPECT_EQ("table EVENT is missing or wrong in /tmp/DB.dat", error_);
  write(kPath, std::string(8192, 'x'));
  EXPECT_FALSE(check());
  EXPECT_EQ("table EVENT is missing or wrong in /tmp/DB.dat", error_);
}

TEST_F(DatabaseSetupTest, CheckRefusesAMissingTableAndEveryOtherShape) {
  constexpr char kEventMessage[] = "table EVENT is missing or wrong in /tmp/DB.dat";
  constexpr char kStreamMessage[] = "table STREAM is missing or wrong in /tmp/DB.dat";
  const struct {
    const char* change;
    const char* message;
  } cases[] = {
      {"DROP TABLE EVENT", kEventMessage},
      {"DROP TABLE STREAM", kStreamMessage},
      {"ALTER TABLE EVENT ADD COLUMN more INTEGER", kEventMessage},
      {"ALTER TABLE STREAM RENAME COLUMN status TO state", kStreamMessage},
      {"DROP TABLE EVENT; CREATE TABLE EVENT( eventID INTEGER PRIMARY KEY, extTrg INTEGER, preSec "
       "INTEGER, startDate INTEGER, endDate INTEGER, startMSec INTEGER, endMSec INTEGER, "
       "backOffset INTEGER )",
       kEventMessage},  // keys would be used again
      {"DROP TABLE EVENT; CREATE TABLE EVENT( eventID INTEGER PRIMARY KEY AUTOINCREMENT, extTrg "
       "TEXT, preSec INTEGER, startDate INTEGER, endDate INTEGER, startMSec INTEGER, endMSec "
       "INTEGER, backOffset INTEGER )",
       kEventMessage},  // text would be compared as text
      {"DROP TABLE EVENT; CREATE TABLE EVENT( eventID INTEGER PRIMARY KEY AUTOINCREMENT, preSec "
       "INTEGER, extTrg INTEGER, startDate INTEGER, endDate INTEGER, startMSec INTEGER, endMSec "
       "INTEGER, backOffset INTEGER )",
       kEventMessage},  // another order
  };
  for (const auto& one : cases) {
    ASSERT_TRUE(create()) << error_;
    ASSERT_THAT(rowsOf(one.change), IsEmpty());
    EXPECT_FALSE(check()) << one.change;
    EXPECT_EQ(one.message, error_);
  }
}

TEST_F(DatabaseSetupTest, SeededKeysOfEmptyTablesGoOnBehindTheGreatest) {
  ASSERT_TRUE(create()) << error_;
  ASSERT_TRUE(seed(41, 100)) << error_;
  rowsOf("INSERT INTO EVENT( extTrg ) VALUES( 1 )");
  rowsOf("INSERT INTO STREAM( inTrg ) VALUES( 1 )");
  EXPECT_THAT(rowsOf("SELECT eventID FROM EVENT"), ElementsAre("42"));
  EXPECT_THAT(rowsOf("SELECT streamID FROM STREAM"), ElementsAre("101"));
}

TEST_F(DatabaseSetupTest, SeededKeysOfFilledTablesOnlyRise) {
  ASSERT_TRUE(create()) << error_;
  rowsOf("INSERT INTO EVENT( eventID ) VALUES( 50 )");
  rowsOf("INSERT INTO STREAM( streamID ) VALUES( 5 )");
  ASSERT_TRUE(seed(41, 7)) << error_;
  ASSERT_TRUE(seed(0, 0)) << error_;
  EXPECT_THAT(rowsOf("SELECT name, seq FROM sqlite_sequence ORDER BY 1"),
              ElementsAre("EVENT|50", "STREAM|7"));
  rowsOf("DELETE FROM EVENT; DELETE FROM STREAM");
  rowsOf("INSERT INTO EVENT( extTrg ) VALUES( 1 ); INSERT INTO STREAM( inTrg ) VALUES( 1 )");
  EXPECT_THAT(rowsOf("SELECT eventID FROM EVENT"), ElementsAre("51"));
  EXPECT_THAT(rowsOf("SELECT streamID FROM STREAM"), ElementsAre("8"));
}

TEST_F(DatabaseSetupTest, SeedTakesTheWholeRangeOfKeys) {
  ASSERT_TRUE(create()) << error_;
  ASSERT_TRUE(seed(4294967295u, 4294967294u)) << error_;
  EXPECT_THAT(rowsOf("SELECT name, seq FROM sqlite_sequence ORDER BY 1"),
              ElementsAre("EVENT|4294967295", "STREAM|4294967294"));
}

TEST_F(DatabaseSetupTest, SeedWithoutADatabaseFailsAndMakesNone) {
  EXPECT_FALSE(seed(1, 1));
  EXPECT_THAT(error_, HasSubstr("no database at /tmp/DB.dat"));
  EXPECT_THAT(filesInTmp(), IsEmpty());
  write(kPath, "");
  EXPECT_FALSE(seed(1, 1));
  EXPECT_EQ("cannot set the key counter of EVENT", error_);
}

}  // namespace
