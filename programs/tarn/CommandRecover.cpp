#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "Command.h"
#include "Console.h"
#include "RecoveryLine.h"
#include "StandardOutputMuted.h"
#include "recorder/card/TimeText.h"
#include "recorder/recovery/Recovery.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;
using Kind = RecoveryChange::Kind;

const char* kindName(Kind kind) {
  switch (kind) {
    case Kind::kRecordingClosed:
      return "recordingClosed";
    case Kind::kRecordingDeleted:
      return "recordingDeleted";
    case Kind::kHeaderRewritten:
      return "headerRewritten";
    case Kind::kEventClosed:
      return "eventClosed";
    case Kind::kEventDeleted:
      break;
  }
  return "eventDeleted";
}

const char* repairName(ManageRepair repair) {
  switch (repair) {
    case ManageRepair::kGood:
      return "good";
    case ManageRepair::kMainCopied:
      return "taken from its backup";
    case ManageRepair::kBackupCopied:
      return "backup rewritten";
    case ManageRepair::kDefaults:
      return "made anew";
    case ManageRepair::kCorrected:
      return "corrected";
    case ManageRepair::kMainUnread:
    case ManageRepair::kBackupUnread:
      return "one copy cannot be read";
    case ManageRepair::kUnreadable:
      return "cannot be read";
    case ManageRepair::kFailed:
      break;
  }
  return "failed";
}

Json journalJson(const JournalSurvey& journal) {
  return {{"records", journal.records},         {"rows", journal.liveKeys},
          {"greatestKey", journal.greatestKey}, {"unreadable", journal.unreadable},
          {"copied", journal.copied},           {"unlike", journal.unlike},
          {"bridged", journal.bridged},         {"phantoms", journal.phantoms},
          {"unread", journal.unread},           {"refused", journal.refused}};
}

Json changeJson(const RecoveryChange& change) {
  Json json = {{"kind", kindName(change.kind)}, {"key", change.key}};
  if (change.pictures != 0) json["pictures"] = change.pictures;
  if (change.endDate != 0) {
    json["endDate"] = change.endDate;
    json["end"] = TimeText::iso(change.endDate, 0);
  }
  json["text"] = change.text;
  return json;
}

Json reportJson(const RecoveryReport& report, bool dryRun) {
  Json json = {{"schema", 1},
               {"dryRun", dryRun},
               {"ok", report.ok()},
               {"error", report.error},
               {"fuse", report.fuse},
               {"guarded", report.guarded},
               {"fromImage", report.fromImage},
               {"streamRows", report.streamRows},
               {"eventRows", report.eventRows},
               {"management",
                {{"stream", repairName(report.streamManage)},
                 {"syslog", repairName(report.syslogManage)},
                 {"journal", repairName(report.journalManage)}}},
               {"journal",
                {{"events", journalJson(report.startUp.events)},
                 {"streams", journalJson(report.startUp.streams)}}},
               {"changes", Json::array()},
               {"problems", report.problems},
               {"microseconds", Json::object()}};
  for (const RecoveryChange& change : report.changes) json["changes"].push_back(changeJson(change));
  for (const RecoveryStepTime& time : report.times) json["microseconds"][time.step] = time.micros;
  return json;
}

void printManage(const char* name, ManageRepair repair) {
  if (repair != ManageRepair::kGood) {
    fmt::print("management file of the {}: {}\n", name, repairName(repair));
  }
}

void printJournal(const char* name, const JournalSurvey& journal) {
  if (journal.copied + journal.unlike + journal.bridged + journal.unreadable == 0) return;
  fmt::print("journal of the {}: {} records taken from the other copy, {} different, {} lost\n",
             name, journal.copied, journal.unlike, journal.unreadable);
}

void printText(const RecoveryReport& report) {
  printManage("stream chunks", report.streamManage);
  printManage("system log", report.syslogManage);
  printManage("journal", report.journalManage);
  printJournal("events", report.startUp.events);
  printJournal("recordings", report.startUp.streams);
  for (const RecoveryChange& change : report.changes) fmt::print("{}\n", change.text);
  if (!report.ok()) return;
  fmt::print("{} recordings and {} events, from the {}\n", report.streamRows, report.eventRows,
             report.fromImage ? "database image" : "journal");
}

class CommandRecover : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand(
        "recover", "Make card and database consistent, as a recorder does before it starts");
    addCard(app);
    CLI::Option* accept = app->add_flag(
        "--accept", accept_, "give up recordings in bulk where the card's damage leads to it");
    app->add_flag("--unattended", unattended_, "go on with what is intact, and guard the rest")
        ->excludes(accept);
    app->add_flag("--dry-run", dryRun_,
                  "show what it would do: it runs on a card that is only read, and drops it all");
    app->add_flag("--json", json_, "print JSON");
    return app;
  }

  bool needsServer() const override { return false; }
  bool changesCard() const override { return !dryRun_; }
  bool isDryRun() const override { return dryRun_; }

  int run() override {
    RecoveryReport report;
    {
      const StandardOutputMuted muted;
    const RecoveryLine line;
      report = Recovery(policy()).run();
    }
    if (json_) {
      fmt::print("{}\n",
                 reportJson(report, dryRun_).dump(2, ' ', false, Json::error_handler_t::replace));
    } else {
      if (dryRun_) fmt::print("what a recovery would do; nothing of it was done:\n");
      printText(report);
    }
    for (const std::string& problem : report.problems) warn(problem);
    if (report.ok()) return kExitGood;
    complain(report.error);
    return kExitFailed;
  }

 private:
  FusePolicy policy() const {
    if (accept_) return FusePolicy::kAccept;
    return unattended_ ? FusePolicy::kGuard : FusePolicy::kStop;
  }

  bool accept_ = false;
  bool unattended_ = false;
  bool dryRun_ = false;
  bool json_ = false;
};

}  // namespace

std::unique_ptr<Command> makeRecoverCommand() { return std::make_unique<CommandRecover>(); }

}  // namespace tarn
