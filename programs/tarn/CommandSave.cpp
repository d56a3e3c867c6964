#include "Command.h"
#include "Console.h"
#include "RecoveryLine.h"
#include "StandardOutputMuted.h"
#include "recorder/recovery/Recovery.h"

namespace tarn {
namespace {

class CommandSave : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand(
        "save", "Save the database into its image on the card, as the last step of a clean stop");
    addCard(app);
    return app;
  }

  bool needsServer() const override { return false; }

  int run() override {
    std::string error;
    {
      const StandardOutputMuted muted;
    const RecoveryLine line;
      if (Recovery().saveImage(&error) == 0) return kExitGood;
    }
    complain(error);
    return kExitFailed;
  }
};

}  // namespace

std::unique_ptr<Command> makeSaveCommand() { return std::make_unique<CommandSave>(); }

}  // namespace tarn
