#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "db/CApiDb.h"
#include "support/Shell.h"

namespace {

using nlohmann::json;
using tarn_test::shell;
using tarn_test::ShellResult;
using ::testing::HasSubstr;

ShellResult tarn(const std::string& arguments) {
  return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments);
}

class TarnRecoverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    ASSERT_EQ(tarn("format /tmp/card --size 34M").exitCode, 0);
  }
};

TEST_F(TarnRecoverTest, TellsInJsonWhatItFoundAndDid) {
  const ShellResult result = tarn("--card /tmp/card recover --json");
  EXPECT_EQ(result.exitCode, 0) << result.output;
  const json report = json::parse(result.output, nullptr, false);
  EXPECT_EQ(report["schema"], 1);
  EXPECT_EQ(report["ok"], true);
  EXPECT_EQ(report["fromImage"], false);
  EXPECT_EQ(report["streamRows"], 0);
  EXPECT_EQ(report["management"]["journal"], "good");
  EXPECT_EQ(report["changes"], json::array());
  EXPECT_EQ(report["microseconds"].size(), 11u);
}

TEST_F(TarnRecoverTest, ACleanEndLeavesAnImageForTheNextStartAlone) {
  EXPECT_EQ(tarn("--card /tmp/card recover").output,
            "0 recordings and 0 events, from the journal\n");
  const ShellResult run = tarn("--card /tmp/card run -- true");
  ASSERT_EQ(run.exitCode, 0) << run.output;
  EXPECT_EQ(tarn("--card /tmp/card recover").output,
            "0 recordings and 0 events, from the database image\n");
  EXPECT_EQ(tarn("--card /tmp/card recover").output,
            "0 recordings and 0 events, from the journal\n");
}

TEST_F(TarnRecoverTest, AKilledServerLeavesNoImage) {
  EXPECT_EQ(tarn("--card /tmp/card run -- sh -c 'kill -9 $(pgrep -P $PPID tarn-server)'").exitCode,
            1);
  EXPECT_EQ(tarn("--card /tmp/card recover").output,
            "0 recordings and 0 events, from the journal\n");
}

TEST_F(TarnRecoverTest, IsRefusedWhileTheServerRuns) {
  const ShellResult result = tarn("--card /tmp/card run -- " TARN_BIN_DIR "/tarn recover");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output,
            "tarn: a management server is running; recovery must run before it starts\n");
}

TEST_F(TarnRecoverTest, MakesTheDatabaseOfTheMachineItRunsOn) {
  ASSERT_EQ(shell("cp /tmp/card /dev/sdblk0p1").exitCode, 0);
  EXPECT_EQ(tarn("recover").output, "0 recordings and 0 events, from the journal\n");
  EXPECT_EQ(tarn("list --json").exitCode, 0);
}

TEST_F(TarnRecoverTest, WhatIsSavedAtACleanStopNeedsNoJournalAtTheNextStart) {
  ASSERT_EQ(shell("cp /tmp/card /dev/sdblk0p1").exitCode, 0);
  EXPECT_EQ(tarn("recover").exitCode, 0);
  EXPECT_EQ(tarn("save").output, "");
  EXPECT_EQ(tarn("recover").output, "0 recordings and 0 events, from the database image\n");
}

// A process that dies in the midst of a statement.
pid_t dieWithTheDatabaseLocked() {
  const pid_t process = fork();
  if (process == 0) _exit(CApiDb().lockSem() == 0 ? 0 : 1);
  int status = -1;
  EXPECT_EQ(waitpid(process, &status, 0), process);
  EXPECT_EQ(status, 0);
  return process;
}

