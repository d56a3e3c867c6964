#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <nlohmann/json.hpp>

#include "recorder/CheckRig.h"
#include "support/Shell.h"

namespace {

using nlohmann::json;
using tarn_test::shell;
using tarn_test::ShellResult;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::StartsWith;

ShellResult tarn(const std::string& arguments) {
  return shell(std::string(TARN_BIN_DIR "/tarn ") + arguments);
}

void expectUsage(const std::string& arguments, const std::string& text) {
  const ShellResult result = tarn(arguments);
  EXPECT_EQ(result.exitCode, 2) << arguments;
  EXPECT_THAT(result.output, HasSubstr(text));
}

void expectFailure(const std::string& arguments, const std::string& text) {
  const ShellResult result = tarn(arguments);
  EXPECT_EQ(result.exitCode, 1) << arguments;
  EXPECT_EQ(result.output, text + "\n");
}

off_t sizeOf(const char* path) {
  struct stat file = {};
  return stat(path, &file) == 0 ? file.st_size : -1;
}

TEST(TarnFormatTest, FormatsAnImageFileAndSaysWhatItDid) {
  const ShellResult result = tarn("format /tmp/card --size 256M");
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_THAT(result.output, StartsWith("/tmp/card: 256 MiB, 15 stream chunks of 16 MiB, volume "));
  EXPECT_EQ(sizeOf("/tmp/card"), 256 << 20);
  EXPECT_EQ(shell("fsck.fat -n /tmp/card").exitCode, 0);
}

TEST(TarnFormatTest, SizesAreReadInThePowersOf1024) {
  for (const char* size : {"35651584", "34M", "34MiB", "34mb", "34816K", "35651584B"}) {
    EXPECT_EQ(tarn(std::string("format /tmp/card --size ") + size).exitCode, 0) << size;
    EXPECT_EQ(sizeOf("/tmp/card"), 34 << 20) << size;
  }
  for (const char* size :
       {"''", "M", "0", "-1", "1.5G", "12Q", "99999999999999999999", "17179869184G"}) {
    expectUsage(std::string("format /tmp/card --size ") + size,
                "is not a size; write 65536, 512K, 256M or 64G");
  }
}

TEST(TarnFormatTest, EveryFamilysSizeAndCountCanBeGiven) {
  const ShellResult made = tarn(
      "format /tmp/card --size 64M --stream-chunk-size 4M --stream-chunks 6 "
      "--picture-chunk-size 128K --journal-chunk-size 128K --journal-chunks 6 "
      "--syslog-chunk-size 128K --syslog-chunks 7 --database-image-chunk-size 2M "
      "--database-image-chunks 2 --info-chunk-size 128K --stream-management-chunk-size 128K "
      "--journal-management-chunk-size 128K --syslog-management-chunk-size 128K "
      "--cluster-size 512");
  ASSERT_EQ(made.exitCode, 0) << made.output;
  const json card = json::parse(tarn("info /tmp/card --json").output);
  const std::vector<std::pair<int, int>> expected = {
      {1, 128 << 10}, {2, 128 << 10}, {6, 128 << 10}, {2, 128 << 10}, {7, 128 << 10},
      {2, 2 << 20},   {2, 128 << 10}, {6, 4 << 20},   {6, 128 << 10}};
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(card["families"][i]["chunks"], expected[i].first) << i;
    EXPECT_EQ(card["families"][i]["chunkSize"], expected[i].second) << i;
  }
  EXPECT_EQ(card["clusterBytes"], 512);
}

TEST(TarnFormatTest, WhatNoCardCanBeIsWrongUsageInWordsAndLeavesNoFile) {
  expectUsage("format /tmp/card --size 10M",
              "tarn: the card is too small: FAT32 needs at least 33 MiB, this one has 10 MiB");
  expectUsage("format /tmp/card --size 256M --stream-chunk-size 100K",
              "tarn: stream chunk size 102400 is not a multiple of 65536");
  expectUsage("format /tmp/card --stream-chunk-size 100K",
              "tarn: stream chunk size 102400 is not a multiple of ");
  expectUsage("format /tmp/card --size 256M --profile huge",
              "huge not in {default,many,long,small-pictures}");
  expectFailure("format /tmp/card",
                "tarn: /tmp/card does not exist: give a size to create it as an image file");
  EXPECT_EQ(sizeOf("/tmp/card"), -1);
}

TEST(TarnFormatTest, InvariantCardsAreEqual) {
  ASSERT_EQ(tarn("format /tmp/a --size 34M --invariant").exitCode, 0);
  ASSERT_EQ(shell("yes | head -c 40000000 > /tmp/b").exitCode, 0);
  ASSERT_EQ(tarn("format /tmp/b --size 34M --invariant --force").exitCode, 0);
  EXPECT_EQ(shell("cmp /tmp/a /tmp/b").exitCode, 0);
  ASSERT_EQ(tarn("format /tmp/b --size 34M").exitCode, 0);
  EXPECT_EQ(shell("cmp -s /tmp/a /tmp/b").exitCode, 1) << "another volume id";
}

