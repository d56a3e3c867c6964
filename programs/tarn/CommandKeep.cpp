#include <fmt/format.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <optional>

#include "Command.h"
#include "Console.h"
#include "RecorderHint.h"
#include "StandardOutputMuted.h"
#include "db/CApiDb.h"
#include "dblog/CDbLog.h"
#include "recorder/card/CardText.h"
#include "recorder/card/TimeText.h"
#include "recorder/recording/KeptRow.h"
#include "recorder/recording/RecordingReader.h"
#include "recorder/rows/RecorderDatabase.h"
#include "recorder/rows/RowQueries.h"
#include "recorder/session/KeepClient.h"
#include "recorder/session/KeepJob.h"

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

constexpr char kSqlKept[] =
    "SELECT * FROM STREAM WHERE " TARN_SQL_KEPT_WHOLE " ORDER BY startDate, streamID";
constexpr useconds_t kAskUs = 100000;
constexpr PictureTime kForEver = {0xFFFFFFFF, 999999};

class CommandKeep : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("keep", "Keep recordings from being overwritten");
    addCard(app);
    CLI::Option* event = app->add_option("--event", event_, "what was recorded during this event");
    CLI::Option* from =
        addTime(app, "--from", "all from this time on", TimeInput::Edge::kStart, &from_);
    CLI::Option* to = addTime(app, "--to", "all up to this time", TimeInput::Edge::kEnd, &to_);
    CLI::Option* release =
        app->add_option("--release", release_, "give up what is kept of this event");
    CLI::Option* list = app->add_flag("--list", list_, "say what is kept");
    event->type_name("ID")->excludes(from)->excludes(to)->excludes(release)->excludes(list);
    from->excludes(release)->excludes(list);
    to->excludes(release)->excludes(list);
    release->type_name("ID")->excludes(list);
    app->add_option("--channel", request_.channel, "only what this channel recorded")
        ->check(CLI::Range(0, 127));
    app->add_option("--budget", request_.budgetChunks,
                    "stream chunks that kept events may take; a tenth of the card's when not given")
        ->type_name("CHUNKS")
        ->check(CLI::Range(1u, 65535u));
    app->add_flag("--strict", request_.strict,
                  "refuse when the budget is full, instead of giving up the oldest copy");
    app->add_flag("--json", json_, "print JSON");
    return app;
  }

  bool changesCard() const override { return !list_; }

  int run() override {
    if (!takeRequest()) return kExitUsage;
    std::string error;
    if (!databaseIsGood(stopRequested, &error)) return failed(withHint(error));
    if (list_) return list();
    KeepAnswer answer;
    if (!(KeepClient::isThere() ? ask(&answer) : doItself(&answer))) return kExitFailed;
    if (answer.state != KeepState::kDone) return failed(answer.text);
    tell(answer.result);
    return kExitGood;
  }

 private:
  static int failed(const std::string& text) {
    complain(text);
    return kExitFailed;
  }

  bool takeRequest() {
    request_.from = from_.value_or(PictureTime{});
    request_.to = to_.value_or(kForEver);
    if (event_ || release_) {
      request_.command = event_ ? KeepCommand::kKeepEvent : KeepCommand::kReleaseEvent;
      request_.number = event_ ? *event_ : *release_;
    } else {
      request_.command = KeepCommand::kKeepPeriod;
    }
    if (!list_ && !event_ && !release_ && !from_ && !to_) {
      complain("say what to keep: --event, or --from and --to; or --release, or --list");
      return false;
    }
    if (!(request_.to < request_.from)) return true;
    complain("--to lies before --from");
    return false;
  }

  // The recording process does it: nobody else may insert rows meanwhile.
  bool ask(KeepAnswer* answer) {
    const StandardOutputMuted muted;
    KeepClient client;
    KeepRequest request = request_;
    while (client.ask(request, answer)) {
      if (answer->state == KeepState::kDone || answer->state == KeepState::kFailed) return true;
      if (answer->state == KeepState::kUnknown || stopRequested()) break;
      request.command = KeepCommand::kAsk;
      request.number = answer->ticket;
      usleep(kAskUs);
    }
    complain(stopRequested() ? "stopped; the recording process may still keep it"
                             : "the recording process does not answer; ask again");
    return false;
  }

  bool doItself(KeepAnswer* answer) {
    const StandardOutputMuted muted;
    KeptCopies copies;
    KeepJob job;
    job.request = request_;
    KeepOptions options;
    options.budgetChunks = request_.budgetChunks;
    options.strict = request_.strict;
    ProgressLine line;
    uint64_t copied = 0;
    const auto goOn = [&](uint32_t bytes) {
      copied += bytes;
      line.show(sizeText(copied) + " copied");
      return !stopRequested();
    };
    carryOut(&copies, options, goOn, &job);
    // Nobody records, so that nothing gets longer by waiting.
    if (job.state == KeepState::kWaiting) {
      job.firstTryMs = INT64_MIN / 2;
      carryOut(&copies, options, goOn, &job);
    }
    copies.close();
    CDbLog::getInstance()->finish();
    answer->state = job.state;
    answer->result = job.result;
    answer->text = job.state == KeepState::kWaiting ? "the event is still running" : job.text;
    return true;
  }

  void tell(const KeepResult& result) const {
    const bool released = request_.command == KeepCommand::kReleaseEvent;
    if (json_) {
      fmt::print("{}\n", Json{{"schema", 1},
                              {released ? "released" : "copies", result.copies},
                              {"pictures", result.pictures},
                              {"bytes", result.bytes},
                              {"missing", result.missing},
                              {"givenUp", result.givenUp}}
                             .dump(2));
    } else if (released) {
      fmt::print("released {} copies\n", result.copies);
    } else if (result.copies == 0) {
      fmt::print("all of it is kept already\n");
    } else {
      fmt::print("kept {} pictures, {}, in {} copies\n", result.pictures, sizeText(result.bytes),
                 result.copies);
    }
    if (result.missing > 0)
      warn(fmt::format("{} pictures cannot be read and are missing", result.missing));
    if (result.givenUp > 0 && !json_)
      fmt::print("the {} oldest copies went to make room\n", result.givenUp);
  }

  int list() {
    CApiDb db;
    RowQueries queries(&db, nullptr);
    std::vector<DB_STREAM> rows;
    if (!queries.streams(kSqlKept, &rows)) return failed(queries.failure());
    Json all = Json::array();
    if (!json_)
      fmt::print("{:>8} {:>3} {:>9} {:<29} {:<29} {:>8}\n", "stream", "ch", "copy of", "start",
                 "end", "pictures");
    for (const DB_STREAM& row : rows) {
      if (json_) {
        all.push_back({{"streamID", row.streamID},
                       {"channel", keptChannel(row)},
                       {"copyOf", originalKey(row)},
                       {"start", TimeText::iso(row.startDate, row.startMSec)},
                       {"end", TimeText::iso(row.endDate, row.endMSec)},
                       {"pictures", row.recSize},
                       {"chunkID", row.chunkID}});
      } else {
        fmt::print("{:>8} {:>3} {:>9} {:<29} {:<29} {:>8}\n", row.streamID, keptChannel(row),
                   originalKey(row), TimeText::of(row.startDate, row.startMSec),
                   TimeText::of(row.endDate, row.endMSec), row.recSize);
      }
    }
    if (json_) fmt::print("{}\n", Json{{"schema", 1}, {"kept", all}}.dump(2));
    return kExitGood;
  }

  KeepRequest request_;
  std::optional<uint32_t> event_;
  std::optional<uint32_t> release_;
  std::optional<PictureTime> from_;
  std::optional<PictureTime> to_;
  bool list_ = false;
  bool json_ = false;
};

}  // namespace

std::unique_ptr<Command> makeKeepCommand() { return std::make_unique<CommandKeep>(); }

}  // namespace tarn
