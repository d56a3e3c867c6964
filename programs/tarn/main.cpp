// tarn: formats and inspects cards, records, lists and exports, on a recorder or in a private view.

#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <new>
#include <system_error>

#include "CardAccess.h"
#include "CardView.h"
#include "Command.h"
#include "Console.h"
#include "ViewSession.h"
#include "base/StandardStreams.h"
#include "fat/ChunkFiles.h"
#include "programs/OutOfMemory.h"

namespace tarn {
namespace {

constexpr char kOutputFailed[] = "standard output could not be written";
// Beside --inside-view: the card is an overlay, which nobody will see again.
constexpr char kInsideReadOnly[] = "--inside-read-only";
constexpr char kFooter[] =
    "Exit codes: 0 done; 1 failed, with the reason on standard error; 2 wrong usage.\n"
    "run passes on the exit code of its command.";

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
    app.add_option("--shown-name", shownName)->group("");
    app.add_option("--inside-view", viewPipe)->group("");
    app.add_flag(kInsideReadOnly, insideReadOnly)->group("");
    app.set_version_flag("--version", "tarn " TARN_VERSION, "print the version and exit");
    app.require_subcommand(0, 1);
    app.footer(kFooter);
    for (const auto& command : commands) subcommands.push_back(command->addTo(app));
  }

  Command* chosen() const {
    for (size_t i = 0; i < commands.size(); ++i) {
      if (subcommands[i]->parsed()) return commands[i].get();
    }
    return nullptr;
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
  if (!told || session.open(&error) != 0) {
    complain(error);
    return kExitFailed;
  }
  const int exitCode = runCommand(command);
  if (session.close(&error) != 0) {
    complain(error);
    return exitCode == kExitGood ? kExitFailed : exitCode;
  }
  return exitCode;
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

int runInView(const Tool& tool, Command* command, int argc, char** argv) {
  CardView view;
  std::string error;
  std::vector<std::string> arguments(argv + 1, argv + argc);
  CardOriginal* original = tool.access.original();
  if (original != nullptr) {
    arguments.insert(arguments.begin(), {kInsideReadOnly, "--shown-name", tool.card});
  }
  const int exitCode =
      original == nullptr
          ? view.run(tool.card, arguments, pathsToShow(command), &error)
          : view.runReadOnly(tool.card, original, arguments, pathsToShow(command), &error);
  if (exitCode >= 0) return exitCode;
  complain(error);
  return kExitFailed;
}

int runTool(int argc, char** argv) {
  Tool tool;
  try {
    tool.app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    const Command* command = tool.chosen();
    const int usage = command != nullptr ? command->usageExitCode() : kExitUsage;
    return tool.app.exit(error) == 0 ? kExitGood : usage;
  }
  Command* command = tool.chosen();
  if (command == nullptr) {
    complain("which command? tarn --help lists them");
    return kExitUsage;
  }
  if (tool.viewPipe >= 0) return runInside(command, tool);
  if (tool.card.empty()) tool.card = command->ownCard();
  if (tool.card.empty() && command->isDryRun()) tool.card = deviceName(kRecorderPartition);
  // On the recorder itself there is no view, and nothing that it would keep from the card.
  if (!tool.card.empty() && command->asksReadOnly()) tool.access.readOnly = true;
  std::string error;
  if (!tool.access.decide(tool.card, *command, tool.nameOf(command), &error)) {
    complain(error);
    return kExitFailed;
  }
  if (!command->needsRecorder() && tool.access.original() == nullptr) {
    if (!tool.card.empty()) command->setCard(tool.card);
    return runCommand(command);
  }
  if (!tool.card.empty()) return runInView(tool, command, argc, argv);
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
