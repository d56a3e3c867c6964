#include <fmt/format.h>

#include <algorithm>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "CardView.h"
#include "Command.h"
#include "Console.h"
#include "RecoveryRehearsal.h"
#include "StandardOutputMuted.h"
#include "fat/ChunkFiles.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/card/CardRepair.h"
#include "recorder/card/TimeText.h"
#include "recorder/card/UndoFile.h"
#include "recorder/check/CardCheck.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

// Exit codes of their own, as programs that check file systems have them.
constexpr int kExitClean = 0;
constexpr int kExitCorrected = 1;
constexpr int kExitLeft = 4;
constexpr int kExitNotRun = 8;
constexpr int kExitCheckUsage = 16;

constexpr char kPart[] = ".part";
constexpr char kNotLookedAt[] =
    "nothing behind it was checked: what is lost, if anything, will show once it is mended";

Json findingJson(const CardFinding& finding) {
  Json json = {{"kind", findingKindName(finding.kind)},
               {"text", finding.text},
               {"consequence", consequenceName(finding.consequence)},
               {"meaning", finding.meaning}};
  if (finding.channel >= 0) json["channel"] = finding.channel;
  if (finding.isSound) json["sound"] = true;
  if (finding.videoMicros > 0) json["seconds"] = static_cast<double>(finding.videoMicros) / 1e6;
  if (finding.streamID != 0) json["streamID"] = finding.streamID;
  if (finding.eventID != 0) json["eventID"] = finding.eventID;
  if (finding.chunk >= 0) json["chunk"] = finding.chunk;
  if (finding.from != 0) json["from"] = TimeText::iso(finding.from, 0);
  if (finding.to != 0) json["to"] = TimeText::iso(finding.to, 0);
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
    addCard(app);
    app->add_flag("--json", json_, "print JSON");
    app->add_flag("--quick", quick_,
                  "read only the beginning of each picture: damage further on stays unseen");
    app->add_flag("--repair", repair_,
                  "mend what leads to the chunks, run the recovery when something was found, and "
                  "look again");
    app->add_flag("--dry-run", dryRun_, "with --repair: show what would be mended, change nothing")
        ->needs("--repair");
    app->add_option("--save-undo", undoFile_,
                    "with --repair: where to save what it changes outside the chunks; default: "
                    "beside an image file; a device needs it")
        ->needs("--repair")
        ->type_name("FILE");
    app->add_option("--undo", takeBack_, "take back what was changed with that file")
        ->excludes("--repair")
        ->type_name("FILE");
    app->footer(
        "Exit codes: 0 clean; 1 corrected; 4 something is left; 8 could not run; 16 wrong usage.");
    return app;
  }

  bool needsRecorder() const override { return false; }
  bool changesCard() const override { return (repair_ && !dryRun_) || !takeBack_.empty(); }
  int usageExitCode() const override { return kExitCheckUsage; }
  int refusedExitCode() const override { return kExitNotRun; }

  int run() override {
    if (card_.empty()) card_ = deviceName(kRecorderPartition);
    catchStopSignals();
    if (!takeBack_.empty()) return takeBack();
    // What else is wrong with FATs and boot sector is found by the look itself.
    const GeometryReport geometry = CardGeometry::verify(card_, GeometryDepth::kStart);
    const bool strays = geometry.opened && geometry.verdict == Delivery::kBad;
    if (strays && (!repair_ || dryRun_)) return tellGeometry(geometry.text);
    if (repair_ && geometry.opened && !mendGeometry(strays)) return kExitNotRun;
    CardCheck before;
    if (!look(&before)) return kExitNotRun;
    if (dryRun_) return tellDryRun(before);
    if (!steps_.empty() && before.findings().total() == 0) {
      print(before, nullptr);
      return kExitCorrected;
    }
    if (before.findings().total() == 0 || !repair_) {
      print(before, nullptr);
      return before.findings().total() == 0 ? kExitClean : kExitLeft;
    }
    CardCheck after;
    if (!saveUndo() || !recover() || !look(&after)) return kExitNotRun;
    if (undone_ && steps_.empty() && !json_) tellUndo();
    print(before, &after);
    return after.findings().total() == 0 ? kExitCorrected : kExitLeft;
  }

 private:
  int takeBack() const {
    std::string error;
    if (CardRepair::undo(card_, takeBack_, &error) != 0) {
      complain(error);
      return kExitNotRun;
    }
    fmt::print("{}: what {} holds was taken back\n", card_, takeBack_);
    return kExitClean;
  }

  // A card on which nothing can be looked at by the info file's word.
  int tellGeometry(const std::string& text) {
    std::string error;
    CardRepair repair;
    if (repair.plan(card_, &error) != 0) {
      complain(error);
      return kExitNotRun;
    }
    if (json_) {
      Json json = {{"schema", 1}, {"card", cardName(card_)}, {"clean", false}};
      json["counts"] = {{findingKindName(FindingKind::kFat), 1}};
      json["findings"] = {{{"kind", findingKindName(FindingKind::kFat)},
                           {"text", text},
                           {"consequence", consequenceName(Consequence::kUnknown)},
                           {"meaning", kNotLookedAt}}};
      json["repair"] = Json::array();
      for (const CardRepair::Step& step : repair.steps()) json["repair"].push_back(step.text);
      fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace));
      return kExitLeft;
    }
    fmt::print("{}\n  {}\n", text, kNotLookedAt);
    tellPlan(repair.steps(), "would be mended");
    return kExitLeft;
  }

  // Recovery decides on what it finds when it runs, so it is run where nothing of it is kept.
  int tellDryRun(const CardCheck& found) {
    const bool clean = found.findings().total() == 0;
    RecoveryRehearsal rehearsal;
    std::string error;
    if (!clean && rehearsal.run(card_, json_, "", &error)) plan_ = rehearsal.output();
    print(found, nullptr);
    if (!clean && !json_) tellRecovery(error);
    return clean && steps_.empty() ? kExitClean : kExitLeft;
  }

  // Behind its first line, which only says that it did nothing.
  void tellRecovery(const std::string& error) const {
    if (plan_.empty()) {
      fmt::print("then the recovery would run; what it would change is not known here: {}\n",
                 error);
    } else {
      fmt::print("then the recovery would run:\n{}", plan_.substr(plan_.find('\n') + 1));
    }
  }

  // What the recovery is about to change, into the undo file. False when that is there already, or
  // cannot be completed; where a recovery cannot be tried, it runs without.
  bool saveUndo() {
    std::string error;
    const bool chosen = !undoFile_.empty() || std::filesystem::is_regular_file(card_);
    if (!chosen) {
      warn("without --save-undo FILE what the recovery changes cannot be taken back");
      return true;
    }
    if (undoFile_.empty() && !chooseUndoFile()) return false;
    const std::string file = steps_.empty() ? undoFile_ : undoFile_ + kPart;
    RecoveryRehearsal rehearsal;
    if (std::filesystem::exists(file)) {
      complain(file + " is there already");
      return false;
    }
    if (!rehearsal.run(card_, json_, file, &error)) {
      warn("what the recovery changes cannot be taken back: " + error);
      return true;
    }
    undone_ = std::filesystem::exists(file);
    if (!undone_ || steps_.empty() || UndoFile::join(undoFile_, file, &error) == 0) return true;
    complain(error);
    return false;
  }

  static void tellPlan(const std::vector<CardRepair::Step>& steps, const char* what) {
    for (const CardRepair::Step& step : steps) fmt::print("{}: {}\n", what, step.text);
  }

  // What leads to the chunks, before anything in them is looked at. Shown before it is done.
  // Where a plan is not `needed` for the recovery to find the chunks, none is no obstacle.
  bool mendGeometry(bool needed) {
    std::string error;
    CardRepair repair;
    if (repair.plan(card_, &error) != 0) {
      if (needed) complain(error);
      return !needed;
    }
    steps_ = repair.steps();
    if (steps_.empty()) return true;
    if (!json_) tellPlan(steps_, dryRun_ ? "would be mended" : "mended");
    if (dryRun_) return true;
    if (undoFile_.empty() && !chooseUndoFile()) return false;
    fflush(stdout);
    if (repair.apply(undoFile_, &error) != 0) {
      complain(error);
      return false;
    }
    undone_ = true;
    if (!json_) tellUndo();
    return true;
  }

  void tellUndo() const {
    fmt::print("\"tarn check {} --undo {}\" takes that back\n", card_, undoFile_);
  }

  bool chooseUndoFile() {
    if (!std::filesystem::is_regular_file(card_)) {
      complain("give --save-undo FILE: what is on " + card_ + " now is saved there first");
      return false;
    }
    for (int i = 0; undoFile_.empty() || std::filesystem::exists(undoFile_); ++i) {
      undoFile_ = card_ + ".undo" + (i == 0 ? "" : std::to_string(i));
    }
    return true;
  }

  bool look(CardCheck* check) const {
    ProgressLine line;
    CardCheckOptions options;
    options.wholePictures = !quick_;
    options.threads = 0;
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
    if (exitCode > 128)
      complain(fmt::format("the recovery was ended by signal {}", exitCode - 128));
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
    if (last.findings().total() != 0 || !last.eventsWithoutVideo().empty()) tellMeaning(last);
    for (const std::string& text : last.notes()) fmt::print("note: {}\n", text);
    fmt::print("{}: {}, {} recordings, {} events, {} pictures\n", cardName(card_),
               last.findings().total() == 0 ? "clean" : countText(last.findings().total()),
               last.streamRows(), last.eventRows(), last.pictures());
    for (size_t i = 0; i < kFindingKinds; ++i) {
      const auto kind = static_cast<FindingKind>(i);
      const size_t count = last.findings().count(kind);
      if (count != 0) fmt::print("  {:<14} {:>8}\n", findingKindName(kind), count);
    }
    if (last.findings().total() != 0 || !last.eventsWithoutVideo().empty()) {
      fmt::print("{}\n", last.meaning());
    }
  }

  static void tellMeaning(const CardCheck& check) {
    constexpr size_t kNamed = 20;
    const std::vector<uint32_t>& events = check.eventsWithoutVideo();
    for (size_t i = 0; i < std::min(events.size(), kNamed); ++i) {
      fmt::print("event {} has no video\n", events[i]);
    }
    if (events.size() > kNamed) fmt::print("nor have {} more\n", events.size() - kNamed);
  }

  static std::string countText(size_t count) {
    return fmt::format("{} {}", count, count == 1 ? "finding" : "findings");
  }

  static void printFindings(const CardFindings& findings) {
    for (const CardFinding& finding : findings.list())
      fmt::print("{}\n  {}\n", finding.text, finding.meaning);
    if (findings.list().size() < findings.total()) {
      fmt::print("and {} more\n", findings.total() - findings.list().size());
    }
  }

  void printJson(const CardCheck& before, const CardCheck* after) const {
    const CardCheck& last = after != nullptr ? *after : before;
    Json json = {{"schema", 1},
                 {"card", cardName(card_)},
                 {"clean", last.findings().total() == 0},
                 {"recordings", last.streamRows()},
                 {"events", last.eventRows()},
                 {"pictures", last.pictures()},
                 {"meaning", last.meaning()},
                 {"eventsWithoutVideo", last.eventsWithoutVideo()},
                 {"counts", countsJson(last.findings())},
                 {"findings", findingsJson(last.findings())},
                 {"notes", last.notes()}};
    if (after != nullptr) {
      json["corrected"] = {{"counts", countsJson(before.findings())},
                           {"findings", findingsJson(before.findings())}};
    }
    if (dryRun_) {
      json["recovery"] = {{"wouldRun", last.findings().total() != 0},
                          {"leftOpen", last.findings().count(FindingKind::kOpenRow)}};
      if (!plan_.empty()) json["recovery"]["plan"] = Json::parse(plan_, nullptr, false);
    }
    const char* const plan = dryRun_ ? "repair" : "mended";
    for (const CardRepair::Step& step : steps_) json[plan].push_back(step.text);
    if (undone_) json["undoFile"] = undoFile_;
    // Names come from the command line and need not be UTF-8.
    fmt::print("{}\n", json.dump(2, ' ', false, Json::error_handler_t::replace));
  }

  bool json_ = false;
  bool quick_ = false;
  bool repair_ = false;
  bool dryRun_ = false;
  std::string undoFile_;
  std::string takeBack_;
  std::string plan_;                     // of the recovery, as it prints it
  bool undone_ = false;                  // the undo file is there
  std::vector<CardRepair::Step> steps_;  // of what leads to the chunks
};

}  // namespace

std::unique_ptr<Command> makeCheckCommand() { return std::make_unique<CommandCheck>(); }

}  // namespace tarn