TEST(TarnFormatTest, ForeignContentNeedsForce) {
  ASSERT_EQ(shell("truncate -s 40M /tmp/card && mkfs.fat -F 32 /tmp/card").exitCode, 0);
  expectFailure("format /tmp/card",
                "tarn: /tmp/card holds something that is not a card of the recorder; force the "
                "format to overwrite it");
  EXPECT_EQ(tarn("format /tmp/card --force").exitCode, 0);
  EXPECT_EQ(tarn("format /tmp/card").exitCode, 0);
}

TEST(TarnFormatTest, AnImageIsNeverCutShortUnforced) {
  ASSERT_EQ(tarn("format /tmp/card --size 40M").exitCode, 0);
  expectFailure("format /tmp/card --size 34M",
                "tarn: /tmp/card has 40 MiB, more than the 34 MiB asked for; force the format to "
                "cut it short");
  EXPECT_EQ(sizeOf("/tmp/card"), 40 << 20);
  EXPECT_EQ(tarn("format /tmp/card --size 34M --force").exitCode, 0);
  EXPECT_EQ(sizeOf("/tmp/card"), 34 << 20);
}

TEST(TarnFormatTest, AFormatThatFailsLeavesNoNewFile) {
  EXPECT_EQ(shell("ulimit -f 100; trap '' XFSZ; " TARN_BIN_DIR "/tarn format /tmp/card --size 34M")
                .exitCode,
            1);
  EXPECT_EQ(sizeOf("/tmp/card"), -1);
}

TEST(TarnFormatTest, ALogThatCouldNotBeWrittenToIsNotLaidOut) {
  expectUsage("format /tmp/card --size 34M --cluster-size 512 --syslog-chunk-size 4K",
              "tarn: syslog chunk size 4096 is too small: a log needs at least 8192");
  ASSERT_EQ(tarn("format /tmp/card --size 40M --cluster-size 512 --syslog-chunk-size 8K").exitCode,
            0);
  EXPECT_EQ(shell("echo text | " TARN_BIN_DIR "/tarn --card /tmp/card log --write").exitCode, 0);
}

// Cards that hold recordings.
class TarnFormatRecordings : public tarn_test::CheckRig {
 protected:
  void SetUp() override {
    CheckRig::SetUp();
    const tarn_test::Bytes card = wholeCard();
    const tarn::UniqueFd fd(open("/tmp/card", O_WRONLY | O_CREAT | O_TRUNC, 0600));
    ASSERT_EQ(::write(fd.get(), card.data(), card.size()), static_cast<ssize_t>(card.size()));
    ASSERT_EQ(shell("cp /tmp/card /tmp/before").exitCode, 0);
  }

  static bool isUnchanged() { return shell("cmp /tmp/card /tmp/before").exitCode == 0; }
  static ShellResult onTerminal(const std::string& answer) {
    return shell("echo '" + answer +
                 "' | script -qec '" TARN_BIN_DIR "/tarn format /tmp/card' /dev/null");
  }
};

constexpr char kHoldings[] = "/tmp/card holds 3 recordings and 2 events, from ";

TEST_F(TarnFormatRecordings, AreNamedAndNotOverwrittenUnforced) {
  const ShellResult result = tarn("format /tmp/card </dev/null");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, StartsWith(std::string("tarn: ") + kHoldings));
  EXPECT_THAT(result.output, HasSubstr("; force the format to overwrite it\n"));
  EXPECT_TRUE(isUnchanged());
  EXPECT_EQ(tarn("format /tmp/card --force </dev/null").exitCode, 0);
  EXPECT_EQ(tarn("format /tmp/card </dev/null").exitCode, 0) << "nothing is left to lose";
}

TEST_F(TarnFormatRecordings, GoWhenAPersonSaysSo) {
  for (const char* answer : {"n", "", "x"}) {
    const ShellResult refused = onTerminal(answer);
    EXPECT_EQ(refused.exitCode, 1) << answer;
    EXPECT_THAT(refused.output, HasSubstr(kHoldings));
    EXPECT_THAT(refused.output, HasSubstr("Format it anyway? [y/N]"));
    EXPECT_THAT(refused.output, HasSubstr("tarn: /tmp/card was left as it is"));
    EXPECT_TRUE(isUnchanged());
  }
  EXPECT_EQ(onTerminal("y").exitCode, 0);
  EXPECT_FALSE(isUnchanged());
}

TEST_F(TarnFormatRecordings, MayBeThereWhereTheCardDoesNotTell) {
  // Without its info file nobody knows.
  const tarn_test::Bytes spoiled(512, 0xFF);
  const tarn::UniqueFd fd(open("/tmp/card", O_WRONLY));
  ASSERT_EQ(::pwrite(fd.get(), spoiled.data(), spoiled.size(),
                     static_cast<off_t>(chunkByte(tarn::kFileInfo, 0))),
            static_cast<ssize_t>(spoiled.size()));
  const ShellResult result = tarn("format /tmp/card </dev/null");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_THAT(result.output, StartsWith("tarn: what /tmp/card holds cannot be determined ("));
  EXPECT_EQ(tarn("format /tmp/card --force </dev/null").exitCode, 0);
}

