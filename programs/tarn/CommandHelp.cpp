#include <cstdio>

#include "Command.h"
#include "Console.h"

namespace tarn {
namespace {

class CommandHelp : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    tool_ = &tool;
    CLI::App* app = tool.add_subcommand("help", "Say what the tool or one of its commands does");
    app->add_option("COMMAND", name_, "the command; default: the tool itself");
    return app;
  }

  bool needsRecorder() const override { return false; }
  bool changesCard() const override { return false; }

  int run() override {
    if (name_.empty()) {
      // Its own help() would be that of this command, which is the one that was chosen.
      fputs(tool_->get_formatter()
                ->make_help(tool_, tool_->get_name(), CLI::AppFormatMode::Normal)
                .c_str(),
            stdout);
      return kExitGood;
    }
    for (const CLI::App* command : tool_->get_subcommands(nullptr)) {
      if (command->get_name() != name_) continue;
      fputs(command->help(tool_->get_name()).c_str(), stdout);
      return kExitGood;
    }
    complain("there is no command \"" + name_ + "\"; tarn help lists them");
    return kExitUsage;
  }

 private:
  const CLI::App* tool_ = nullptr;
  std::string name_;
};

}  // namespace

std::unique_ptr<Command> makeHelpCommand() { return std::make_unique<CommandHelp>(); }

}  // namespace tarn
