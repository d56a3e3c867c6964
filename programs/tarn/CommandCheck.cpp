#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "CardView.h"
#include "Command.h"
#include "Console.h"
#include "StandardOutputMuted.h"
#include "fat/ChunkFiles.h"
#include "recorder/CardCheck.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

// Exit codes of their own, as programs that check file systems have them.
constexpr int kExitClean = 0;
constexpr int kExitCorrected = 1;
constexpr int kExitLeft = 4;
constexpr int kExitNotRun = 8;
constexpr int kExitCheckUsage = 16;

Json findingJson(const CardFinding& finding) {
  Json json = {{"kind", findingKindName(finding.kind)}, {"text", finding.text}};
  if (finding.streamID != 0) json["streamID"] = finding.streamID;
  if (finding.eventID != 0) json["eventID"] = finding.eventID;
  if (finding.chunk >= 0) json["chunk"] = finding.chunk;
  if (finding.from != 0) json["from"] = isoTime(finding.from, 0);
  if (finding.to != 0) json["to"] = isoTime(finding.to, 0);
  return json;
}

Json countsJson(const CardFindings& findings) {
  Json counts = Json::object();
  for (size_t i = 0; i < kFindingKinds; ++i) {
    const auto kind = static_cast<FindingKind>(i);
    if (findings.count(kind) != 0) counts[findingKindName(kind)] = findings.count(kind);
  }
  return counts;
}

Json findingsJson(const CardFindings& findings) {
  Json list = Json::array();
  for (const CardFinding& finding : findings.list()) list.push_back(findingJson(finding));
  return list;
}

class CommandCheck : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand(
        "check", "Look through a card for whatever is wrong with it; changes nothing");
    app->add_option("CARD", card_, "block device or image file; default: the recorder's own");
    app->add_flag("--json", json_, "print JSON");
    app->add_flag("--repair", repair_, "run the recovery when something was found, and look again");
    app->footer(
        "Exit codes: 0 clean; 1 corrected; 4 something is left; 8 could not run; 16 wrong usage.");
    return app;
  }

  bool needsRecorder() const override { return false; }
  int usageExitCode() const override { return kExitCheckUsage; }
  void setCard(const std::string& card) override {
    if (card_.empty()) card_ = card;
  }

  int run() override {
    if (card_.empty()) card_ = deviceName(kRecorderPartition);
    catchStopSignals();
    CardCheck before;
    if (!look(&before)) return kExitNotRun;
    if (before.findings().total() == 0 || !repair_) {
      print(before, nullptr);
      return before.findings().total() == 0 ? kExitClean : kExitLeft;
    }
    CardCheck after;
    if (!recover() || !look(&after)) return kExitNotRun;
    print(before, &after);
    return after.findings().total() == 0 ? kExitCorrected : kExitLeft;
  }

 private:
  bool look(CardCheck* check) const {
    ProgressLine line;
    CardCheckOptions options;
    options.progress = [&line](uint64_t done, uint64_t total) {
      line.show(fmt::format("recording {} of {}", done, total));
      return !stopRequested();
    };
    std::string error;
    if (check->run(card_, options, &error) == 0) return true;
    complain(error);
    return false;
  }

  // As a recorder does it when it starts, on this card in a private view.
  bool recover() const {
    CardView view;
    std::string error;
    int exitCode = -1;
    {
      const StandardOutputMuted muted;
      exitCode = view.run(card_, {"recover"}, {}, &error);
    }
    if (exitCode < 0) complain(error);
    return exitCode == kExitGood;
  }

  void print(const CardCheck& before, const CardCheck* after) const {
    if (json_) {
      printJson(before, after);
      return;
    }
    printFindings(before.findings());
    if (after != nullptr) {
      fmt::print("{}, then the recovery ran\n", countText(before.findings().total()));
      printFindings(after->findings());
    }
    const CardCheck& last = after != nullptr ? *after : before;
    fmt::print("{}: {}, {} recordings, {} events, {} pictures\n", card_,
               last.findings().total() == 0 ? "clean" : countText(last.findings().total()),
               last.streamRows(), last.eventRows(), last.pictures());
    for (size_t i = 0; i < kFindingKinds; ++i) {
      const auto kind = static_cast<FindingKind>(i);
      const size_t count = last.findings().count(kind);
      if (count != 0) fmt::print("  {:<14} {:>8}\n", findingKindName(kind), count);
    }
  }

  static std::string countText(size_t count) {
    return fmt::format("{} {}", count, count == 1 ? "finding" : "findings");
  }

  static void printFindings(const CardFindings& findings) {
    for (const CardFinding& finding : findings.list()) fmt::print("{}\n", finding.text);
    if (findings.list().size() < findings.total()) {
      fmt::print("and {} more\n", findings.total() - findings.list().size());
    }
  }

  void printJson(const CardCheck& before, const CardCheck* after) const {
    const CardCheck& last = after != nullptr ? *after : before;
    Json json = {{"schema", 1},
                 {"card", card_},
                 {"clean", last.findings().total() == 0},
                 {"recordings", last.streamRows()},
                 {"events", last.eventRows()},
                 {"pictures", last.pictures()},
                 {"counts", countsJson(last.findings())},
                 {"findings", findingsJson(last.findings())}};
    if (after != nullptr) {
      json["corrected"] = {{"counts", countsJson(before.findings())},
                           {"findings", findingsJson(before.findings())}};
    }
    // Names come from the command line and need not be UTF-8.
    fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace));
  }

  std::string card_;
  bool json_ = false;
  bool repair_ = false;
};

}  // namespace

std::unique_ptr<Command> makeCheckCommand() { return std::make_unique<CommandCheck>(); }

}  // namespace tarn
