#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "Command.h"
#include "Console.h"
#include "RecorderHint.h"
#include "dblog/CDbLog.h"
#include "media/archive/ArchiveFollower.h"
#include "media/archive/ArchiveStore.h"
#include "media/archive/ArchiveVerifier.h"
#include "media/archive/CardArchiver.h"
#include "media/archive/CardRestorer.h"
#include "media/archive/RemoteName.h"
#include "recorder/card/CardText.h"
#include "recorder/card/TimeZone.h"
#include "recorder/log/LogFormat.h"
#include "video/ArchiveConfig.h"
#include "video/SealOptions.h"

namespace tarn {
namespace {

// Names come from wherever an archive lies: neither a terminal nor a program takes harm from them.
std::string jsonText(const nlohmann::ordered_json& json) {
  return json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

class CommandArchive : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app =
        tool.add_subcommand("archive", "Archive recordings and events in a directory or a remote");
    app->add_option("PLACE", words_,
                    "a CARD, as with --card, where it is not the recorder's own; then where the "
                    "archive is: a directory, or REMOTE:PATH of rclone's; without it the "
                    "configuration says where");
    app->add_option("--config", config_, "configuration that is used without PLACE")
        ->type_name("FILE")
        ->capture_default_str();
    app->add_flag("--check-config", checkConfig_,
                  "look at the configuration only, and say what it archives");
    app->add_flag("--follow", follow_,
                  "Stay, and archive events as they end, all else now and then");
    app->add_flag("--while-recording", settings_.whileRecording,
                  "make way for whoever records on the same card");
    app->add_flag("--verify", verify_,
                  "compare an archive with what it says of itself; needs no card");
    app->add_option("--recorder", settings_.recorder,
                    "what the recorder is called in the archive; default: the number of its card")
        ->type_name("ID");
    addTime(app, "--since", "only what ends at this time or later", TimeInput::Edge::kStart,
            &settings_.since);
    app->add_option_function<std::string>(
           "--limit-rate",
           [this](const std::string& text) {
             if (!parseSize(text, &settings_.bytesPerSecond) || settings_.bytesPerSecond == 0)
               throw CLI::ValidationError("--limit-rate", "\"" + text + "\" is no size");
           },
           "send no more than this in a second: bytes, or K, M, G")
        ->type_name("SIZE");
    app->add_option("--timeout", settings_.patienceSeconds,
                    "seconds that a remote may move nothing before it is given up; default: 120")
        ->check(CLI::Range(1, 86400))
        ->type_name("SECONDS");
    app->add_flag("--trust-size", settings_.trustSize,
                  "do not read back what a remote without hashes has taken");
    seal_.addTo(app, false);
    app->add_option("--ca", authorities_,
                    "with --verify and --restore: certificates to believe, PEM: one of them must "
                    "vouch for the "
                    "seal of every clip")
        ->type_name("FILE");
    app->add_flag(
        "--restore", restore_,
        "the other way round: put what an archive has back onto a card, each clip once it "
        "is proven");
    app->add_flag("--dry-run", settings_.dryRun, "only say what would be sent");
    app->add_flag("--json", json_, "print as JSON what was done");
    return app;
  }

  bool changesCard() const override { return restore_; }
  bool asksServer() const override { return restore_; }
  bool needsRecorder() const override { return !verify_ && !checkConfig_; }

  bool sortWords(const WordsAsGiven& /*given*/, std::string* error) override {
    const size_t most = verify_ ? 1 : 2;
    if (words_.size() > most) *error = "archive one card in one place";
    if (checkConfig_ && !words_.empty())
      *error = "--check-config: a PLACE is not the configuration's";
    if (!error->empty() || (words_.empty() && !takeConfig(error))) return false;
    if (!words_.empty()) settings_.place = restore_ ? words_.front() : words_.back();
    while (settings_.place.size() > 1 && settings_.place.back() == '/') settings_.place.pop_back();
    if (settings_.place.empty()) *error = "say where the archive is";
    if (words_.size() == 2) card_ = restore_ ? words_.back() : words_.front();
    if (!verify_ && !restore_ && !authorities_.empty())
      *error = "--ca is for --verify and --restore";
    if (restore_ && (verify_ || follow_ || settings_.dryRun || settings_.trustSize ||
                     settings_.whileRecording || settings_.bytesPerSecond != 0 || seal_.asked()))
      *error = "--restore takes from an archive, and sends nothing";
    if (verify_ && (settings_.since || settings_.dryRun || settings_.trustSize ||
                    settings_.bytesPerSecond != 0 || seal_.asked()))
      *error = "--verify compares all of an archive, and sends nothing";
    if (follow_ && (verify_ || settings_.since || settings_.dryRun || json_))
      *error = "--follow archives all there is, for good";
    return error->empty();
  }

