#include <signal.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>

#include "ChildProcess.h"
#include "Command.h"
#include "Console.h"

namespace tarn {
namespace {

class CommandRun : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand(
        "run", "Run a program on the recorder; with --card, in a private view on a card");
    app->add_option("CARD", card_, "block device or image file, as with --card");
    app->add_flag("--early", early_,
                  "with --card: start the program beside the recovery, not behind it; for programs "
                  "that wait for the management server themselves, as \"tarn record\" does");
    app->add_option("COMMAND", words_, "the program and its arguments, behind --");
    app->footer(std::string(kExitCodesText) + "\nOnce the program runs, its own.");
    return app;
  }

  // Whatever the program does.
  bool worksReadOnly() const override { return true; }

  // Only the dashes tell a card in front of the program from the program.
  bool sortWords(const WordsAsGiven& given, std::string* error) override {
    const auto dashes = std::find(given.begin(), given.end(), "--");
    const size_t behind =
        dashes == given.end() ? SIZE_MAX : static_cast<size_t>(given.end() - dashes) - 1;
    if (!card_.empty() && words_.size() < behind) {
      words_.insert(words_.begin(), card_);
      card_.clear();
    }
    if (words_.empty()) *error = "which program? It stands behind --";
    if (dashes != given.end() && words_.size() > behind)
      *error = "behind -- stands the program, in front of it no more than a card";
    return error->empty();
  }

  // A recorder receives from the first moment on.
  bool beginEarly() override {
    if (!isRecorder()) return early_;
    words_.insert(words_.begin() + 2, "--wait-for-start");
    return true;
  }

  int run() override {
    ChildProcess program;
    // A tool that is killed must not leave its command behind, alone with the card.
    if (!program.start(words_, [] { prctl(PR_SET_PDEATHSIG, SIGTERM); })) {
      complain("cannot make a process for " + words_[0]);
      return kExitFailed;
    }
    return program.wait();
  }

  // The program brings its neighbours, arguments come alone.
  std::vector<std::string> shownPaths() const override {
    std::vector<std::string> paths = words_;
    std::error_code error;
    const std::filesystem::path program = std::filesystem::absolute(words_[0], error);
    if (!error && words_[0].find('/') != std::string::npos) {
      paths.push_back(program.parent_path().string());
    }
    return paths;
  }

 private:
  // This tool's own, which can wait.
  bool isRecorder() const {
    return words_.size() > 1 && words_[1] == "record" &&
           std::filesystem::path(words_[0]).filename() == "tarn";
  }

  std::vector<std::string> words_;
  bool early_ = false;
};

}  // namespace

std::unique_ptr<Command> makeRunCommand() { return std::make_unique<CommandRun>(); }

}  // namespace tarn
