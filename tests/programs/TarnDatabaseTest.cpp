// Commands that read the recorder's database, when there is none, another, or a damaged one: never
// an empty list that looks like the truth.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::HasSubstr;
using ::testing::StartsWith;

ShellResult tarn(const std::string& arguments) {
  return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments);
}

class TarnDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override { media_ = tarn("record --help").exitCode == 0; }

  // A database of some thousand rows, as a recorder has it.
  static void makeDatabase() {
    ASSERT_EQ(shell(TARN_BIN_DIR "/dbsetup init").exitCode, 0);
    ASSERT_EQ(
        shell("sqlite3 /tmp/DB.dat \"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n "
              "WHERE i<3000) INSERT INTO EVENT SELECT i,1,0,1000000000+i,1000000001+i,0,0,i*32 "
              "FROM n; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<3000) "
              "INSERT INTO STREAM SELECT i,1,0,0,1,0,0,0,0,1000000000+i,1000000001+i,0,0,i*64 "
              "FROM n;\"")
            .exitCode,
        0);
  }

  // Statements that fail are tried again after half a second, so a few of them have to do.
  static void expectError(const std::string& command, const std::string& text) {
    const ShellResult result = tarn(command + " 2>&1 >/dev/null");
    EXPECT_EQ(result.exitCode, 1) << command;
    EXPECT_THAT(result.output,
                StartsWith(command.find("--json") != std::string::npos ? "{\"error\":" : "tarn: "))
        << command;
    EXPECT_THAT(result.output, HasSubstr(text)) << command;
  }
  void expectExportError(const std::string& what, const std::string& text) const {
    if (media_) expectError("export " + what + " -o /tmp/out.h264", text);
    EXPECT_NE(access("/tmp/out.h264", F_OK), 0);
  }

  // JSON is whole or not there at all.
  static void expectNoJson(const std::string& what) {
    EXPECT_EQ(tarn("list --json " + what + " 2>/dev/null").output, "");
  }

  bool media_ = false;
};

TEST_F(TarnDatabaseTest, ThatIsMissingIsAnErrorAndIsNotMade) {
  for (const char* command : {"list", "list events", "list events --from 2001-01-01T00:00:00"}) {
    expectError(command, "there is no database /tmp/DB.dat");
  }
  for (const char* what : {"--stream 1", "--event 1", "--from 2001-01-01T00:00:00"}) {
    expectExportError(what, "there is no database /tmp/DB.dat");
  }
  expectNoJson("streams");
  EXPECT_NE(access("/tmp/DB.dat", F_OK), 0);
}

TEST_F(TarnDatabaseTest, ThatIsAnotherFileIsAnError) {
  for (const char* other : {"echo noise >/tmp/DB.dat", ": >/tmp/DB.dat", "mkdir /tmp/DB.dat"}) {
    SCOPED_TRACE(other);
    ASSERT_EQ(shell(std::string("rm -f /tmp/DB.dat; ") + other).exitCode, 0);
    expectError("list", "/tmp/DB.dat");
  }
  expectExportError("--event 1", "/tmp/DB.dat");
  expectNoJson("events");
}

TEST_F(TarnDatabaseTest, ThatIsDamagedBehindItsTablesIsAnError) {
  constexpr char kUnread[] =
      "the database /tmp/DB.dat cannot be read; start the recorder again to rebuild it";
  makeDatabase();
  ASSERT_EQ(tarn("list --json").exitCode, 0);
  // Its first pages, with the shape of the tables, stay.
  ASSERT_EQ(shell("dd if=/dev/zero of=/tmp/DB.dat bs=4096 seek=8 conv=notrunc "
                  "count=$(($(stat -c %s /tmp/DB.dat) / 4096 - 8))")
                .exitCode,
            0);
  expectError("list", kUnread);
  expectError("list events --json", kUnread);
  expectExportError("--stream 2000", kUnread);
}

TEST_F(TarnDatabaseTest, ThatWasCutShortIsAnError) {
  makeDatabase();
  ASSERT_EQ(shell("truncate -s 40K /tmp/DB.dat").exitCode, 0);
  expectError("list", "/tmp/DB.dat");
}

TEST_F(TarnDatabaseTest, ThatIsWholeHasWhatIsAskedForOrNot) {
  makeDatabase();
  EXPECT_EQ(tarn("list | wc -l").output, "3001\n");
  EXPECT_EQ(tarn("list events | wc -l").output, "3001\n");
  if (!media_) return;
  EXPECT_EQ(tarn("export --stream 9999 -o /tmp/out.h264").output,
            "tarn: there is no recording 9999\n");
  EXPECT_EQ(tarn("export --event 0 -o /tmp/out.h264").output, "tarn: there is no event 0\n");
}

// What the rows point at cannot be what they mean.
TEST_F(TarnDatabaseTest, OfACardThatContradictsItselfIsNotListed) {
  makeDatabase();
  ASSERT_EQ(tarn("format /dev/sdblk0p1 --size 64M").exitCode, 0);
  EXPECT_EQ(tarn("list | wc -l").output, "3001\n");
  // The first is in the second copy of the info file, the second in the root directory.
  ASSERT_EQ(shell("printf X | dd of=/dev/sdblk0p1 bs=1 conv=notrunc seek=$(($(grep -abo CKST0000 "
                  "/dev/sdblk0p1 | sed -n 2p | cut -d: -f1) + 3))")
                .exitCode,
            0);
  expectError("list", "CKST0000");
  expectError("list --json", "CKST0000");
  // A card that is away tells nothing against its rows.
  ASSERT_EQ(shell("rm /dev/sdblk0p1").exitCode, 0);
  EXPECT_EQ(tarn("list | wc -l").output, "3001\n");
}

}  // namespace
}  // namespace tarn_test