  std::vector<std::string*> userPaths() override {
    std::vector<std::string*> paths = seal_.paths();
    for (std::string& authority : authorities_) paths.push_back(&authority);
    paths.push_back(&config_);
    if (!ArchiveStore::isRemote(settings_.place)) paths.push_back(&settings_.place);
    return paths;
  }

  int run() override {
    if (checkConfig_) return tellConfig();
    if (verify_) return verify();
    if (restore_) return restore();
    // Findings tell times, and an archive has those of UTC.
    std::string ignored;
    TimeZone::choose("UTC", &ignored);
    if (seal_.asked()) settings_.seal = seal_.request();  // its paths as they are here
    return follow_ ? follow() : archive();
  }

 private:
  // What stands on the command line counts in place of it.
  bool takeConfig(std::string* error) {
    CardArchiver::Settings file;
    if (!readArchiveConfig(config_, &file, &everySeconds_, error)) {
      if (!checkConfig_) *error = "no PLACE, and " + *error;
      return false;
    }
    settings_.place = file.place;
    settings_.seal = file.seal;
    if (settings_.recorder.empty()) settings_.recorder = file.recorder;
    if (settings_.bytesPerSecond == 0) settings_.bytesPerSecond = file.bytesPerSecond;
    if (settings_.patienceSeconds == kPatienceSeconds)
      settings_.patienceSeconds = file.patienceSeconds;
    settings_.trustSize = settings_.trustSize || file.trustSize;
    return true;
  }

  int tellConfig() const {
    fmt::print("{}: archives in {} as {}, every {} s, {}, {}\n", config_,
               RemoteName(settings_.place).shown(),
               settings_.recorder.empty() ? "the number of its card" : settings_.recorder,
               everySeconds_,
               settings_.bytesPerSecond == 0
                   ? "as fast as it goes"
                   : "at most " + sizeText(settings_.bytesPerSecond) + " a second",
               settings_.seal ? "sealed with " + settings_.seal->key : "not sealed");
    return kExitGood;
  }

  int restore() {
    CardRestorer::Settings settings;
    settings.place = settings_.place;
    settings.recorder = settings_.recorder;
    settings.since = settings_.since;
    settings.authorities = authorities_;
    settings.patienceSeconds = settings_.patienceSeconds;
    CardRestorer restorer(settings);
    bool good = false;
    {
      ProgressLine line;
      good =
          restorer.run(stopRequested, [&line](const std::string& clip, size_t done, size_t clips) {
            line.show(fmt::format("{} of {}: {}", done, clips, clip));
          });
    }
    CDbLog::getInstance()->finish();
    tellRestored(restorer.report());
    if (*restorer.error() != '\0') complain(withHint(restorer.error()));
    return good ? kExitGood : kExitFailed;
  }

  void tellRestored(const CardRestorer::Report& report) const {
    nlohmann::ordered_json failures = nlohmann::ordered_json::array();
    for (const auto& one : report.failures)
      failures.push_back({{"object", one.object}, {"reason", one.reason}});
    if (json_) {
      const nlohmann::ordered_json json = {{"schema", 1},
                                           {"restored", report.restored},
                                           {"present", report.present},
                                           {"events", report.events},
                                           {"failed", failures}};
      fmt::print("{}\n", jsonText(json));
    } else {
      fmt::print("{} recordings restored, {} were there already, {} events\n",
                 report.restored.size(), report.present, report.events);
    }
    for (const auto& one : report.failures) complain(logCleanText(one.object + " " + one.reason));
  }

  int follow() {
    catchStopSignals();
    ArchiveFollower(settings_, everySeconds_).run(stopRequested);
    return kExitGood;
  }

