#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <nlohmann/json.hpp>

#include "support/Shell.h"

namespace {

using nlohmann::json;
using tarn_test::shell;
using tarn_test::ShellResult;
using ::testing::HasSubstr;

ShellResult tarn(const std::string& arguments) {
  return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments);
}

// A program in a view, as a line of shell.
ShellResult inView(const std::string& line, const std::string& card = "/tmp/card") {
  return tarn("--card " + card + " run -- sh -c '" + line + "'");
}

class TarnRunTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    ASSERT_EQ(tarn("format /tmp/card --size 34M").exitCode, 0);
  }

  // Rows as a recorder's program would have them; journaled changes belong to other tests.
  static std::string insertRows() {
    return "sqlite3 /tmp/DB.dat \"INSERT INTO STREAM VALUES(1,4,20,0,50,2,0,1632,65536,"
           "1000000000,1000000010,250,750,0);"
           "INSERT INTO STREAM VALUES(2,5,20,0,0,3,0,0,1,1000000020,0,0,0,64);"
           "INSERT INTO EVENT VALUES(1,7,5,1000000003,1000000008,0,0,0);"
           "INSERT INTO EVENT VALUES(2,9,0,1000000021,1000000022,5,6,32);\"";
  }

  // On a fresh card: these rows are in no journal, and the next start would say so.
  static json listed(const std::string& arguments) {
    EXPECT_EQ(tarn("format /tmp/card --size 34M").exitCode, 0);
    const ShellResult result =
        inView(insertRows() + "; " TARN_BIN_DIR "/tarn list --json " + arguments);
    EXPECT_EQ(result.exitCode, 0) << result.output;
    return json::parse(result.output, nullptr, false);
  }
};

TEST(TarnVersion, GoesToStandardOutput) {
  const ShellResult result = shell(TARN_BIN_DIR "/tarn --version 2>/dev/null");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, ::testing::MatchesRegex("tarn [0-9.]+\n"));
}

TEST_F(TarnRunTest, TheViewHasTheCardTheDatabaseAndTheServer) {
  const ShellResult result = inView(
      "cmp -n 512 /dev/sdblk0p1 /tmp/.outside/card && test -s /tmp/DB.dat && "
      "test -S /tmp/unix-sock-tarn-server && test -x /usr/local/bin/dbsetup && echo all there");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "all there\n");
}

TEST_F(TarnRunTest, NothingOfTheViewIsLeftOutside) {
  ASSERT_EQ(inView("echo x >/tmp/inside; ipcmk -S 1 >/dev/null; true").exitCode, 0);
  EXPECT_NE(access("/tmp/inside", F_OK), 0);
  EXPECT_NE(access("/tmp/DB.dat", F_OK), 0);
  EXPECT_NE(access("/tmp/unix-sock-tarn-server", F_OK), 0);
  EXPECT_NE(access("/dev/sdblk0p1", F_OK), 0);
  EXPECT_EQ(shell("ipcs -s | grep -c 0x").output, "0\n");
}

TEST_F(TarnRunTest, TheCommandsOwnExitCodeIsPassedOn) {
  EXPECT_EQ(inView("exit 7").exitCode, 7);
  EXPECT_EQ(inView("kill -9 $$").exitCode, 137);
  const ShellResult missing = tarn("--card /tmp/card run -- no-such-program");
  EXPECT_EQ(missing.exitCode, 127);
  EXPECT_EQ(missing.output, "tarn: cannot run no-such-program: No such file or directory\n");
  EXPECT_EQ(tarn("--card /tmp/card run -- /etc/passwd").exitCode, 126);
}

TEST_F(TarnRunTest, InputOutputAndArgumentsPassThroughUntouched) {
  EXPECT_EQ(shell("echo in | " TARN_BIN_DIR "/tarn --card /tmp/card run -- cat").output, "in\n");
  EXPECT_EQ(tarn("--card /tmp/card run -- printf '%s|' 'a b' --json -x '' \\$z").output,
            "a b|--json|-x||$z|");
  EXPECT_EQ(inView("echo err >&2; echo out").output, "err\nout\n");
}

