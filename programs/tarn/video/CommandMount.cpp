#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "Command.h"
#include "Console.h"
#include "RecorderHint.h"
#include "recorder/rows/RecorderDatabase.h"
#include "video/MountPoint.h"
#include "video/MountServer.h"

namespace tarn {
namespace {

constexpr char kOutside[] = "--outside";
constexpr char kNotBuilt[] = "this build cannot mount a card: it lacks FUSE (libfuse3)";

class CommandMount : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand(
        "mount", "Show what is recorded as folders of movies, to be read by any program");
    app->add_option("WORD", words_, "[CARD] DIR: a card, as with --card, and where to mount it");
    app->add_option("--channel", channel_, "only recordings of this channel")
        ->check(CLI::Range(0, 127));
    app->add_flag("--foreground", foreground_, "stay until it is unmounted or interrupted");
    app->add_flag("--json", json_, "say as JSON where it is mounted");
    app->add_option(kOutside, outside_)->group("");
    app->footer(std::string(kExitCodesText) + "\nUnmount it with: fusermount3 -u DIR");
    return app;
  }

  bool changesCard() const override { return false; }
  bool asksServer() const override { return false; }

  bool sortWords(const WordsAsGiven& /*given*/, std::string* error) override {
    if (words_.empty() || words_.size() > 2) {
      *error = "say where to mount it: tarn mount [CARD] DIR";
      return false;
    }
    directory_ = words_.back();
    if (words_.size() == 2) card_ = words_.front();
    return true;
  }

  // The directory is out of reach in the view.
  bool beforeView(const std::string& /*card*/, bool /*readOnly*/, WordsAsGiven* words,
                  std::string* error) override {
    int ready = -1;
    if (!prepare(&ready, error)) return false;
    const UniqueFd keepsReady(ready);
    socket_ = MountPoint::startOutside(directory_, ready, error);
    if (!socket_.valid()) return false;
    words->insert(words->end(), {kOutside, std::to_string(socket_.get())});
    return true;
  }

  int run() override {
    std::string error;
    int ready = -1;
    if (outside_ < 0 && !prepare(&ready, &error)) return failed(error);
    if (!databaseIsGood(stopRequested, &error)) return failed(withHint(error));
    UniqueFd device = outside_ >= 0 ? MountPoint::mountOutside(outside_, &error)
                                    : MountPoint::mount(directory_, &error);
    if (!device.valid()) return failed(error);
    if (foreground_) fmt::print("{}", result());
    fflush(stdout);
    const UniqueFd told(ready);
    const bool waited = ready < 0 || write(ready, "", 1) == 1;
    const bool good = serve(std::move(device)) && waited;
    return good ? kExitGood : kExitFailed;
  }

 private:
  static int failed(const std::string& error) {
    complain(error);
    return kExitFailed;
  }

  // What a program that called this reads, as soon as it is mounted; "" for a person.
  std::string result() const {
    if (!json_) return "";
    const nlohmann::ordered_json told = {{"schema", 1}, {"mounted", directory_}};
    return told.dump(2, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
  }

  // Before there is anything: from here on in the background, where it was not asked to stay.
  bool prepare(int* ready, std::string* error) const {
    if (!MountServer::isBuilt()) *error = kNotBuilt;
    if (!error->empty() || !MountPoint::isUsable(directory_, error)) return false;
    if (foreground_) return true;
    *ready = continueInBackground(result(), error);
    if (*ready < 0) return false;
    error->clear();
    return true;
  }

  bool serve(UniqueFd device) const {
    MountedCard card(channel_);
    MountServer server(&card);
    const MountServer::End end = server.serve(std::move(device));
    const bool mounted = end != MountServer::End::kUnmounted;
    if (outside_ >= 0) {
      MountPoint::endOutside(outside_, mounted);
    } else if (mounted) {
      MountPoint::unmount(directory_);
    }
    if (end == MountServer::End::kFailed) complain("the mounted card cannot be served");
    return end != MountServer::End::kFailed;
  }

  std::vector<std::string> words_;
  std::string directory_;
  std::optional<int> channel_;
  bool foreground_ = false;
  bool json_ = false;
  int outside_ = -1;  // in a view: the socket of the process that mounts
  UniqueFd socket_;   // in front of one: the same, for it
};

}  // namespace

std::unique_ptr<Command> makeMountCommand() { return std::make_unique<CommandMount>(); }

}  // namespace tarn
