#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "support/Shell.h"

namespace {

using nlohmann::json;
using tarn_test::shell;
using tarn_test::ShellResult;
using ::testing::HasSubstr;

ShellResult tarn(const std::string& arguments, const std::string& before = "") {
  return shell(before + TARN_BIN_DIR "/tarn " + arguments);
}

// Whether a recovery can run where nothing of it is kept.
bool rehearses() {
  return shell("bwrap --bind / / true").exitCode == 0 &&
         tarn("--card /tmp/card recover --dry-run").exitCode == 0;
}

class TarnCheckTest : public ::testing::Test {
 protected:
  void SetUp() override {
    setenv("TZ", "UTC", 1);
    ASSERT_EQ(tarn("format /tmp/card --size 34M --invariant").exitCode, 0);
  }
  static void damageManagement() {
    // The reserved bytes of the first record of MGST's main copy, wherever the card has it.
    const json info = json::parse(tarn("info /tmp/card --json").output);
    for (const json& family : info["families"]) {
      if (family["tag"] != "MGST") continue;
      const int sector = family["startSector"];
      ASSERT_EQ(shell("printf x | dd of=/tmp/card bs=512 seek=" + std::to_string(sector) +
                      " conv=notrunc status=none")
                    .exitCode,
                0);
    }
  }
};

TEST_F(TarnCheckTest, ACleanCardGivesZero) {
  const ShellResult result = tarn("check /tmp/card");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "/tmp/card: clean, 0 recordings, 0 events, 0 pictures\n");
  EXPECT_EQ(tarn("--card /tmp/card check").output, result.output);
  EXPECT_EQ(tarn("check /tmp/card --repair").exitCode, 0);
}

TEST_F(TarnCheckTest, FindingsGiveFourAndAreCountedByKind) {
  damageManagement();
  const ShellResult result = tarn("check /tmp/card");
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.output,
            "MGST: the main copy is damaged, the backup is good\n"
            "  nothing is lost: the other copy has the same\n"
            "/tmp/card: 1 finding, 0 recordings, 0 events, 0 pictures\n"
            "  management            1\n"
            "nothing lost\n");
}

TEST_F(TarnCheckTest, JsonHasKindsTextsAndCounts) {
  damageManagement();
  const ShellResult result = tarn("check /tmp/card --json");
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(json::parse(result.output), json::parse(R"({"schema": 1, "card": "/tmp/card",
      "clean": false, "recordings": 0, "events": 0, "pictures": 0, "meaning": "nothing lost",
      "eventsWithoutVideo": [], "counts": {"management": 1},
      "findings": [{"kind": "management",
                    "text": "MGST: the main copy is damaged, the backup is good",
                    "consequence": "none",
                    "meaning": "nothing is lost: the other copy has the same"}], "notes": []})"));
}

TEST_F(TarnCheckTest, ADryRunShowsWhatTheRecoveryWouldDoAndChangesNothing) {
  if (!rehearses()) GTEST_SKIP() << "a recovery cannot be tried here: FUSE or bwrap is missing";
  damageManagement();
  const std::string before = shell("sha256sum /tmp/card").output;
  const ShellResult result = tarn("check /tmp/card --repair --dry-run");
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_THAT(result.output, HasSubstr("MGST: the main copy is damaged"));
  EXPECT_THAT(result.output,
              HasSubstr("nothing lost\nthen the recovery would run:\n"
                        "management file of the stream chunks: taken from its backup\n"));
  const json report = json::parse(tarn("check /tmp/card --repair --dry-run --json").output);
  EXPECT_EQ(report["recovery"]["wouldRun"], true);
  EXPECT_EQ(report["recovery"]["leftOpen"], 0);
  EXPECT_EQ(report["recovery"]["plan"]["management"]["stream"], "taken from its backup");
  EXPECT_EQ(shell("sha256sum /tmp/card").output, before);
}

TEST_F(TarnCheckTest, WithoutAnOverlayADryRunSaysThatThePlanIsNotKnown) {
  damageManagement();
  const ShellResult result = tarn("check /tmp/card --repair --dry-run", "env PATH=/none ");
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_THAT(result.output, HasSubstr("then the recovery would run; what it would change is not "
                                       "known here: "));
}