TEST_F(TarnRunTest, FilesBelowTmpAreReached) {
  ASSERT_EQ(shell("mkdir -p /tmp/work/in && echo text >/tmp/work/in/file && "
                  "printf '#!/bin/sh\\ncat /tmp/work/in/file; pwd\\n' >/tmp/work/script && "
                  "chmod +x /tmp/work/script && cp /tmp/card /tmp/work/card2")
                .exitCode,
            0);
  EXPECT_EQ(tarn("--card /tmp/card run -- cat /tmp/work/in/file").output, "text\n");
  EXPECT_EQ(tarn("--card /tmp/card run -- /tmp/work/script").output, "text\n/\n");
  EXPECT_EQ(shell("cd /tmp/work && " TARN_BIN_DIR "/tarn --card card2 run -- ./script").output,
            "text\n/tmp/work\n");
  EXPECT_EQ(
      shell("cd /tmp/work && " TARN_BIN_DIR "/tarn --card card2 run -- sh -c 'echo new >made' "
            "&& cat made")
          .output,
      "new\n");
  // In /tmp itself the view sees it under another name, and the working directory follows.
  EXPECT_EQ(shell("cd /tmp && " TARN_BIN_DIR "/tarn --card card run -- sh -c 'echo more >made' && "
                  "cat made")
                .output,
            "more\n");
}

TEST_F(TarnRunTest, ArgumentsTooLongToBePathsAreArguments) {
  const std::string word(300, 'x');
  EXPECT_EQ(tarn("--card /tmp/card run -- echo " + word).output, word + "\n");
  EXPECT_EQ(tarn("--card /tmp/card run -- " + word).exitCode, 126);
  const ShellResult far = tarn("--card /tmp/card run -- ./" + word + "/" + word);
  EXPECT_EQ(far.exitCode, 126);
  EXPECT_THAT(far.output, testing::EndsWith(": File name too long\n"));
  const ShellResult none = tarn("--card " + word + " list");
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_EQ(none.output, "tarn: cannot open " + word + ": File name too long\n");
}

TEST_F(TarnRunTest, WorksFromBelowDev) {
  ASSERT_EQ(shell("mkdir -p /dev/shm/work && cp /tmp/card /dev/shm/work/card").exitCode, 0);
  EXPECT_EQ(shell("cd /dev/shm/work && " TARN_BIN_DIR
                  "/tarn --card card run -- sh -c 'pwd; echo new >made' && cat made")
                .output,
            "/dev/shm/work\nnew\n");
  EXPECT_EQ(shell("cd /dev/shm && " TARN_BIN_DIR "/tarn --card work/card run -- ls work").output,
            "card\nmade\n");
  EXPECT_EQ(tarn("--card /dev/shm/work/card run -- cat /dev/shm/work/made").output, "new\n");
  EXPECT_EQ(shell("cd /dev && " TARN_BIN_DIR "/tarn --card shm/work/card run -- sh -c "
                  "'pwd; test -e /dev/sdblk0p1 && echo x >/dev/null'")
                .output,
            "/dev\n");
}

TEST_F(TarnRunTest, ChangesStayOnTheCardAndItStaysAValidVolume) {
  ASSERT_EQ(inView("printf stream | dd of=/dev/sdblk0p1 bs=512 seek=40000 conv=notrunc").exitCode,
            0);
  EXPECT_EQ(shell("dd if=/tmp/card bs=512 skip=40000 count=1 2>/dev/null | head -c 6").output,
            "stream");
  EXPECT_EQ(shell("fsck.fat -n /tmp/card").exitCode, 0);
}

TEST_F(TarnRunTest, ASecondToolOnTheSameCardIsRefused) {
  const ShellResult result =
      inView("exec " TARN_BIN_DIR "/tarn --card /tmp/.outside/card run -- echo never");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "tarn: /tmp/card is in use by another program of the recorder\n");
  EXPECT_EQ(inView("echo free again").output, "free again\n");
}

