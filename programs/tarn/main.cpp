// tarn: formats and inspects cards, records, lists and exports, on a recorder or in a private view.

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <new>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <system_error>

#include "CardAccess.h"
#include "CardView.h"
#include "ChildProcess.h"
#include "Command.h"
#include "Console.h"
#include "ViewSession.h"
#include "base/StandardStreams.h"
#include "fat/ChunkFiles.h"
#include "programs/OutOfMemory.h"
#include "recorder/card/CardText.h"
#include "recorder/card/TimeZone.h"

namespace tarn {
namespace {

constexpr char kOutputFailed[] = "standard output could not be written";

// Before the times of a command are read: the tool's own options come first.
void chooseZone(const char* option, const std::string& name) {
  std::string error;
  if (!TimeZone::choose(name, &error)) throw CLI::ValidationError(option, error);
}

struct Tool {
  CLI::App app{"Storage of a video recorder: cards, recordings, exports", "tarn"};
  std::vector<std::unique_ptr<Command>> commands = allCommands();
  std::vector<CLI::App*> subcommands;
  std::string card;
  CardAccess access;
  bool insideReadOnly = false;
  std::string shownName;
  int viewPipe = -1;

  Tool() {
    app.add_option("--card", card,
                   "run the command in a private view in which CARD, a block device or image "
                   "file, is the recorder's card")
        ->type_name("CARD");
    app.add_flag("--read-only", access.readOnly,
                 "leave CARD as it is; what changes meanwhile is kept in memory and dropped");
    app.add_option("--partition", access.partition,
                   "where CARD is a whole device or an image of one: which partition; default: the "
                   "one that holds a card")
        ->type_name("N")
        ->check(CLI::Range(1, 1024));
    app.add_option(kShownName, shownName)->group("");
    app.add_flag(kInsideReadOnly, insideReadOnly)->group("");
    app.add_flag_function(
        "--utc", [](int64_t) { chooseZone("--utc", "UTC"); }, "understand and show times in UTC");
    app.add_option_function<std::string>(
           "--zone", [](const std::string& name) { chooseZone("--zone", name); },
           "understand and show times in this zone, as Europe/Berlin or +02:00; default: the "
           "machine's")
        ->type_name("NAME")
        ->excludes("--utc");
    app.add_option("--inside-view", viewPipe)->group("");
    app.set_version_flag("-V,--version", "tarn " TARN_VERSION, "print the version and exit");
    app.require_subcommand(0, 1);
    app.footer(kExitCodesText);  // commands take it over
    for (const auto& command : commands) subcommands.push_back(command->addTo(app));
    for (CLI::App* subcommand : subcommands) subcommand->fallthrough();
    app.footer(std::string(kExitCodesText) +
               "\nrun, check and verify have codes of their own: see tarn help COMMAND.");
  }

  Command* chosen() const {
    for (size_t i = 0; i < commands.size(); ++i) {
      if (subcommands[i]->parsed()) return commands[i].get();
    }
    return nullptr;
  }

  // The command that the words name, as far as a look at them tells; "" without one.
  std::string namedBy(const WordsAsGiven& words) const {
    for (auto word = words.begin(); word != words.end(); ++word) {
      if (word->empty() || (*word)[0] != '-') return *word;
      const CLI::Option* option = app.get_option_no_throw(*word);
      const bool takesNext = option != nullptr && option->get_items_expected_max() > 0;
      if (takesNext && ++word == words.end()) break;
    }
    return "";
  }

  bool has(const std::string& name) const {
    return std::any_of(subcommands.begin(), subcommands.end(),
                       [&name](const CLI::App* command) { return command->get_name() == name; });
  }

