// The tool's manners: what is wrong usage, how a card is named, what help and shells are told.
#include <gmock/gmock.h>

#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>

#include "support/Shell.h"

namespace tarn_test {
namespace {

using nlohmann::json;
using ::testing::Contains;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr char kCompletions[] = TARN_BIN_DIR "/../completions/";

ShellResult tarn(const std::string& arguments) {
  return shell(std::string("timeout 60 " TARN_BIN_DIR "/tarn ") + arguments + " </dev/null");
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> found;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) found.push_back(line);
  return found;
}

// What the tool says can stand next.
std::vector<std::string> next(const std::string& words) {
  return lines(tarn("complete -- " + words).output);
}

bool hasCommand(const std::string& name) {
  const std::vector<std::string> all = next("''");
  return std::find(all.begin(), all.end(), name) != all.end();
}

bool viewsWork() { return shell("bwrap --bind / / true").exitCode == 0; }

// Options that take any text, or that stand for a file.
const std::set<std::string> kAnyText = {"--card", "--config", "--save-undo",
                                        "--undo", "--output", "--downloads"};

// The options of a command that take a value, by its help; those of the chunk sizes are all alike.
std::vector<std::string> valueOptions(const std::string& command) {
  std::vector<std::string> found;
  for (const std::string& line : lines(tarn("help " + command).output)) {
    const size_t name = line.find("--");
    const size_t end = line.find(' ', name);
    if (line.compare(0, 3, "  -") != 0 || end == std::string::npos || line[end + 1] == ' ')
      continue;
    const std::string option = line.substr(name, end - name);
    const bool alike = option.find("-chunk") != std::string::npos && option.find("--stream-") != 0;
    // A file may have any name, which is looked at later.
    const bool flag = line.compare(end + 1, 4, "FILE") == 0 ||
                      line.compare(end + 1, 6, "Needs:") == 0 ||
                      line.compare(end + 1, 9, "Excludes:") == 0;
    if (!alike && !flag && kAnyText.count(option) == 0) found.push_back(option);
  }
  return found;
}

TEST(TarnUsageTest, NonsenseAsTheValueOfAnyOptionIsWrongUsage) {
  size_t tried = 0;
  for (const std::string& command : next("''")) {
    for (const std::string& option : valueOptions(command)) {
      const ShellResult result = tarn(command + " " + option + "=nonsense");
      EXPECT_EQ(result.exitCode, 2) << command << " " << option << ": " << result.output;
      ++tried;
    }
  }
  EXPECT_GT(tried, hasCommand("export") ? 25u : 12u);
  EXPECT_EQ(tarn("list --zone nonsense").exitCode, 2);
  EXPECT_EQ(tarn("list --utc=nonsense").exitCode, 2);
  EXPECT_EQ(tarn("list --json=nonsense").exitCode, 2);
  EXPECT_EQ(tarn("check --bogus").exitCode, 16);
  EXPECT_EQ(tarn("check --utc=nonsense").exitCode, 16);
}

TEST(TarnUsageTest, WhatCannotBeAskedForIsWrongUsage) {
  std::vector<std::string> all = {"format",
                                  "format /tmp/x --size 10M",
                                  "format /tmp/x --size 256M --profile bogus",
                                  "format /tmp/x --size 256M --cluster-size 1000",
                                  "format /tmp/x --size 256M --stream-chunk-size 100K",
                                  "format /tmp/x --cluster-size 777",
                                  "format /tmp/x --size 256M --stream-chunks 40000",
                                  "format /tmp/x --size 256M --stream-chunks 0",
                                  "list rows",
                                  "list streams events",
                                  "list events --long",
                                  "list --from 2026-03-01T00:00:01 --to 2026-03-01T00:00:00",
                                  "list events --from 2026-03-01T00:00:01 --to 2026-03-01T00:00:00",
                                  "list --channel 128",
                                  "keep --from 2026-03-01T00:00:01 --to 2026-03-01T00:00:00",
                                  "keep",
                                  "redate --dry-run",
                                  "redate --undo --record 0",
                                  "log -n 0",
                                  "log --write -n 3",
                                  "recover --accept --unattended",
                                  "run",
                                  "run one two -- three",
                                  "help bogus",
                                  "bogus",
                                  ""};
  if (hasCommand("export")) {
    all.insert(all.end(),
               {"export --stream 1 -o /tmp/x.mkv", "export --stream 1 -o /tmp/x",
                "export --stream 1 --tracks -o /tmp/x.h264", "export -o /tmp/x.mp4",
                "export --stream 1 -o - --json",
                "export -o /tmp/x.mp4 --from 2026-03-01T00:00:01 --to 2026-03-01T00:00:00",
                "record --segment -1 /tmp/x", "record --event 1@nan /tmp/x",
                "record --start 2026-03-01T00:00:00 --times arrival /tmp/x"});
  }
  for (const std::string& arguments : all) {
    const ShellResult result = tarn(arguments);
    EXPECT_EQ(result.exitCode, 2) << arguments << ": " << result.output;
  }
  EXPECT_EQ(shell("ls /tmp/x* 2>/dev/null").output, "");
}

TEST(TarnUsageTest, NoNumberOfAMessageIsLongerThanAnybodyReads) {
  const std::string many(300, '9');
  for (const char* arguments : {"list --channel ", "format /tmp/x --stream-chunks ", "list ",
                                "format /tmp/x --size ", "list --from @", "record --fps "}) {
    const ShellResult result = tarn(arguments + many);
    EXPECT_EQ(result.exitCode, 2) << arguments;
    EXPECT_THAT(result.output, Not(HasSubstr(std::string(21, '9')))) << arguments;
  }
  EXPECT_THAT(tarn("format /tmp/x --stream-chunks 0").output, HasSubstr("1 to 32767"));
}

TEST(TarnUsageTest, ErrorsAreJsonWhereJsonIsAskedFor) {
  for (const char* arguments :
       {"list --json", "list --json --channel x", "info --json /tmp/missing", "list rows --json",
        "check --json /tmp/missing", "log --json", "recover /tmp/missing --json"}) {
    const ShellResult result =
        shell(std::string("timeout 60 " TARN_BIN_DIR "/tarn ") + arguments + " 2>&1 >/dev/null");
    EXPECT_NE(result.exitCode, 0) << arguments;
    const json error = json::parse(lines(result.output + "\n").at(0), nullptr, false);
    ASSERT_TRUE(error.is_object()) << arguments << ": " << result.output;
    EXPECT_NE(error["error"], "") << arguments;
  }
  EXPECT_THAT(tarn("run -- /tmp/missing --json").output, ::testing::StartsWith("tarn: "))
      << "that is the program's own option";
}

TEST(TarnUsageTest, HelpKnowsEveryCommand) {
  EXPECT_EQ(tarn("help").output, tarn("--help").output);
  for (const char* command : {"format", "list", "help"}) {
    const ShellResult help = tarn("help " + std::string(command));
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_EQ(help.output, tarn(std::string(command) + " --help").output) << command;
  }
  EXPECT_EQ(tarn("-V").output, tarn("--version").output);
}

// The commands for video are in a program of their own, which a firmware may leave out.
TEST(TarnUsageTest, WithoutTheProgramForVideoTheOthersWorkAndSayWhatIsMissing) {
  shell("mkdir /tmp/alone && cp " TARN_BIN_DIR "/tarn /tmp/alone");
  const auto alone = [](const std::string& arguments) {
    return shell("/tmp/alone/tarn " + arguments + " 2>&1 </dev/null");
  };
  EXPECT_EQ(alone("format /tmp/card.img --size 64M").exitCode, 0);
  EXPECT_EQ(alone("--zone +02:00 info /tmp/card.img --json").exitCode, 0);
  const ShellResult help = alone("--help");
  EXPECT_EQ(help.exitCode, 0);
  EXPECT_THAT(help.output, HasSubstr("  check  "));
  EXPECT_THAT(help.output, Not(HasSubstr("  export  ")));
  for (const char* words : {"export --from 2026-01-01", "--card /tmp/card.img export"}) {
    const ShellResult result = alone(words);
    EXPECT_EQ(result.exitCode, 2) << words;
    EXPECT_EQ(
        result.output,
        "tarn: there is no command \"export\"; those for video are in tarn-video, which is not "
        "there\n");
  }
  shell("touch /tmp/alone/tarn-video && chmod 755 /tmp/alone/tarn-video");
  EXPECT_EQ(alone("export").output,
            "tarn: there is no command \"export\"; those for video are in /tmp/alone/tarn-video, "
            "which cannot run: Exec format error\n");
  EXPECT_EQ(alone("info /tmp/card.img").exitCode, 0);
}

// Where they are, it is one tool for whoever uses it, wherever its own options stand.
TEST(TarnUsageTest, TheProgramForVideoIsFoundWhateverStandsInFrontOfTheCommand) {
  if (!hasCommand("export")) GTEST_SKIP() << "built without video";
  const std::string what = "tarn: say what to export: --stream, --event, or --from and --to\n";
  const std::string card = "tarn: cannot open list: No such file or directory\n";
  const std::map<std::string, std::string> said = {{"export", what},
                                                   {"--utc export", what},
                                                   {"--zone UTC export", what},
                                                   {"--zone=UTC export", what},
                                                   {"--card list export", card},
                                                   {"--read-only --card=list export", card}};
  for (const auto& [words, text] : said) EXPECT_EQ(tarn(words + " 2>&1").output, text) << words;
  EXPECT_THAT(tarn("--version").output, HasSubstr("tarn 1."));
}

TEST(TarnUsageTest, ACardMeansTheSameAsAWordAndAsAnOption) {
  ASSERT_EQ(tarn("format --card /tmp/card --size 34M").exitCode, 0);
  EXPECT_EQ(tarn("info /tmp/card").output, tarn("--card /tmp/card info").output);
  EXPECT_EQ(tarn("check /tmp/card").output, tarn("check --card /tmp/card").output);
  EXPECT_EQ(tarn("info /tmp/card --card /tmp/card").exitCode, 0);
  EXPECT_EQ(tarn("--card /tmp/other info /tmp/card").exitCode, 2) << "which one is meant?";
  EXPECT_EQ(tarn("--card /tmp/other check /tmp/card").exitCode, 16);
  EXPECT_EQ(tarn("--card /tmp/other list /tmp/card").exitCode, 2);
  if (!viewsWork()) GTEST_SKIP() << "bwrap does not work here";
  for (const char* command : {"list events", "keep --list", "log"}) {
    const ShellResult option = tarn("--card /tmp/card " + std::string(command));
    EXPECT_EQ(option.exitCode, 0) << option.output;
    EXPECT_EQ(tarn(std::string(command) + " /tmp/card").output, option.output) << command;
  }
  EXPECT_EQ(tarn("run /tmp/card -- echo /tmp/card").output, "/tmp/card\n");
  EXPECT_EQ(tarn("run --card /tmp/card -- sh -c 'test -s /tmp/DB.dat && echo in'").output, "in\n");
  EXPECT_THAT(tarn("recover /tmp/card").output, HasSubstr("0 recordings and 0 events"));
  EXPECT_THAT(tarn("save /tmp/card").output, HasSubstr("tarn: "));
  if (!hasCommand("export")) return;
  EXPECT_EQ(tarn("export /tmp/card --stream 1 -o /tmp/x.mp4").output,
            tarn("--card /tmp/card export --stream 1 -o /tmp/x.mp4").output);
  EXPECT_THAT(tarn("record /tmp/card /tmp/missing.mp4").output, HasSubstr("/tmp/missing.mp4"));
}

TEST(TarnUsageTest, ShellsAreToldWhatCanStandNext) {
  EXPECT_THAT(next("''"), Contains("list"));
  EXPECT_THAT(next("''"), Not(Contains("complete")));
  EXPECT_THAT(next("li"), ::testing::ElementsAre("list"));
  EXPECT_THAT(next("list --j"), ::testing::ElementsAre("--json"));
  EXPECT_THAT(next("list -"), Contains("--card"));
  EXPECT_THAT(next("--card /tmp/x l"), ::testing::ElementsAre("list", "log"));
  EXPECT_THAT(next("list st"), ::testing::ElementsAre("streams", ":files"));
  EXPECT_THAT(next("format --profile m"), ::testing::ElementsAre("many"));
  EXPECT_THAT(next("info ''"), ::testing::ElementsAre(":files"));
  EXPECT_THAT(next("help rec"), Contains("recover"));
}

TEST(TarnUsageTest, BashCompletesWhatTheToolKnows) {
  const std::string script = std::string(kCompletions) + "tarn.bash";
  const auto complete = [&](const std::string& words, int at) {
    return lines(shell("cd /tmp && bash -c 'source " + script +
                       "; COMP_WORDS=(" TARN_BIN_DIR "/tarn " + words + "); COMP_CWORD=" +
                       std::to_string(at) + "; _tarn; printf \"%s\\n\" \"${COMPREPLY[@]}\"'")
                     .output);
  };
  EXPECT_EQ(complete("\"\"", 1), next("''"));
  EXPECT_EQ(complete("format --", 2), next("format --"));
  EXPECT_THAT(complete("format --profile \"\"", 3), Contains("long"));
  ASSERT_EQ(shell("touch '/tmp/a card'").exitCode, 0);
  EXPECT_THAT(complete("info a", 2), Contains("a card"));
}

// The function itself, between words of a line and what is offered; and that zsh finds it.
TEST(TarnUsageTest, ZshCompletesWhatTheToolKnows) {
  if (shell("command -v zsh >/dev/null").exitCode != 0) GTEST_SKIP() << "zsh is not installed here";
  const std::string folder = kCompletions;
  EXPECT_EQ(shell("HOME=/tmp zsh -fc 'fpath=(" + folder +
                  " $fpath); autoload -U compinit && compinit -u -D && print $_comps[tarn]'")
                .output,
            "_tarn\n");
  const auto complete = [&](const std::string& words, int at) {
    return lines(
        shell("zsh -fc 'compadd() { shift; print -l -- \"$@\" }; _files() { print :files }; "
              "words=(" TARN_BIN_DIR "/tarn " +
              words + "); CURRENT=" + std::to_string(at) + "; complete() { source " + folder +
              "_tarn }; complete'")
            .output);
  };
  EXPECT_EQ(complete("\"\"", 2), next("''"));
  EXPECT_EQ(complete("format --", 3), next("format --"));
  EXPECT_THAT(complete("list st", 3), ::testing::ElementsAre("streams", ":files"));
  EXPECT_THAT(complete("format --profile m", 4), ::testing::ElementsAre("many"));
}

// As if the tabulator were pressed.
TEST(TarnUsageTest, FishCompletesWhatTheToolKnows) {
  if (shell("command -v fish >/dev/null").exitCode != 0)
    GTEST_SKIP() << "fish is not installed here";
  ASSERT_EQ(shell("mkdir -p /tmp/home && touch /tmp/home/acard").exitCode, 0);
  const auto complete = [&](const std::string& line) {
    return lines(
        shell("cd /tmp/home && HOME=/tmp/home fish --no-config -c 'set -x PATH " TARN_BIN_DIR
              " $PATH; source " +
              std::string(kCompletions) + "tarn.fish; complete -C \"tarn " + line + "\"'")
            .output);
  };
  EXPECT_THAT(complete(""), ::testing::UnorderedElementsAreArray(next("''")));
  EXPECT_THAT(complete("list --j"), ::testing::ElementsAre("--json"));
  EXPECT_THAT(complete("format --profile m"), ::testing::ElementsAre("many"));
  EXPECT_THAT(complete("info a"), Contains("acard"));
}

// Whoever waits in front of a terminal sees for what.
TEST(TarnUsageTest, ARecoveryAndASaveShowHowFarTheyAreOnATerminalAlone) {
  if (shell("bwrap --bind / / true").exitCode != 0) GTEST_SKIP() << "bwrap does not work here";
  ASSERT_EQ(tarn("format /tmp/card --size 34M").exitCode, 0);
  for (const std::string command : {"recover", "list"}) {
    const std::string words = "/tarn --card /tmp/card " + command;
    const std::string shown = shell("script -qec '" TARN_BIN_DIR + words + "' /dev/null").output;
    EXPECT_THAT(shown, HasSubstr("recovery: journals")) << command;
    EXPECT_THAT(shown, HasSubstr("recovery: flush")) << command;
    EXPECT_EQ(shown.find("recovery: database image") != std::string::npos, command == "list");
    EXPECT_THAT(tarn("--card /tmp/card " + command).output, Not(HasSubstr("recovery: ")));
  }
  EXPECT_EQ(shell("PATH=/none " TARN_BIN_DIR "/tarn --card /tmp/card list --json 2>&1").output,
            "{\"error\":\"cannot run bwrap: No such file or directory\"}\n");
}

}  // namespace
}  // namespace tarn_test