TEST_F(TarnRunTest, WhatIsNotACardIsRefused) {
  ASSERT_EQ(shell("truncate -s 40M /tmp/blank").exitCode, 0);
  const ShellResult blank = inView("echo never", "/tmp/blank");
  EXPECT_EQ(blank.exitCode, 1);
  EXPECT_THAT(blank.output, HasSubstr("tarn: the recorder could not be started up on this card: "));
  EXPECT_THAT(blank.output, Not(HasSubstr("never")));
  const ShellResult none = inView("echo never", "/tmp/none");
  EXPECT_EQ(none.exitCode, 1);
  EXPECT_EQ(none.output, "tarn: cannot open /tmp/none: No such file or directory\n");
}

TEST_F(TarnRunTest, AStopSignalReachesTheCommandAndAllEndsInOrder) {
  for (const char* name : {"TERM", "HUP", "INT"}) {
    // The command notes the signal; the server's socket is gone only after an orderly end.
    const ShellResult result =
        shell(std::string(
                  "cd /tmp; rm -f noted; " TARN_BIN_DIR
                  "/tarn --card card run -- sh -c 'trap \"echo yes >noted; exit 5\" TERM HUP INT; "
                  "echo up >started; while :; do sleep 0.02; done' & "
                  "while ! test -e started; do sleep 0.02; done; rm started; kill -") +
              name + " $!; wait $!");
    EXPECT_EQ(result.exitCode, 5) << name << result.output;
    EXPECT_EQ(shell("cat /tmp/noted").output, "yes\n") << name;
    EXPECT_EQ(inView("echo free").output, "free\n") << name;
  }
}

TEST_F(TarnRunTest, AToolThatIsKilledTakesTheViewWithItAndFreesTheCard) {
  shell("cd /tmp; " TARN_BIN_DIR
        "/tarn --card card run -- sh -c 'echo up >started; exec sleep 60' & "
        "while ! test -e started; do sleep 0.02; done; kill -9 $!");
  ShellResult next{1, ""};
  for (int i = 0; i < 200 && next.exitCode != 0; ++i) {
    next = inView("echo free");
    if (next.exitCode != 0) usleep(50000);
  }
  EXPECT_EQ(next.output, "free\n");
}

TEST_F(TarnRunTest, AServerThatDiesIsReported) {
  const ShellResult result = inView("kill -9 $(pgrep -P $PPID tarn-server); sleep 0.1; echo done");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output,
            "done\ntarn: the management server ended with code 137; what it had not saved is "
            "rebuilt from the card at the next start\n");
}

TEST_F(TarnRunTest, AServerThatSomebodyStoppedGoesOnToItsEnd) {
  const auto begin = std::chrono::steady_clock::now();
  const ShellResult result = inView("kill -STOP $(pgrep -P $PPID tarn-server); echo done");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "done\n");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << "of a minute";
}

// A leak checker at a server's end holds its threads, and waited for ever after a SIGCONT. Beside a
// copy of the tool stands a server that is slow to end and writes down whether it was told to go
// on.
TEST_F(TarnRunTest, AServerThatIsSlowToEndIsNotToldToGoOn) {
  ASSERT_EQ(
      shell("mkdir /tmp/tools && cp " TARN_BIN_DIR "/tarn " TARN_BIN_DIR "/dbsetup /tmp/tools")
          .exitCode,
      0);
  std::ofstream("/tmp/tools/tarn-server")
      << "#!/bin/bash\n"
         "trap 'touch /tmp/.outside/told' CONT; trap 'end=yes' TERM\n"
         "echo >&$2; eval \"exec $2>&-\"\n"
         "while [ -z \"$end\" ]; do sleep .05; done; sleep .7; touch /tmp/.outside/ended\n";
  ASSERT_EQ(chmod("/tmp/tools/tarn-server", 0755), 0);
  const ShellResult result = shell("/tmp/tools/tarn --card /tmp/card run -- echo done");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "done\n");
  EXPECT_EQ(access("/tmp/ended", F_OK), 0);
  EXPECT_NE(access("/tmp/told", F_OK), 0);
}