  std::string nameOf(const Command* command) const {
    for (size_t i = 0; i < commands.size(); ++i) {
      if (commands[i].get() == command) return subcommands[i]->get_name();
    }
    return "";
  }
};

// Libraries of the tool report some failures by exceptions. A reader that has gone, as in
// "tarn list | head", needs no words.
int guarded(const std::function<int()>& work) {
  try {
    return work();
  } catch (const std::bad_alloc&) {
    complainOutOfMemory("tarn");
  } catch (const std::system_error& error) {
    if (error.code() != std::errc::broken_pipe) {
      complain(ferror(stdout) != 0 ? kOutputFailed : error.what());
    }
  } catch (const std::exception& error) {
    complain(error.what());
  }
  return kExitFailed;
}

// Output that did not reach its place is a failure that nobody may overlook.
int withOutput(int exitCode) {
  const bool flushed = fflush(stdout) == 0;
  const int reason = flushed ? 0 : errno;
  if ((flushed && ferror(stdout) == 0) || exitCode != kExitGood) return exitCode;
  if (reason != EPIPE) complain(kOutputFailed);
  return kExitFailed;
}

// All that a command has printed is out when this returns: what comes after it, as the end of a
// view, has standard output muted for a while.
int runCommand(Command* command) {
  return withOutput(guarded([command] { return command->run(); }));
}

int closeSession(ViewSession* session, int exitCode) {
  std::string error;
  if (session->close(&error) == 0) return exitCode;
  complain(error);
  return exitCode == kExitGood ? kExitFailed : exitCode;
}

// The command in a process of its own, which returns from here as well, with its exit code.
int runBeside(Command* command, ViewSession* session) {
  ChildProcess beside;
  bool inChild = false;
  std::string error;
  if (!beside.split(&inChild)) {
    complain("cannot make a process for the command");
    return kExitFailed;
  }
  if (inChild) return runCommand(command);
  const bool opened = session->open(command->asksServer(), &error) == 0;
  if (!opened) {
    complain(error);
    kill(beside.pid(), SIGTERM);
  }
  const int exitCode = beside.wait();
  return opened ? closeSession(session, exitCode) : kExitFailed;
}

// Inside the view: the recorder's surroundings, then the command.
int runInside(Command* command, const Tool& tool) {
  catchStopSignals();
  const pid_t own = getpid();
  const bool told = write(tool.viewPipe, &own, sizeof own) == static_cast<ssize_t>(sizeof own);
  close(tool.viewPipe);
  for (std::string* path : command->userPaths()) *path = CardView::pathInside(*path);
  if (tool.insideReadOnly) {
    command->showCardAs(tool.shownName);
    command->setCard(deviceName(kRecorderPartition));
  }
  ViewSession session(tool.insideReadOnly);
  std::string error;
  if (told && !(command->needsRecorder() && command->needsServer())) return runCommand(command);
  if (told && command->beginEarly()) return runBeside(command, &session);
  if (!told || session.open(command->asksServer(), &error) != 0) {
    complain(error);
    return kExitFailed;
  }
  return closeSession(&session, runCommand(command));
}

// What must be visible in the view: what the command names, and the directories of its paths.
std::vector<std::string> pathsToShow(Command* command) {
  std::vector<std::string> paths = command->shownPaths();
  for (const std::string* path : command->userPaths()) {
    if (path->empty() || *path == "-") continue;
    std::error_code error;
    const std::string directory = std::filesystem::absolute(*path, error).parent_path().string();
    if (!error && directory != "/tmp") paths.push_back(directory);
  }
  return paths;
}

// In the view the card has its place, and is no word any more.
int runInView(const Tool& tool, Command* command, WordsAsGiven words) {
  auto word = std::find(words.begin(), words.end(), command->card());
  if (word != words.begin() && word != words.end() && *(word - 1) == "--card")
    word = std::find(word + 1, words.end(), command->card());
  if (!command->card().empty() && word != words.end()) words.erase(word);
  CardView view;
  std::string error;
  CardOriginal* original = tool.access.original();
  if (!command->beforeView(tool.card, original != nullptr, &words, &error)) {
    complain(error);
    return kExitFailed;
  }
  if (original != nullptr) words.insert(words.begin(), {kInsideReadOnly, kShownName, tool.card});
  const int exitCode =
      original == nullptr
          ? view.run(tool.card, words, pathsToShow(command), &error)
          : view.runReadOnly(tool.card, original, words, pathsToShow(command), &error);
  if (exitCode >= 0) return exitCode;
  complain(error);
  return command->refusedExitCode();
}

// Whoever asks for JSON reads errors as JSON, too: a line {"error": "..."} each.
std::string complaintAsJson(const char* kind, const std::string& text) {
  return nlohmann::json{{kind, text}}.dump(-1, ' ', false,
                                           nlohmann::json::error_handler_t::replace);
}

void chooseForm(const WordsAsGiven& words) {
  const auto end = std::find(words.begin(), words.end(), "--");
  if (std::find(words.begin(), end, "--json") != end) complainAs(complaintAsJson);
}

// Becomes the program that has the commands for video as well, where the words name one of them, or
// ask what commands there are. False with the reason said where they name none that there is.
bool findCommand(const Tool& tool, const WordsAsGiven& words, char** argv) {
  if (kVideoCommands.record != nullptr) return true;
  const std::string name = tool.namedBy(words);
  const bool asksForAll = name.empty() || name == "help" || name == "complete";
  if (!asksForAll && tool.has(name)) return true;
  const std::string program = findCompanion(kVideoProgram);
  if (!program.empty()) execv(program.c_str(), argv);
  const int reason = errno;
  if (asksForAll) return true;
  complain("there is no command \"" + name + "\"; those for video are in " +
           (program.empty() ? kVideoProgram + std::string(", which is not there")
                            : errnoText(program + ", which cannot run", reason)));
  return false;
}

// What the parser has to say of a command line, or what it asked for.
int tellUsage(const Tool& tool, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) {
    tool.app.exit(error);
    return kExitGood;
  }
  const Command* command = tool.chosen();
  complain(withShortNumbers(error.what()) + "; \"tarn help" +
           (command != nullptr ? " " + tool.nameOf(command) : "") + "\" says more");
  return command != nullptr ? command->usageExitCode() : kExitUsage;
}

// One card, given in one way or the other.
bool takeCard(Tool* tool, Command* command, const WordsAsGiven& words, std::string* error) {
  if (!command->sortWords(words, error)) return false;
  if (tool->card.empty()) tool->card = command->card();
  if (!command->card().empty() && command->card() != tool->card)
    *error = "two cards, " + tool->card + " and " + command->card() + ": which one?";
  return error->empty();
}

int runTool(int argc, char** argv) {
  const WordsAsGiven words(argv + std::min(argc, 1), argv + argc);
  chooseForm(words);
  Tool tool;
  if (!findCommand(tool, words, argv)) return kExitUsage;
  try {
    tool.app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return tellUsage(tool, error);
  } catch (const std::logic_error&) {
    // What the parser makes of a flag with a value that is none: --utc=x.
    complain("a flag takes no value; \"tarn help\" says more");
    return tool.chosen() != nullptr ? tool.chosen()->usageExitCode() : kExitUsage;
  }
  Command* command = tool.chosen();
  std::string error;
  if (command == nullptr) {
    complain("which command? tarn --help lists them");
    return kExitUsage;
  }
  if (!takeCard(&tool, command, words, &error)) {
    complain(withShortNumbers(error));
    return command->usageExitCode();
  }
  if (tool.viewPipe >= 0) return runInside(command, tool);
  if (tool.card.empty() && command->isDryRun()) tool.card = deviceName(kRecorderPartition);
  // On the recorder itself there is no view, and nothing that it would keep from the card.
  if (!tool.card.empty() && command->asksReadOnly()) tool.access.readOnly = true;
  if (!tool.access.decide(tool.card, *command, tool.nameOf(command), &error)) {
    complain(error);
    return command->refusedExitCode();
  }
  if (!command->needsRecorder() && tool.access.original() == nullptr) {
    command->setCard(tool.card);
    return runCommand(command);
  }
  if (!tool.card.empty()) return runInView(tool, command, words);
  catchStopSignals();
  return runCommand(command);
}

}  // namespace
}  // namespace tarn

TARN_ENDS_WHEN_OUT_OF_MEMORY("tarn")

int main(int argc, char** argv) {
  if (!tarn::openStandardStreams()) return tarn::kExitFailed;
  return tarn::withOutput(tarn::guarded([argc, argv] { return tarn::runTool(argc, argv); }));
}
