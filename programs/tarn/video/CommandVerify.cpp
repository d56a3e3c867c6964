#include "Command.h"
#include "Console.h"
#include "media/seal/FileVerifier.h"
#include "video/ShownProgress.h"
#include "video/VerifyOutput.h"

namespace tarn {
namespace {

constexpr int kExitNoSeal = 2;

class CommandVerify : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("verify", "Prove that sealed files are unchanged");
    app->add_option("FILE", paths_, "sealed files")->required();
    app->add_option("--ca", authorities_,
                    "certificates to believe, PEM: one of them must vouch for every seal's")
        ->type_name("FILE");
    app->add_flag("--json", json_, "print as JSON what is proven");
    app->footer(
        "Exit codes: 0 all are proven unchanged; 1 one is not; 2 one cannot be read or has no "
        "seal, or wrong usage.");
    return app;
  }

  bool needsRecorder() const override { return false; }
  bool changesCard() const override { return false; }

  int run() override {
    FileVerifier verifier;
    std::string error;
    for (const std::string& path : authorities_) {
      if (verifier.trust(path, &error)) continue;
      complain(error);
      return kExitNoSeal;
    }
    std::vector<VerifiedFile> files;
    for (const std::string& path : paths_) {
      ProgressLine line;
      files.push_back({path, verifier.verify(path, shownOn(&line, path))});
    }
    if (json_) printVerifyJson(files);
    int exitCode = kExitGood;
    for (const VerifiedFile& file : files) {
      if (!json_) tellVerified(file);
      if (file.proof.proven()) continue;
      const int own = file.proof.readable ? kExitFailed : kExitNoSeal;
      // That one was changed outweighs that another could not be read.
      if (exitCode != kExitFailed) exitCode = own;
    }
    return exitCode;
  }

 private:
  std::vector<std::string> paths_;
  std::vector<std::string> authorities_;
  bool json_ = false;
};

}  // namespace

std::unique_ptr<Command> makeVerifyCommand() { return std::make_unique<CommandVerify>(); }

}  // namespace tarn