TEST_F(TarnCheckTest, WhatTheRecoveryChangedIsTakenBack) {
  if (!rehearses()) GTEST_SKIP() << "a recovery cannot be tried here: FUSE or bwrap is missing";
  damageManagement();
  const std::string before = shell("sha256sum /tmp/card").output;
  const ShellResult result = tarn("check /tmp/card --repair");
  EXPECT_EQ(result.exitCode, 1) << result.output;
  EXPECT_THAT(result.output, HasSubstr("\"tarn check /tmp/card --undo /tmp/card.undo\" takes that "
                                       "back\n"));
  EXPECT_NE(shell("sha256sum /tmp/card").output, before);
  EXPECT_EQ(tarn("check /tmp/card").exitCode, 0);
  EXPECT_EQ(tarn("check /tmp/card --undo /tmp/card.undo").exitCode, 0);
  EXPECT_EQ(shell("sha256sum /tmp/card").output, before);
  EXPECT_EQ(tarn("check /tmp/card --repair --save-undo /tmp/card.undo").exitCode, 8);
  EXPECT_EQ(shell("sha256sum /tmp/card").output, before);
}

// A wrong byte of the boot sector, and one of a management file.
TEST_F(TarnCheckTest, BothRepairsAreTakenBackByOneFile) {
  if (!rehearses()) GTEST_SKIP() << "a recovery cannot be tried here: FUSE or bwrap is missing";
  damageManagement();
  ASSERT_EQ(shell("printf x | dd of=/tmp/card bs=1 seek=14 conv=notrunc status=none").exitCode, 0);
  const std::string before = shell("sha256sum /tmp/card").output;
  const json report = json::parse(tarn("check /tmp/card --repair --json").output);
  EXPECT_EQ(report["clean"], true);
  EXPECT_EQ(report["mended"].size(), 1u);
  EXPECT_EQ(report["undoFile"], "/tmp/card.undo");
  EXPECT_EQ(shell("ls /tmp/card.*").output, "/tmp/card.undo\n");
  EXPECT_EQ(tarn("check /tmp/card --undo /tmp/card.undo").exitCode, 0);
  EXPECT_EQ(shell("sha256sum /tmp/card").output, before);
}

TEST_F(TarnCheckTest, ADryRunOnACleanCardGivesZero) {
  const ShellResult result = tarn("check /tmp/card --repair --dry-run");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output, "/tmp/card: clean, 0 recordings, 0 events, 0 pictures\n");
}

TEST_F(TarnCheckTest, RepairRunsTheRecoveryAndGivesOne) {
  if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
  damageManagement();
  const ShellResult result = tarn("check /tmp/card --repair --json");
  EXPECT_EQ(result.exitCode, 1) << result.output;
  const json report = json::parse(result.output);
  EXPECT_EQ(report["clean"], true);
  EXPECT_EQ(report["counts"], json::object());
  EXPECT_EQ(report["corrected"]["counts"], json::parse(R"({"management": 1})"));
  EXPECT_EQ(tarn("check /tmp/card").exitCode, 0);
}

TEST_F(TarnCheckTest, WhatTheRecoveryCannotRepairIsLeft) {
  if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
  ASSERT_EQ(shell("printf x | dd of=/tmp/card bs=512 seek=1 conv=notrunc status=none").exitCode, 0);
  const ShellResult result = tarn("check /tmp/card --repair");
  EXPECT_EQ(result.exitCode, 4);
  EXPECT_EQ(result.output,
            "the FSInfo sector lacks its signatures\n"
            "  nothing is lost: the recorder finds its chunks without it\n"
            "1 finding, then the recovery ran\n"
            "the FSInfo sector lacks its signatures\n"
            "  nothing is lost: the recorder finds its chunks without it\n"
            "/tmp/card: 1 finding, 0 recordings, 0 events, 0 pictures\n"
            "  fat                   1\n"
            "nothing lost\n");
}

TEST_F(TarnCheckTest, WhatIsNoCardGivesEight) {
  const ShellResult none = tarn("check /tmp/none");
  EXPECT_EQ(none.exitCode, 8);
  EXPECT_EQ(none.output, "tarn: cannot open /tmp/none: No such file or directory\n");
  for (const char* fill : {"head -c 3000000 /dev/zero", "head -c 3000000 /dev/urandom",
                           "head -c 3000000 /dev/zero | tr \"\\0\" \"\\377\"", "true"}) {
    ASSERT_EQ(shell(std::string(fill) + " >/tmp/noise").exitCode, 0);
    const ShellResult noise = tarn("check /tmp/noise --repair");
    EXPECT_EQ(noise.exitCode, 8) << fill;
    EXPECT_THAT(noise.output, HasSubstr("tarn: /tmp/noise")) << fill;
  }
  EXPECT_EQ(tarn("check").exitCode, 8) << "the recorder's own card, and there is none";
}

