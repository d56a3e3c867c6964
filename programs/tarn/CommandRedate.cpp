#include <fmt/format.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <nlohmann/json.hpp>
#include <set>
#include <utility>

#include "Command.h"
#include "Console.h"
#include "RecorderHint.h"
#include "StandardOutputMuted.h"
#include "dblog/CDbLog.h"
#include "recorder/card/TimeText.h"
#include "recorder/log/LogFormat.h"
#include "recorder/log/LogLines.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/rows/RecorderDatabase.h"
#include "recorder/session/RedatingReversal.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

// Channels notice one clock within a tenth of a second, and round it to a whole one.
constexpr int64_t kSameStepSeconds = 1;

struct Redated {
  uint32_t number = 0;  // as it is shown, from 1 on
  int64_t logged = -1;  // when, as the log's line has it; -1: it does not say
  RedatingRecord record;
  RedatingPlan plan;  // what could be taken back
};

class CommandRedate : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand(
        "redate", "Show what got other times when the clock became known, and take that back");
    addCard(app);
    CLI::Option* undo = app->add_flag("--undo", undo_, "give the times of before back");
    app->add_option("--record", wanted_,
                    "only this one of those shown; by default, all channels' of the last step")
        ->type_name("N")
        ->allow_extra_args(false)
        ->check(CLI::Range(1u, 65535u));
    app->add_flag("--dry-run", dryRun_, "say what would be taken back, and change nothing")
        ->needs(undo);
    app->add_option("--log", log_,
                    "read the records from this text instead of the card's system log; - for "
                    "standard input")
        ->type_name("FILE");
    app->add_flag("--json", json_, "print JSON");
    return app;
  }

  bool changesCard() const override { return undo_ && !dryRun_; }
  std::vector<std::string*> userPaths() override { return {&log_}; }

  int run() override {
    std::string error;
    if (!databaseIsGood(stopRequested, &error)) return failed(withHint(error));
    if (!readRecords() || !choose()) return kExitFailed;
    const int opened = quietly([&] { return reversal_.open(changesCard()); });
    int code = kExitFailed;
    if (opened != 0) {
      complain(withHint(reversal_.errorText()));
    } else {
      code = lookAtAll() ? (changesCard() ? undoAll() : showAll()) : kExitFailed;
    }
    reversal_.close();
    CDbLog::getInstance()->finish();
    return code;
  }

 private:
  static int failed(const std::string& text) {
    complain(text);
    return kExitFailed;
  }

  // The library complains on standard output.
  template <typename Work>
  static int quietly(Work work) {
    const StandardOutputMuted muted;
    return work();
  }

  void take(const std::string& text) {
    const LogLine line = parseLogLine(text);
    Redated redated;
    if (!redated.record.parse(line.text)) return;
    redated.logged = line.seconds;
    redated.number = static_cast<uint32_t>(all_.size() + 1);
    all_.push_back(redated);
  }

  bool readRecords() {
    if (log_.empty()) {
      const bool read = readLogLines([this](const std::string& line) { take(line); });
      if (!read) complain("the card's system log cannot be read; --log FILE takes another one");
      return read;
    }
    std::ifstream file;
    if (log_ != "-") file.open(log_);
    std::istream& input = log_ == "-" ? std::cin : file;
    for (std::string line; std::getline(input, line);) take(line);
    if (input.eof() && !input.bad()) return true;
    complain(log_ + " cannot be read");
    return false;
  }

  // Those of the last step of the clock: one of each channel's pictures and sound.
  bool chooseLastStep() {
    std::set<std::pair<int, bool>> seen;
    std::vector<Redated> last;
    for (auto redated = all_.rbegin(); redated != all_.rend(); ++redated) {
      const RedatingRecord& record = redated->record;
      if (std::llabs(record.seconds - all_.back().record.seconds) > kSameStepSeconds ||
          !seen.emplace(record.channel, record.sound).second)
        break;
      last.insert(last.begin(), *redated);
    }
    all_.swap(last);
    return true;
  }

  // What is to be shown, or taken back.
  bool choose() {
    if (undo_ && all_.empty()) {
      complain("the system log has no record of a re-dating");
      return false;
    }
    if (wanted_.empty()) return !undo_ || chooseLastStep();
    std::vector<Redated> chosen;
    for (const uint32_t number : wanted_) {
      if (number > all_.size()) {
        complain(fmt::format("the system log has no record {} of a re-dating, only {}", number,
                             all_.size()));
        return false;
      }
      chosen.push_back(all_[number - 1]);
    }
    all_.swap(chosen);
    return true;
  }

  bool lookAtAll() {
    for (Redated& redated : all_) {
      if (quietly([&] { return reversal_.plan(redated.record, &redated.plan); }) == 0) continue;
      complain(reversal_.errorText());
      return false;
    }
    return true;
  }

  static std::string nameOf(const RedatingRecord& record) {
    return fmt::format("channel {}{}", record.channel, record.sound ? ", sound" : "");
  }

  static const char* state(const Redated& redated) {
    if (!redated.plan.empty()) return "stands";
    if (redated.plan.unreadable > 0) return "unreadable";
    return redated.plan.others > 0 ? "takenBack" : "overwritten";
  }

  static const char* stateText(const Redated& redated) {
    if (!redated.plan.empty()) return "stands";
    if (redated.plan.unreadable > 0) return "cannot be read";
    return redated.plan.others > 0 ? "taken back" : "overwritten";
  }

  static Json toJson(const Redated& redated, bool tookBack) {
    const RedatingRecord& record = redated.record;
    Json json = {
        {"record", redated.number},          {"logged", nullptr},
        {"channel", record.channel},         {"sound", record.sound},
        {"firstStream", record.firstStream}, {"lastStream", record.lastStream},
        {"firstEvent", record.firstEvent},   {"lastEvent", record.lastEvent},
        {"seconds", record.seconds},         {"state", tookBack ? "takenBack" : state(redated)},
        {"recordings", Json::array()},       {"events", Json::array()}};
    if (redated.logged >= 0)
      json["logged"] = TimeText::iso(static_cast<uint32_t>(redated.logged), 0);
    for (const DB_STREAM& row : redated.plan.recordings) {
      json["recordings"].push_back(
          {{"streamID", row.streamID},
           {"copyOf", isKept(row) ? Json(originalKey(row)) : Json(nullptr)},
           {"start", TimeText::iso(row.startDate, row.startMSec)},
           {"before", TimeText::iso(earlier(row.startDate, record), row.startMSec)}});
    }
    for (const DB_EVENT& event : redated.plan.events) json["events"].push_back(event.eventID);
    return json;
  }

  static uint32_t earlier(uint32_t time, const RedatingRecord& record) {
    return static_cast<uint32_t>(time - record.seconds);
  }

  int showAll() {
    if (json_) {
      Json list = Json::array();
      for (const Redated& redated : all_) list.push_back(toJson(redated, false));
      fmt::print("{}\n", Json{{"schema", 1}, {"dryRun", dryRun_}, {"redated", list}}.dump(2));
      return undo_ ? exitCode(any()) : kExitGood;
    }
    if (undo_) {
      fmt::print("what would be taken back; nothing of it was done:\n");
      for (const Redated& redated : all_) sayMoved(redated, "would get");
      return exitCode(any());
    }
    if (all_.empty()) fmt::print("the system log has no record of a re-dating\n");
    for (const Redated& redated : all_) sayRecord(redated);
    return kExitGood;
  }

  bool any() const {
    for (const Redated& redated : all_) {
      if (!redated.plan.empty()) return true;
    }
    return false;
  }
  static int exitCode(bool good) { return good ? kExitGood : kExitFailed; }

  static void sayRecord(const Redated& redated) {
    const RedatingRecord& record = redated.record;
    fmt::print("{:>3}  {}{}: recordings {} to {}", redated.number,
               redated.logged < 0 ? "" : TimeText::of(static_cast<uint32_t>(redated.logged)) + "  ",
               nameOf(record), record.firstStream, record.lastStream);
    if (record.lastEvent >= record.firstEvent)
      fmt::print(", events {} to {}", record.firstEvent, record.lastEvent);
    fmt::print(", by {} s: {}\n", record.seconds, stateText(redated));
  }

  // What it moved, with the span of its recordings.
  static void sayMoved(const Redated& redated, const char* verb) {
    const RedatingPlan& plan = redated.plan;
    const std::string name = fmt::format("record {}, {}", redated.number, nameOf(redated.record));
    if (plan.empty()) {
      warn(fmt::format("{}: nothing is there to take back: {}", name, stateText(redated)));
      return;
    }
    uint32_t from = UINT32_MAX;
    uint32_t to = 0;
    for (const DB_STREAM& row : plan.recordings) {
      from = std::min(from, row.startDate);
      to = std::max(to, row.endDate);
    }
    fmt::print("{}: {} recordings and {} events of {} to {} {} {} to {}\n", name,
               plan.recordings.size(), plan.events.size(), TimeText::of(from), TimeText::of(to),
               verb, TimeText::of(earlier(from, redated.record)),
               TimeText::of(earlier(to, redated.record)));
    if (plan.unreadable > 0)
      warn(fmt::format("{}: {} recordings cannot be read and keep their times", name,
                       plan.unreadable));
  }

  // In their order, each for itself; what nothing fits any more is said.
  int undoAll() {
    Json list = Json::array();
    bool done = false;
    bool good = true;
    for (Redated& redated : all_) {
      const bool stands = !redated.plan.empty();
      const bool took =
          stands && quietly([&] { return reversal_.undo(redated.record, &redated.plan); }) == 0;
      if (stands && !took) complain(reversal_.errorText());
      good = good && took == stands;
      done = done || took;
      if (json_)
        list.push_back(toJson(redated, took));
      else if (took || !stands)
        sayMoved(redated, "got");
    }
    if (json_)
      fmt::print("{}\n", Json{{"schema", 1}, {"dryRun", false}, {"redated", list}}.dump(2));
    return exitCode(done && good);
  }

  bool undo_ = false;
  bool dryRun_ = false;
  bool json_ = false;
  std::vector<uint32_t> wanted_;
  std::string log_;
  std::vector<Redated> all_;
  RedatingReversal reversal_;
};

}  // namespace

std::unique_ptr<Command> makeRedateCommand() { return std::make_unique<CommandRedate>(); }

}  // namespace tarn
