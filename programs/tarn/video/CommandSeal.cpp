#include <fmt/format.h>

#include "Command.h"
#include "Console.h"
#include "media/seal/FileSealer.h"
#include "video/SealOptions.h"
#include "video/ShownProgress.h"

namespace tarn {
namespace {

class CommandSeal : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("seal", "Put another seal on a sealed file");
    app->add_option("FILE", path_, "file that 'tarn export --seal' wrote")->required();
    seal_.addTo(app, true);
    return app;
  }

  bool needsRecorder() const override { return false; }
  bool changesCard() const override { return false; }

  int run() override {
    std::string error;
    const SealRequest request = seal_.request();
    bool sealed = false;
    {
      ProgressLine line;
      sealed = sealFile(path_, request, &error, shownOn(&line, path_));
    }
    if (!sealed) {
      complain(error);
      return kExitFailed;
    }
    fmt::print("{}: sealed once more\n", path_);
    return kExitGood;
  }

 private:
  std::string path_;
  SealOptions seal_;
};

}  // namespace

std::unique_ptr<Command> makeSealCommand() { return std::make_unique<CommandSeal>(); }

}  // namespace tarn