  int archive() {
    CardArchiver archiver(settings_);
    bool good = false;
    {
      ProgressLine line;
      good = archiver.run(stopRequested, [&line](const std::string& clip, size_t done, size_t clips,
                                                 uint64_t bytes) {
        line.show(fmt::format("{} of {}, {} sent: {}", done, clips, sizeText(bytes), clip));
      });
    }
    const ArchiveReport& report = archiver.report();
    if (json_) {
      printJson(report);
    } else {
      print(report);
    }
    if (!report.endangered.empty())
      warn(fmt::format(
          "{} recordings that the ring overwrites next are not archived, the first is {}",
          report.endangered.size(), report.endangered.front()));
    for (const auto& one : report.incomplete) warn(one.object + ": " + one.reason);
    for (const auto& one : report.failures) complain(one.object + ": " + one.reason);
    if (*archiver.error() != '\0') complain(withHint(archiver.error()));
    return good ? kExitGood : kExitFailed;
  }

  void print(const ArchiveReport& report) const {
    if (settings_.dryRun) {
      for (const std::string& clip : report.uploaded) fmt::print("{}\n", clip);
      fmt::print("{} clips would be sent, {} are there already, {} are not over\n",
                 report.uploaded.size(), report.present, report.waiting);
      return;
    }
    fmt::print("{} clips sent ({}), {} were there already, {} are not over\n",
               report.uploaded.size(), sizeText(report.bytes), report.present, report.waiting);
    if (report.byHash + report.byReadBack + report.bySize > 0)
      fmt::print(
          "proven by the remote's hash: {} objects, by reading back: {}, by size alone: {}\n",
          report.byHash, report.byReadBack, report.bySize);
  }

  static nlohmann::ordered_json listOf(const std::vector<ArchiveReport::Failure>& failures) {
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& one : failures)
      list.push_back({{"object", one.object}, {"reason", one.reason}});
    return list;
  }

  void printJson(const ArchiveReport& report) const {
    const nlohmann::ordered_json json = {
        {"schema", 1},
        {"recorder", report.recorder},
        {"dryRun", settings_.dryRun},
        {"sent", report.uploaded},
        {"bytes", report.bytes},
        {"present", report.present},
        {"waiting", report.waiting},
        {"indexes", report.indexes},
        {"endangered", report.endangered},
        {"proven",
         {{"hash", report.byHash}, {"readBack", report.byReadBack}, {"size", report.bySize}}},
        {"incomplete", listOf(report.incomplete)},
        {"failed", listOf(report.failures)}};
    fmt::print("{}\n", jsonText(json));
  }

  int verify() {
    catchStopSignals();
    ArchiveVerifier verifier(settings_.place, settings_.recorder);
    verifier.waitAtMost(settings_.patienceSeconds);
    verifier.trust(authorities_);
    bool read = false;
    {
      ProgressLine line;
      read = verifier.run(stopRequested, [&line](size_t done, size_t objects) {
        line.show(fmt::format("{} of {} objects compared", done, objects));
      });
    }
    nlohmann::ordered_json list = nlohmann::ordered_json::array();
    for (const auto& one : verifier.findings()) {
      list.push_back({{"object", one.object}, {"text", one.text}});
      if (!json_) fmt::print("{}\n", logCleanText(one.object + " " + one.text));
    }
    if (json_) {
      fmt::print("{}\n",
                 jsonText({{"schema", 1}, {"clips", verifier.objects()}, {"findings", list}}));
    } else {
      fmt::print("{} clips compared, {} findings\n", verifier.objects(), list.size());
    }
    if (!read) complain(verifier.error());
    return read && list.empty() ? kExitGood : kExitFailed;
  }

  std::vector<std::string> words_;
  CardArchiver::Settings settings_;
  SealOptions seal_;
  std::vector<std::string> authorities_;
  std::string config_ = kArchiveConfig;
  uint32_t everySeconds_ = kArchiveEverySeconds;
  bool checkConfig_ = false;
  bool follow_ = false;
  bool restore_ = false;
  bool verify_ = false;
  bool json_ = false;
};

}  // namespace

std::unique_ptr<Command> makeArchiveCommand() { return std::make_unique<CommandArchive>(); }

}  // namespace tarn
