// What a command has to say, and could not, is a failure.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "support/Shell.h"

namespace tarn_test {
namespace {

using ::testing::HasSubstr;

constexpr char kFull[] = "tarn: standard output could not be written\n";

constexpr char kFullAsJson[] = "{\"error\":\"standard output could not be written\"}\n";

ShellResult tarn(const std::string& arguments) {
  return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments);
}

class TarnOutputTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    ASSERT_EQ(tarn("format /tmp/card --size 34M").exitCode, 0);
  }

  static void expectFailure(const std::string& command) {
    const ShellResult result = tarn(command + " >/dev/full");
    EXPECT_EQ(result.exitCode, 1) << command;
    const bool json = command.find("--json") != std::string::npos;
    EXPECT_EQ(result.output, json ? kFullAsJson : kFull) << command;
  }
};

TEST_F(TarnOutputTest, ThatCannotBeWrittenIsAFailureOfEveryCommand) {
  for (const char* command :
       {"info /tmp/card", "info /tmp/card --json", "check /tmp/card", "check /tmp/card --json",
        "--help", "--version", "list --help", "format /tmp/new --size 34M", "format /tmp/card"}) {
    expectFailure(command);
  }
}

TEST_F(TarnOutputTest, ThatCannotBeWrittenIsAFailureInAViewAsWell) {
  ASSERT_EQ(shell("echo text | " TARN_BIN_DIR "/tarn --card /tmp/card log --write").exitCode, 0);
  for (const char* command :
       {"list", "list --json", "list events --json", "log", "recover", "recover --json"}) {
    expectFailure(std::string("--card /tmp/card ") + command);
  }
}

TEST_F(TarnOutputTest, ThatTheMachineItselfCannotWriteIsAFailure) {
  ASSERT_EQ(shell("cp /tmp/card /dev/sdblk0p1").exitCode, 0);
  for (const char* command : {"recover", "recover --json", "list", "list events --json"}) {
    expectFailure(command);
  }
  EXPECT_EQ(shell(TARN_BIN_DIR "/dbsetup --help >/dev/full").exitCode, 1);
  EXPECT_EQ(shell(TARN_BIN_DIR "/tarn-server --help >/dev/full").exitCode, 1);
  EXPECT_EQ(shell(TARN_BIN_DIR "/tarn-server --version >/dev/full").exitCode, 1);
}

TEST_F(TarnOutputTest, AReaderThatHasSeenEnoughNeedsNoWords) {
  const ShellResult result = tarn("--card /tmp/card list --json | true");
  EXPECT_EQ(result.output, "");
}

}  // namespace
}  // namespace tarn_test
