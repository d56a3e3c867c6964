#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "support/Shell.h"

namespace {

using tarn_test::shell;
using tarn_test::ShellResult;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::Not;

constexpr char kTarn[] = TARN_BIN_DIR "/tarn ";
constexpr char kStamp[] = "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2} ";

ShellResult tarn(const std::string& arguments) { return shell(kTarn + arguments); }

// Runs a line of shell in a view; $T is the tool.
ShellResult inView(const std::string& line) {
  return tarn("--card /tmp/card run -- sh -c 'T=" TARN_BIN_DIR "/tarn; " + line + "'");
}

class TarnLogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
    ASSERT_EQ(tarn("format /tmp/card --size 34M").exitCode, 0);
  }
};

TEST_F(TarnLogTest, LinesOfStandardInputAreShownAgainWithTheirTime) {
  ASSERT_EQ(shell("printf \"one\\n\\ntwo\\tand more\\nlast\" | " + std::string(kTarn) +
                  "--card /tmp/card log --write")
                .exitCode,
            0);
  const ShellResult shown = tarn("--card /tmp/card log");
  EXPECT_EQ(shown.exitCode, 0);
  const std::string stamp = kStamp;
  EXPECT_THAT(shown.output, testing::ContainsRegex("^" + stamp + "one\n" + stamp +
                                                   "two and more\n" + stamp + "last\n$"));
}

TEST_F(TarnLogTest, AFreshCardShowsNothing) {
  const ShellResult shown = tarn("--card /tmp/card log");
  EXPECT_EQ(shown.exitCode, 0);
  EXPECT_EQ(shown.output, "");
}

TEST_F(TarnLogTest, TheOldestChunkComesFirstAndOneAloneCanBeAskedFor) {
  // Chunks of 64 KiB: 1400 lines of more than 60 bytes reach the second one.
  const ShellResult shown = inView(
      "seq 1 1400 | sed s/$/-----------------------------------------------/ | $T log --write; "
      "$T log | wc -l; $T log | cut -c21- | cut -d- -f1 | sort -n -c && echo in order; "
      "$T log --chunk 1 | tail -1 | cut -c21-25; $T log --chunk 0 | head -1 | cut -c21-23; "
      "$T log --chunk 2 | wc -l");
  EXPECT_EQ(shown.output, "1400\nin order\n1400-\n1--\n0\n");
}

TEST_F(TarnLogTest, SinceLeavesOutWhatIsOlder) {
  const ShellResult shown = inView(
      "echo line | $T log --write; $T log --since 2001-01-01T00:00:00 | wc -l; "
      "$T log --since 2037-01-01T00:00:00 | wc -l");
  EXPECT_EQ(shown.output, "1\n0\n");
}

TEST_F(TarnLogTest, FollowShowsWhatIsAddedUntilItIsStopped) {
  const ShellResult shown = inView(
      ": >/tmp/seen; echo first | $T log --write; $T log -f >/tmp/seen & pid=$!; "
      "while ! grep -q first /tmp/seen; do sleep 0.02; done; "
      "echo second | $T log --write; "
      "while ! grep -q second /tmp/seen; do sleep 0.02; done; "
      "kill $pid; wait $pid; echo code $?; wc -l </tmp/seen");
  EXPECT_EQ(shown.output, "code 0\n2\n");
}

TEST_F(TarnLogTest, FollowGoesOnAcrossAChangeOfChunk) {
  const ShellResult shown = inView(
      ": >/tmp/seen; echo first | $T log --write; $T log -f >/tmp/seen & pid=$!; "
      "seq 1 1400 | sed s/$/-----------------------------------------------/ | $T log --write; "
      "while ! grep -q 1400- /tmp/seen; do sleep 0.02; done; kill $pid; wait $pid; "
      "wc -l </tmp/seen");
  EXPECT_EQ(shown.output, "1401\n");
}

TEST_F(TarnLogTest, WhatWasReadIsSafeBeforeTheInputEnds) {
  const ShellResult shown = inView(
      "mkfifo /tmp/in; $T log --write </tmp/in & exec 3>/tmp/in; echo now >&3; "
      "while ! $T log | grep now >/dev/null; do sleep 0.02; done; "
      "kill $!; wait $!; echo code $?");
  EXPECT_EQ(shown.output, "code 0\n") << "a signal ends it in order";
}

TEST_F(TarnLogTest, ASecondWriterIsRefused) {
  const ShellResult shown = inView(
      "mkfifo /tmp/in; $T log --write </tmp/in & exec 3>/tmp/in; echo now >&3; "
      "while ! $T log | grep now >/dev/null; do sleep 0.02; done; "
      "echo x | $T log --write; echo code $?; exec 3>&-; wait");
  EXPECT_EQ(shown.output, "tarn: the system log: another program writes the system log\ncode 1\n");
}

TEST_F(TarnLogTest, WithoutAServerItSaysSo) {
  const ShellResult shown = tarn("log");
  EXPECT_EQ(shown.exitCode, 1);
  EXPECT_EQ(shown.output,
            "tarn: the management server does not answer; use --card CARD to look at a card "
            "without one\n");
}

TEST_F(TarnLogTest, OptionsThatDoNotGoTogetherAreWrongUsage) {
  for (const char* arguments : {"--write -f", "--write --chunk 1", "--chunk 5", "--chunk x",
                                "--since yesterday", "--write --since 2001-01-01T00:00:00"}) {
    EXPECT_EQ(tarn(std::string("log ") + arguments).exitCode, 2) << arguments;
  }
}

}  // namespace