TEST_F(TarnCheckTest, WrongUsageGivesSixteen) {
  EXPECT_EQ(tarn("check /tmp/card --bogus").exitCode, 16);
  EXPECT_EQ(tarn("check a b").exitCode, 16);
  EXPECT_EQ(tarn("check --help").exitCode, 0);
  EXPECT_EQ(tarn("info --bogus").exitCode, 2) << "as all other commands";
}

TEST_F(TarnCheckTest, ACardThatIsInUseIsNotRepaired) {
  if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
  damageManagement();
  const ShellResult result =
      shell("flock /tmp/card sh -c '" TARN_BIN_DIR "/tarn check /tmp/card --repair'; echo code $?");
  EXPECT_THAT(result.output, HasSubstr("is in use by another program of the recorder\ncode 8\n"));
}

// One byte of the info file's record of the stream chunks: their first sector.
TEST_F(TarnCheckTest, AnInfoFileThatContradictsTheCardIsShownMendedAndTakenBack) {
  const json info = json::parse(tarn("info /tmp/card --json").output);
  const int sector = info["families"][0]["startSector"];
  ASSERT_EQ(info["families"][0]["tag"], "TAIF");
  ASSERT_EQ(shell("cp /tmp/card /tmp/good; printf '\\377' | dd of=/tmp/card bs=1 seek=" +
                  std::to_string(sector * 512 + 4 + 7 * 84 + 81) +
                  " conv=notrunc status=none; "
                  "cp /tmp/card /tmp/damaged")
                .exitCode,
            0);
  for (const char* command : {"--card /tmp/card recover", "--card /tmp/card list"}) {
    const ShellResult result = tarn(command);
    EXPECT_EQ(result.exitCode, 1) << command;
    EXPECT_THAT(result.output, HasSubstr("the info file gives its checksum as")) << command;
    EXPECT_THAT(result.output, HasSubstr("mend it with \"tarn check --repair\"")) << command;
  }
  EXPECT_EQ(tarn("check /tmp/card").exitCode, 4);
  const ShellResult plan = tarn("check /tmp/card --repair --dry-run");
  EXPECT_EQ(plan.exitCode, 4);
  const std::string step = "the info file TAIF0000 is restored from its second copy\n";
  EXPECT_THAT(plan.output, HasSubstr("would be mended: " + step));
  EXPECT_EQ(shell("cmp /tmp/card /tmp/damaged").exitCode, 0);
  const ShellResult mended = tarn("check /tmp/card --repair");
  EXPECT_EQ(mended.exitCode, 1);
  EXPECT_EQ(mended.output, "mended: " + step +
                               "\"tarn check /tmp/card --undo /tmp/card.undo\" takes that back\n"
                               "/tmp/card: clean, 0 recordings, 0 events, 0 pictures\n");
  EXPECT_EQ(shell("cmp /tmp/card /tmp/good").exitCode, 0);
  EXPECT_EQ(tarn("check /tmp/card --undo /tmp/card.undo").exitCode, 0);
  EXPECT_EQ(shell("cmp /tmp/card /tmp/damaged").exitCode, 0);
}

// Recovery made such a file longer, and said nothing.
TEST_F(TarnCheckTest, AnImageThatWasCutShortIsRefusedByEveryCommand) {
  ASSERT_EQ(shell("truncate -s 20M /tmp/card").exitCode, 0);
  for (const char* command : {"--card /tmp/card recover", "--card /tmp/card list",
                              "--card /tmp/card log", "check /tmp/card --repair"}) {
    const ShellResult result = tarn(command);
    EXPECT_NE(result.exitCode, 0) << command;
    EXPECT_THAT(result.output, HasSubstr("the card at byte 20971520")) << command;
  }
  EXPECT_EQ(shell("stat -c %s /tmp/card").output, "20971520\n");
}

}  // namespace