TEST(TarnFormatTest, ACardInUseIsRefused) {
  ASSERT_EQ(tarn("format /tmp/card --size 34M").exitCode, 0);
  const int fd = open("/tmp/card", O_RDWR);
  ASSERT_EQ(flock(fd, LOCK_EX), 0);
  expectFailure("format /tmp/card", "tarn: /tmp/card is in use by another program of the recorder");
  expectFailure("--card /tmp/card list",
                "tarn: /tmp/card is in use by another program of the recorder");
  close(fd);
}

TEST(TarnFormatTest, AFormatThatIsKilledLeavesNoCard) {
  ASSERT_EQ(tarn("format /tmp/card --size 4G").exitCode, 0);
  // Whatever moment the signal meets: the old card is still whole, nothing opens, or all is done.
  bool unfinished = false;
  for (int delayMs = 0; delayMs < 2000 && !unfinished; delayMs += 8) {
    shell(TARN_BIN_DIR "/tarn format /tmp/card & sleep " + std::to_string(delayMs / 1000.0) +
          "; kill -9 $!; wait $!");
    const ShellResult info = tarn("info /tmp/card");
    if (info.exitCode == 0) continue;
    unfinished = true;
    EXPECT_THAT(info.output, testing::AnyOf(HasSubstr("interrupted"), HasSubstr("damaged")));
  }
  EXPECT_TRUE(unfinished);
  EXPECT_EQ(tarn("format /tmp/card").exitCode, 0) << "without being forced";
  EXPECT_EQ(shell("fsck.fat -n /tmp/card").exitCode, 0);
}

TEST(TarnFormatTest, InfoShowsGeometryAndUseAndChangesNothing) {
  ASSERT_EQ(tarn("format /tmp/card --size 256M --invariant && cp /tmp/card /tmp/before").exitCode,
            0);
  const ShellResult text = tarn("info /tmp/card");
  EXPECT_EQ(text.exitCode, 0);
  EXPECT_THAT(text.output, HasSubstr("volume    5441-524E \"TARN CARD\", 256 MiB of 256 MiB"));
  EXPECT_THAT(text.output, HasSubstr("stream                   15       16 MiB"));
  EXPECT_THAT(text.output, HasSubstr("both copies good"));
  const json card = json::parse(tarn("--card /tmp/card info --json").output);
  EXPECT_EQ(card["schema"], 1);
  EXPECT_EQ(card["volumeId"], "5441-524E");
  EXPECT_EQ(card["families"][7]["tag"], "CKST");
  EXPECT_EQ(card["families"][7]["usedBytes"], 0);
  EXPECT_EQ(card["families"][7]["records"][14]["chType"], -1);
  EXPECT_EQ(shell("cmp /tmp/card /tmp/before").exitCode, 0);
}

TEST(TarnFormatTest, InfoWithoutACardLooksAtTheRecordersOwn) {
  expectFailure("info", "tarn: cannot open /dev/sdblk0p1: No such file or directory");
  ASSERT_EQ(tarn("format /dev/sdblk0p1 --size 34M").exitCode, 0);
  EXPECT_EQ(tarn("info").exitCode, 0);
}

TEST(TarnFormatTest, WrongUsageIsToldApartFromFailure) {
  expectUsage("", "tarn: which command? tarn --help lists them");
  expectUsage("format", "which card?");
  expectUsage("melt", "melt");
  expectUsage("format /tmp/card --journal-chunks -3", "--journal-chunks");
  expectUsage("--card /tmp/other format /tmp/card --size 34M", "which one?");
}

TEST(TarnFormatTest, EveryCommandHasHelp) {
  const ShellResult all = tarn("--help");
  EXPECT_EQ(all.exitCode, 0);
  for (const char* command : {"format", "info", "list", "run"}) {
    EXPECT_THAT(all.output, HasSubstr(std::string("\n  ") + command + " "));
    const ShellResult help = tarn(std::string(command) + " --help");
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_THAT(help.output, HasSubstr("Usage: tarn " + std::string(command)));
  }
  EXPECT_THAT(all.output, HasSubstr("Exit codes: 0 done; 1 failed"));
}

TEST(TarnFormatTest, HelpOfACommandTellsItsOwnExitCodesAndNoOthers) {
  const std::string general =
      "Exit codes: 0 done; 1 failed, with the reason on standard error; 2 wrong usage.\n";
  EXPECT_THAT(tarn("--help").output, HasSubstr(general + "run, check and verify have codes"));
  for (const char* command : {"format", "list", "recover", "save"})
    EXPECT_THAT(tarn(std::string(command) + " --help").output, EndsWith("\n\n" + general))
        << command;
  EXPECT_THAT(tarn("run --help").output, EndsWith(general + "Once the program runs, its own.\n"));
  EXPECT_THAT(tarn("check --help").output, HasSubstr("\nExit codes: 0 clean; 1 corrected;"));
}

TEST(TarnFormatTest, OutputThatCannotBeWrittenIsAFailure) {
  ASSERT_EQ(tarn("format /tmp/card --size 34M").exitCode, 0);
  EXPECT_EQ(tarn("info /tmp/card >/dev/full").exitCode, 1);
}

}  // namespace
