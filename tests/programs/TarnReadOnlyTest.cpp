// Cards that are looked at and stay byte for byte as they are.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>

#include "recorder/RecoveryRig.h"
#include "support/Shell.h"

namespace tarn_test {
namespace {

using nlohmann::json;
using ::testing::HasSubstr;
using ::testing::Not;

ShellResult tarn(const std::string& arguments) {
  return shell("timeout 120 " TARN_BIN_DIR "/tarn " + arguments);
}

// A card whose newest recording was interrupted, in a file.
class TarnReadOnly : public ::testing::Test {
 protected:
  void SetUp() override {
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    rig.record(0, 40);
    rig.record(100, 140);
    const DB_STREAM last = allStreams()[1];
    rig.powerOff();
    rig.reopenRow(last);
    ASSERT_EQ(shell("cp /dev/sdblk0p1 /tmp/card && rm /dev/sdblk0p1").exitCode, 0);
    const ShellResult works = tarn("--card /tmp/card recover --dry-run");
    if (works.exitCode != 0 && works.output.find("FUSE") != std::string::npos) {
      GTEST_SKIP() << works.output;
    }
    ASSERT_EQ(works.exitCode, 0) << works.output;
    before = state();
  }
  void TearDown() override {
    if (before.empty()) return;
    EXPECT_EQ(state(), before) << "the original changed";
  }

  static std::string state(const std::string& card = "/tmp/card") {
    return shell("sha256sum " + card + " && stat -c '%Y %Z %s %a' " + card).output;
  }

  RecoveryRig rig;
  SyslogCapture log;
  std::string before;
};

TEST_F(TarnReadOnly, ListsWhatARecoveryBringsBackAndLeavesTheCardAsItIs) {
  const json rows =
      json::parse(tarn("--card /tmp/card --read-only list --json").output, nullptr, false);
  ASSERT_EQ(rows["streams"].size(), 2u) << rows;
  EXPECT_EQ(tarn("--card /tmp/card --read-only log").exitCode, 0);
  EXPECT_EQ(tarn("--card /tmp/card --read-only info").exitCode, 0);
  const ShellResult check = tarn("--card /tmp/card --read-only check");
  EXPECT_EQ(check.exitCode, 4) << "of the card as it is: " << check.output;
  if (tarn("export --help").exitCode == 0) {
    const ShellResult made =
        tarn("--card /tmp/card --read-only export --force --stream 2 -o /tmp/out.h264");
    EXPECT_EQ(made.exitCode, 0) << made.output;
    EXPECT_THAT(made.output, HasSubstr("40 pictures"));
  }
}

TEST_F(TarnReadOnly, WhatAProgramWritesIsThereUntilItsEnd) {
  // Of a chunk that nobody uses.
  const std::string last = std::to_string(rig.card.size() / 512 - 1);
  const ShellResult result = tarn(
      "--card /tmp/card --read-only run -- sh -c 'printf stream | dd of=/dev/sdblk0p1 bs=512 "
      "seek=" +
      last + " conv=notrunc,fsync status=none; dd if=/dev/sdblk0p1 bs=512 skip=" + last +
      " status=none | head -c 6'");
  EXPECT_EQ(result.output, "stream");
  const std::string sector = "dd bs=512 skip=" + last + " status=none if=";
  EXPECT_EQ(tarn("--card /tmp/card --read-only run -- " + sector + "/dev/sdblk0p1").output,
            shell(sector + "/tmp/card").output);
}

TEST_F(TarnReadOnly, CommandsThatChangeACardAreRefused) {
  for (const std::string command :
       {"recover", "save", "keep --event 1", "log --write", "check --repair", "format /tmp/card"}) {
    const ShellResult result = tarn("--card /tmp/card --read-only " + command + " </dev/null");
    // 1 of a check is a card that it corrected.
    EXPECT_EQ(result.exitCode, command[0] == 'c' ? 8 : 1) << command;
    EXPECT_EQ(result.output, "tarn: " + command.substr(0, command.find(' ')) +
                                 " changes a card, and --read-only leaves it as it is\n");
  }
  EXPECT_EQ(tarn("--read-only list").output,
            "tarn: --read-only and --partition are for a card that is named: --card CARD\n");
}

TEST_F(TarnReadOnly, ACardThatNobodyMayWriteToIsOnlyReadByItself) {
  ASSERT_EQ(chmod("/tmp/card", 0444), 0);
  before = state();
  const std::string why = "/tmp/card cannot be written to (nobody has permission to write)";
  ShellResult result = tarn("--card /tmp/card list");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("tarn: " + why + ": it is only read, and stays as it is\n"));
  result = tarn("--card /tmp/card recover");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(result.output,
            "tarn: recover changes a card, and /tmp/card cannot be written to: nobody has "
            "permission to write\n");
  result = tarn("--card /tmp/card run -- true");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, HasSubstr("--read-only keeps changes in memory and drops them"));
}

TEST_F(TarnReadOnly, ACardOfAReadOnlyFileSystemIsOnlyReadByItself) {
  const ShellResult result = shell(
      "mkdir /tmp/case && cp /tmp/card /tmp/case/card && mount --bind /tmp/case /tmp/case && "
      "mount -o remount,ro,bind /tmp/case && " TARN_BIN_DIR
      "/tarn --card /tmp/case/card list --json "
      "2>/tmp/said; cat /tmp/said >&2");
  EXPECT_THAT(result.output, HasSubstr("/tmp/case/card cannot be written to (Read-only file "
                                       "system): it is only read, and stays as it is"));
  EXPECT_THAT(result.output, HasSubstr("\"streams\""));
}

