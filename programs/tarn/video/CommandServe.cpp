#include <fmt/format.h>
#include <poll.h>

#include "Command.h"
#include "Console.h"
#include "media/seal/SealingKey.h"
#include "media/serve/HttpServer.h"
#include "media/serve/ServeApi.h"
#include "recorder/rows/RecorderDatabase.h"
#include "video/MakeDownload.h"
#include "video/PageFiles.h"
#include "video/SealOptions.h"

namespace tarn {
namespace {

constexpr int kLookMs = 100;

class CommandServe : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand(
        "serve", "Show what is recorded, and what is being recorded, in a browser");
    addCard(app);
    app->add_option("--listen", listen_, "where to listen; port 0 takes a free one")
        ->type_name("ADDRESS:PORT")
        ->capture_default_str();
    app->add_flag("--read-only", settings_.readOnly,
                  "leave CARD as it is: what its start mends stays in memory; on a recorder, no "
                  "check of its card from the page");
    app->add_option("--token-file", options_.tokenFile,
                    "only for who knows the first line of this file")
        ->type_name("FILE");
    app->add_option("--tls-certificate", options_.certificate, "answer over TLS, with this chain")
        ->type_name("FILE");
    app->add_option("--tls-key", options_.key, "private key of the certificate")->type_name("FILE");
    app->add_option("--downloads", settings_.downloads,
                    "where evidence and sealed movies are made before they are sent; each takes up "
                    "to half of the room there")
        ->type_name("DIR")
        ->capture_default_str();
    seal_.addTo(app, false);
    app->footer(std::string(kExitCodesText) +
                "\nBeyond the loopback (--listen 0.0.0.0:8420) all three files are needed.");
    return app;
  }

  bool changesCard() const override { return false; }
  bool asksReadOnly() const override { return settings_.readOnly; }
  std::vector<std::string*> userPaths() override {
    std::vector<std::string*> paths = {&options_.tokenFile, &options_.certificate, &options_.key};
    // Unless told otherwise that is the view's own.
    if (settings_.downloads != ServeSettings().downloads) paths.push_back(&settings_.downloads);
    const std::vector<std::string*> ofSeal = seal_.paths();
    paths.insert(paths.end(), ofSeal.begin(), ofSeal.end());
    return paths;
  }

  int run() override {
    std::string error;
    if (!options_.place.parse(listen_, &error)) {
      complain(error);
      return kExitUsage;
    }
    settings_.version = TARN_VERSION;
    settings_.mayCheck = !(settings_.readOnly && card_.empty());
    if (!prepareDownloads(&error)) {
      complain(error);
      return kExitFailed;
    }
    if (databaseIsGood(stopRequested, &error) && serve(&error)) return kExitGood;
    complain(error);
    return kExitFailed;
  }

 private:
  // A key that does not do is told now, and not to somebody who waits for a download.
  bool prepareDownloads(std::string* error) {
    std::optional<SealRequest> seal;
    if (seal_.asked()) seal = seal_.request();
    SealingKey key;
    if (seal && !key.load(*seal)) {
      *error = key.error();
      return false;
    }
    settings_.seals = seal.has_value();
    settings_.maker = downloadMaker(seal);
    return true;
  }

  bool serve(std::string* error) {
    ServeApi api(settings_, pageFiles());
    HttpServer server([&api](const HttpRequest& request) { return api.answer(request); });
    if (!api.start(error) || !server.start(options_, error)) return false;
    fmt::print("{}\n", server.address());
    fflush(stdout);
    while (!stopRequested()) poll(nullptr, 0, kLookMs);
    api.stop();
    server.stop();
    return true;
  }

  std::string listen_ = "127.0.0.1:8420";
  ServeSettings settings_;
  HttpOptions options_;
  SealOptions seal_;
};

}  // namespace

std::unique_ptr<Command> makeServeCommand() { return std::make_unique<CommandServe>(); }

}  // namespace tarn