TEST_F(TarnRecoverTest, SetsTheDatabaseFreeOfAProcessThatIsGone) {
  ASSERT_EQ(shell("cp /tmp/card /dev/sdblk0p1; " TARN_BIN_DIR
                  "/dbsetup init && mv /tmp/DB.dat /tmp/before.dat")
                .exitCode,
            0);
  const std::string dead = std::to_string(dieWithTheDatabaseLocked());
  // Nobody else waits for it for ever.
  const std::string locked = "the database is locked by process " + dead + ", which is gone";
  ASSERT_EQ(shell("cp /tmp/before.dat /tmp/DB.dat").exitCode, 0);
  EXPECT_EQ(shell("timeout -s KILL 60 " TARN_BIN_DIR "/tarn list").output,
            "tarn: " + locked + "; tarn recover sets it free\n");
  EXPECT_EQ(shell("timeout -s KILL 60 " TARN_BIN_DIR "/dbsetup start").output,
            "dbsetup start: " + locked + "\n");
  const std::string recover = "timeout -s KILL 60 " TARN_BIN_DIR "/tarn recover";
  const ShellResult json = shell(recover + " --json 2>/tmp/said");
  EXPECT_EQ(json.exitCode, 0) << json.output;
  const std::string text =
      "the database was locked by process " + dead + ", which is gone; it was set free";
  EXPECT_EQ(nlohmann::json::parse(json.output)["problems"], nlohmann::json::array({text}));
  EXPECT_EQ(shell("cat /tmp/said").output, "{\"warning\":\"" + text + "\"}\n");
  EXPECT_EQ(shell(recover).output, "0 recordings and 0 events, from the journal\n");
  EXPECT_EQ(shell("timeout -s KILL 60 " TARN_BIN_DIR "/tarn list --json").exitCode, 0);
}

TEST_F(TarnRecoverTest, LeavesTheDatabaseLockedWhileARecordingRuns) {
  ASSERT_EQ(shell("cp /tmp/card /dev/sdblk0p1; " TARN_BIN_DIR "/tarn recover").exitCode, 0);
  const int channel = open("/tmp/tarn-channel-3.lock", O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  ASSERT_EQ(flock(channel, LOCK_EX), 0);
  dieWithTheDatabaseLocked();
  const ShellResult result = shell("timeout -s KILL 60 " TARN_BIN_DIR "/tarn recover");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(
      result.output,
      "tarn: the database is locked by a process that is gone, and a recording is running: end it "
      "first\n");
  close(channel);
  const ShellResult save = shell("timeout -s KILL 60 " TARN_BIN_DIR "/tarn save");
  EXPECT_EQ(save.exitCode, 1);
  EXPECT_EQ(save.output,
            "tarn: the database is locked by a process that is gone; the next start rebuilds it\n");
  EXPECT_EQ(shell("timeout -s KILL 60 " TARN_BIN_DIR "/tarn recover").exitCode, 0);
}

TEST_F(TarnRecoverTest, NothingIsSavedBesideAServerOrWithoutADatabase) {
  const ShellResult early = tarn("--card /tmp/card run -- " TARN_BIN_DIR "/tarn save");
  EXPECT_EQ(early.exitCode, 1);
  EXPECT_EQ(early.output,
            "tarn: a management server is running; the database is saved when it has stopped\n");
  const ShellResult without = tarn("save");
  EXPECT_EQ(without.exitCode, 1);
  EXPECT_EQ(without.output, "tarn: there is no database /tmp/DB.dat to save\n");
  EXPECT_EQ(tarn("save something else").exitCode, 2);
}

TEST_F(TarnRecoverTest, ADatabaseThatTheCardDoesNotTakeIsReported) {
  ASSERT_EQ(tarn("recover").exitCode, 1);  // no card
  ASSERT_EQ(shell(TARN_BIN_DIR "/dbsetup init").exitCode, 0);
  const ShellResult result = tarn("save");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output, "tarn: cannot open /dev/sdblk0p1: No such file or directory\n");
}

TEST_F(TarnRecoverTest, WithoutACardItFailsInWords) {
  const ShellResult result = tarn("recover");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output,
              HasSubstr("tarn: cannot open /dev/sdblk0p1: No such file or directory"));
  EXPECT_EQ(tarn("recover --nonsense").exitCode, 2);
}

TEST_F(TarnRecoverTest, SaysWhichManagementFileWasMended) {
  // The first bytes of both copies of the stream chunks' file are found by their family's sector.
  const json card = json::parse(tarn("info /tmp/card --json").output, nullptr, false);
  for (const json& family : card["families"]) {
    if (family["tag"] != "MGST") continue;
    ASSERT_EQ(shell("printf spoiled | dd of=/tmp/card conv=notrunc bs=512 seek=" +
                    std::to_string(family["startSector"].get<uint64_t>()))
                  .exitCode,
              0);
  }
  EXPECT_EQ(tarn("--card /tmp/card recover").output,
            "management file of the stream chunks: taken from its backup\n"
            "0 recordings and 0 events, from the journal\n");
}

}  // namespace