TEST_F(TarnRunTest, WithoutACardTheCommandRunsOnTheMachineItself) {
  EXPECT_EQ(tarn("run -- sh -c 'test -e /dev/sdblk0p1 || echo none; exit 3'").exitCode, 3);
  EXPECT_EQ(tarn("run -- echo x").output, "x\n");
}

TEST_F(TarnRunTest, AMissingSetUpCommandDoesNotChangeTheRealDirectory) {
  // In this test's view dbsetup is there; without one the directory is covered, entries and all.
  const std::string entries = shell("ls -A /usr/local/bin").output;
  ASSERT_EQ(inView("true").exitCode, 0);
  EXPECT_EQ(shell("ls -A /usr/local/bin").output, entries);
  const ShellResult covered = shell(
      "bwrap --bind / / --dev /dev --bind /tmp /tmp --tmpfs /usr/local/bin "
      "--symlink /bin/true /usr/local/bin/kept sh -c '" TARN_BIN_DIR
      "/tarn --card /tmp/card run -- sh -c \"ls /usr/local/bin; readlink /usr/local/bin/kept\"; "
      "ls /usr/local/bin'");
  EXPECT_EQ(covered.output, "dbsetup\nkept\n/bin/true\nkept\n");
}

TEST_F(TarnRunTest, ListWithoutADatabaseFailsInWords) {
  const ShellResult result = tarn("list");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output,
            "tarn: there is no database /tmp/DB.dat: the recorder has not been started; use --card "
            "CARD to look at a card without one\n");
  ASSERT_EQ(shell("echo noise >/tmp/DB.dat").exitCode, 0);
  EXPECT_EQ(tarn("list").exitCode, 1);
}

// Beside the tool lies no server here.
TEST_F(TarnRunTest, WhatOnlyReadsRowsStartsNoServer) {
  ASSERT_EQ(
      shell("mkdir /tmp/tools && cp " TARN_BIN_DIR "/tarn " TARN_BIN_DIR "/dbsetup /tmp/tools")
          .exitCode,
      0);
  const ShellResult run = shell("/tmp/tools/tarn --card /tmp/card run -- true");
  EXPECT_NE(run.exitCode, 0);
  EXPECT_THAT(run.output, HasSubstr("tarn-server is missing"));
  const ShellResult list = shell("/tmp/tools/tarn --card /tmp/card list");
  EXPECT_EQ(list.exitCode, 0) << list.output;
}

TEST_F(TarnRunTest, ListOfAFreshCardIsEmpty) {
  const ShellResult streams = tarn("--card /tmp/card list");
  EXPECT_EQ(streams.exitCode, 0);
  EXPECT_EQ(streams.output.find('\n'), streams.output.size() - 1) << "the heading alone";
  EXPECT_EQ(json::parse(tarn("--card /tmp/card list events --json").output),
            json::parse(R"({"schema": 1, "events": []})"));
  EXPECT_EQ(json::parse(tarn("--card /tmp/card list streams --json").output),
            json::parse(R"({"schema": 1, "streams": []})"));
}

