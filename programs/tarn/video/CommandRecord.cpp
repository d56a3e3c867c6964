#include "Command.h"
#include "Console.h"
#include "recorder/rows/ServerRetry.h"
#include "video/Record.h"

namespace tarn {
namespace {

class CommandRecord : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand("record", "Record the H.264 video of a file or a stream");
    app->add_option("INPUT", request_.input,
                    "File whose H.264 video is recorded as it is, or - for an Annex B stream")
        ->required();
    app->add_option("--loop", request_.loop, "Record the input N times, one after the other")
        ->type_name("N")
        ->check(CLI::Range(1u, 1000000u));
    app->add_option("--start", start_, "Local time of the first picture; now when not given")
        ->type_name("'YYYY-MM-DDTHH:MM:SS'");
    app->add_option("--segment", request_.segmentSeconds,
                    "Begin a new recording after so many seconds; 0: only when room asks for it")
        ->type_name("SECONDS")
        ->capture_default_str();
    app->add_option("--event", events_, "Event of trigger TRIGGER at SECONDS from the start")
        ->type_name("TRIGGER@SECONDS")
        ->allow_extra_args(false);
    app->add_option("--event-length", request_.eventSeconds, "How long each event lasts")
        ->type_name("SECONDS")
        ->capture_default_str();
    app->add_option("--channel", request_.channel, "Channel that the recording belongs to")
        ->check(CLI::Range(0, 127))
        ->capture_default_str();
    app->add_option("--fps", request_.frameRate, "Pictures a second of a stream without times")
        ->check(CLI::Range(0.1, 1000.0));
    app->add_option("--flush", request_.flushMs,
                    "Most recorded time, in milliseconds, that a power loss can take")
        ->check(CLI::Range(1u, 60000u))
        ->capture_default_str();
    app->add_flag("--realtime", request_.realtime, "No faster than the pictures' own times");
    app->add_flag("--wait", wait_,
                  "Wait for the management server as long as it takes, instead of five seconds");
    app->add_flag("--progress", request_.progress,
                  "Print how many pictures are written and safe, as soon as more are safe");
    return app;
  }

  int run() override {
    for (const std::string& text : events_) {
      const auto event = tool::parseEvent(text);
      if (!event) {
        complain("--event " + text + ": expected TRIGGER@SECONDS, with a trigger up to 65535");
        return kExitUsage;
      }
      request_.events.push_back(*event);
    }
    if (!start_.empty()) {
      PictureTime time;
      if (!parseTime(start_, &time.seconds)) {
        complain("--start " + start_ + ": expected YYYY-MM-DDTHH:MM:SS");
        return kExitUsage;
      }
      request_.start = time;
    }
    if (request_.loop > 1 && request_.input == "-") {
      complain("--loop: standard input can be read only once");
      return kExitUsage;
    }
    waitForServerForever(wait_);
    return tool::recordMedia(request_);
  }

  std::vector<std::string*> userPaths() override { return {&request_.input}; }

 private:
  tool::RecordRequest request_;
  std::string start_;
  bool wait_ = false;
  std::vector<std::string> events_;
};

}  // namespace

std::unique_ptr<Command> makeRecordCommand() { return std::make_unique<CommandRecord>(); }

}  // namespace tarn