TEST_F(TarnReadOnly, SeveralMayReadACardAndNobodyWritesMeanwhile) {
  // Each one waits for the other program to be done.
  const auto meanwhile = [](const std::string& first, const std::string& second) {
    return shell("rm -f /tmp/up /tmp/go; { timeout 60 " TARN_BIN_DIR "/tarn --card /tmp/card " +
                 first +
                 " run -- sh -c 'touch /tmp/.outside/up; until [ -e /tmp/.outside/go ]; do sleep "
                 "0.02; done' & } ; until [ -e /tmp/up ]; do sleep 0.02; done; " TARN_BIN_DIR
                 "/tarn --card /tmp/card " +
                 second + " run -- echo mine; touch /tmp/go; wait")
        .output;
  };
  const std::string refused = "tarn: /tmp/card is in use by another program of the recorder\n";
  EXPECT_EQ(meanwhile("--read-only", "--read-only"), "mine\n");
  EXPECT_EQ(meanwhile("--read-only", ""), refused);
  EXPECT_EQ(state(), before);
  EXPECT_EQ(meanwhile("", "--read-only"), refused);
  before.clear();  // the last one wrote
}

// Needs no more than a device that is open to all, as machines have it.
TEST_F(TarnReadOnly, AnOrdinaryUserNeedsNoMoreThanPermissionToRead) {
  const ShellResult device = shell(
      "mknod /tmp/fuse c 10 229 && chmod 666 /tmp/fuse && mount --bind /tmp/fuse /dev/fuse && "
      "test -w /dev/fuse && chmod 644 /tmp/card");
  if (device.exitCode != 0) GTEST_SKIP() << "no device for it can be made here: " << device.output;
  before = state();
  const std::string user =
      "cd / && setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=/ "
      "LD_LIBRARY_PATH=/usr/local/games/lib " TARN_BIN_DIR "/tarn --card /tmp/card ";
  if (shell("cd / && setpriv --reuid=65534 --regid=65534 --clear-groups bwrap --bind / / true")
          .exitCode != 0) {
    GTEST_SKIP() << "ordinary users cannot have a private view here";
  }
  const ShellResult rows = shell(user + "list --json 2>/dev/null");
  EXPECT_EQ(json::parse(rows.output, nullptr, false)["streams"].size(), 2u) << rows.output;
  EXPECT_EQ(shell(user + "--read-only run -- sh -c 'printf x >>/dev/sdblk0p1; id -u'").output,
            "sh: 1: printf: printf: I/O error\n65534\n")
      << "a card does not grow";
}

TEST_F(TarnReadOnly, ADryRunShowsWhatARecoveryWouldDoAndDoesNothingOfIt) {
  const std::string head = "what a recovery would do; nothing of it was done:\n";
  const ShellResult dry = tarn("--card /tmp/card recover --dry-run");
  EXPECT_EQ(dry.exitCode, 0);
  EXPECT_EQ(tarn("--card /tmp/card recover --dry-run").output, dry.output)
      << "it is still to be done";
  const json report =
      json::parse(tarn("--card /tmp/card recover --dry-run --json").output, nullptr, false);
  EXPECT_EQ(report["dryRun"], true);
  ASSERT_EQ(report["changes"].size(), 1u) << report;
  EXPECT_EQ(report["changes"][0]["kind"], "recordingClosed");
  EXPECT_EQ(report["changes"][0]["pictures"], 40);
  EXPECT_EQ(state(), before);
  EXPECT_EQ(head + tarn("--card /tmp/card recover").output, dry.output) << "what it did is that";
  before.clear();
}

TEST_F(TarnReadOnly, WhatARepairMakesOfAnInterruptedRecordingIsTakenBack) {
  const std::string sum = shell("sha256sum /tmp/card").output;
  const std::string open = "it was never closed";
  EXPECT_THAT(tarn("check /tmp/card").output, HasSubstr(open));
  const ShellResult repaired = tarn("check /tmp/card --repair");
  EXPECT_THAT(tarn("check /tmp/card").output, Not(HasSubstr(open))) << repaired.output;
  EXPECT_EQ(tarn("check /tmp/card --undo /tmp/card.undo").exitCode, 0);
  EXPECT_EQ(shell("sha256sum /tmp/card").output, sum);
  before.clear();
}

TEST_F(TarnReadOnly, ADryRunOnTheRecorderItselfLeavesItsCardAndDatabaseAlone) {
  ASSERT_EQ(shell("cp /tmp/card /dev/sdblk0p1").exitCode, 0);
  const std::string card = state("/dev/sdblk0p1");
  const ShellResult result = tarn("recover --dry-run");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, HasSubstr("2 recordings and 0 events, from the journal\n"));
  EXPECT_EQ(state("/dev/sdblk0p1"), card);
  EXPECT_NE(access("/tmp/DB.dat", F_OK), 0);
}

TEST_F(TarnReadOnly, NothingOfItStaysBehind) {
  const std::string mounts = "cat /proc/self/mountinfo; ls -A /tmp; ps -eo args | grep -v ps";
  const std::string was = shell(mounts).output;
  EXPECT_EQ(tarn("--card /tmp/card --read-only list").exitCode, 0);
  EXPECT_EQ(shell(mounts).output, was);
}

}  // namespace
}  // namespace tarn_test