TEST_F(TarnRunTest, ListsRowsByColumnNameWithIsoTimesBeside) {
  setenv("TZ", "Asia/Kolkata", 1);
  EXPECT_EQ(listed("streams"), json::parse(R"({"schema": 1, "streams": [
      {"streamID": 1, "inTrg": 4, "frameSet": 20, "bitrateSet": 0, "recSize": 50, "chunkID": 2,
       "chunkOffset": 0, "chunkSize": 1632, "status": 65536, "startDate": 1000000000,
       "endDate": 1000000010, "startMSec": 250, "endMSec": 750, "backOffset": 0,
       "start": "2001-09-09T07:16:40.250+05:30", "end": "2001-09-09T07:16:50.750+05:30",
       "channel": null, "kind": "video", "codec": "h264", "kept": false,
       "copyOf": null, "durationMs": 10500, "videoBytes": null},
      {"streamID": 2, "inTrg": 5, "frameSet": 20, "bitrateSet": 0, "recSize": 0, "chunkID": 3,
       "chunkOffset": 0, "chunkSize": 0, "status": 1, "startDate": 1000000020, "endDate": 0,
       "startMSec": 0, "endMSec": 0, "backOffset": 64,
       "start": "2001-09-09T07:17:00.000+05:30", "end": null,
       "channel": null, "kind": "video", "codec": "h264", "kept": false,
       "copyOf": null, "durationMs": null, "videoBytes": null}]})"));
  EXPECT_EQ(listed("events --trigger 9"), json::parse(R"({"schema": 1, "events": [
      {"eventID": 2, "extTrg": 9, "preSec": 0, "startDate": 1000000021, "endDate": 1000000022,
       "startMSec": 5, "endMSec": 6, "backOffset": 32, "kept": false,
       "start": "2001-09-09T07:17:01.005+05:30", "end": "2001-09-09T07:17:02.006+05:30"}]})"));
}

TEST_F(TarnRunTest, ListKeepsToThePeriodAndTheTrigger) {
  setenv("TZ", "UTC", 1);
  const auto ids = [](const json& list, const char* what, const char* key) {
    std::vector<int> found;
    for (const json& row : list[what]) found.push_back(row[key]);
    return found;
  };
  const auto streams = [&](const char* arguments) {
    return ids(listed(std::string("streams ") + arguments), "streams", "streamID");
  };
  const auto events = [&](const char* arguments) {
    return ids(listed(std::string("events ") + arguments), "events", "eventID");
  };
  using Ids = std::vector<int>;
  EXPECT_EQ(streams("--from 2001-09-09T01:46:50"), (Ids{1, 2})) << "still running at that second";
  EXPECT_EQ(streams("--from 2001-09-09T01:46:51"), (Ids{2}));
  EXPECT_EQ(streams("--to 2001-09-09T01:46:59"), (Ids{1}));
  EXPECT_EQ(streams("--trigger 5"), (Ids{2}));
  EXPECT_EQ(events(""), (Ids{1, 2}));
  EXPECT_EQ(events("--from 2001-09-09T01:46:44"), (Ids{2}));
  EXPECT_EQ(events("--from 2001-09-09T01:46:43 --to 2001-09-09T01:46:43"), (Ids{1}));
  EXPECT_EQ(events("--to 2001-09-09T01:46:42"), (Ids{}));
  EXPECT_EQ(events("--to 2001-09-09T02:00:00 --trigger 7"), (Ids{1}));
}

TEST_F(TarnRunTest, ListPagesThroughManyRows) {
  const std::string many =
      "sqlite3 /tmp/DB.dat \"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE "
      "i<1501) INSERT INTO EVENT SELECT i,1,0,1000000000+i,1000000001+i,0,0,i*32 FROM n; "
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i+1 FROM n WHERE i<1000) "
      "INSERT INTO STREAM SELECT i,1,0,0,1,0,0,0,0,1000000000+i,1000000001+i,0,0,i*64 FROM n;\"; ";
  const ShellResult result =
      inView(many + TARN_BIN_DIR "/tarn list events | wc -l; " TARN_BIN_DIR
                                 "/tarn list streams | wc -l; " TARN_BIN_DIR
                                 "/tarn list events --from 2001-01-01T00:00:00 | wc -l");
  EXPECT_EQ(result.output, "1502\n1001\n1502\n");
}

TEST_F(TarnRunTest, TimesAndTriggersThatMeanNothingAreWrongUsage) {
  for (const char* arguments :
       {"--from yesterday", "--from 2001-02-30T00:00:00", "--to 2001-01-32",
        "--to 1960-01-01T00:00:00", "--trigger 0", "--trigger 65536", "--trigger x", "rows"}) {
    EXPECT_EQ(tarn(std::string("list ") + arguments).exitCode, 2) << arguments;
  }
}

}  // namespace
