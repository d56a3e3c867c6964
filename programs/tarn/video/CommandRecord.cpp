#include <fmt/format.h>

#include <set>

#include "Command.h"
#include "Console.h"
#include "media/MediaInput.h"
#include "recorder/rows/ServerRetry.h"
#include "video/Record.h"
#include "video/RecordConfig.h"

namespace tarn {
namespace {

class CommandRecord : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app =
        tool.add_subcommand("record", "Record the H.264 video of files, streams and cameras");
    app->add_option(
        "INPUT", inputs_,
        "File whose H.264 video is recorded as it is, - for a stream on standard input, "
        "or an rtsp:// address; chN=INPUT for a channel of its own; without any: what the "
        "configuration says");
    app->add_option("--config", config_, "Configuration that is used without INPUT")
        ->type_name("FILE")
        ->capture_default_str();
    app->add_flag("--check-config", checkConfig_,
                  "Look at the configuration only, and say what it records");
    app->add_option("--loop", request_.loop, "Record files N times, one after the other")
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
    app->add_option("--channel", channels_,
                    "Channels of the inputs, in their order; 0, 1 and so on when not given")
        ->type_name("N,...")
        ->delimiter(',')
        ->check(CLI::Range(0, 127));
    app->add_option("--times", times_,
                    "arrival: when each picture came, the default of pipes and cameras; stream: "
                    "counted from the start, that of files and with --start")
        ->check(CLI::IsMember({"arrival", "stream"}));
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
    if (checkConfig_ && !inputs_.empty()) {
      complain("--check-config: an INPUT is not the configuration's");
      return kExitUsage;
    }
    if (inputs_.empty()) {
      std::string error;
      if (!tool::readRecordConfig(config_, &request_, &error)) {
        complain(inputs_.empty() && !checkConfig_ ? "no INPUT, and " + error : error);
        return kExitUsage;
      }
    }
    if (checkConfig_) return tellConfig();
    if (times_ == "arrival") request_.times = tool::TimesFrom::kArrival;
    if (times_ == "stream") request_.times = tool::TimesFrom::kStream;
    if (times_ == "arrival" && request_.start) {
      complain("--start: what comes is recorded with the time at which it comes");
      return kExitUsage;
    }
    resolveInputs();
    if (!inputsAreGood()) return kExitUsage;
    waitForServerForever(wait_);
    return tool::recordMedia(request_);
  }

  std::vector<std::string*> userPaths() override {
    resolveInputs();
    std::vector<std::string*> paths;
    if (inputs_.empty()) paths.push_back(&config_);
    for (tool::InputRequest& input : request_.inputs) {
      if (!MediaInput::isAddress(input.input)) paths.push_back(&input.input);
    }
    return paths;
  }

 private:
  // "chN=INPUT", or INPUT on the next channel of --channel.
  void resolveInputs() {
    if (!request_.inputs.empty()) return;
    size_t next = 0;
    for (const std::string& text : inputs_) {
      const size_t equals = text.find('=');
      const std::string number =
          text.rfind("ch", 0) == 0 && equals != std::string::npos ? text.substr(2, equals - 2) : "";
      const bool named = !number.empty() && number.size() <= 3 &&
                         number.find_first_not_of("0123456789") == std::string::npos &&
                         std::stoul(number) <= 127;
      tool::InputRequest input;
      input.input = named ? text.substr(equals + 1) : text;
      input.channel = static_cast<uint8_t>(named                     ? std::stoul(number)
                                           : next < channels_.size() ? channels_[next]
                                                                     : next);
      if (!named) ++next;
      request_.inputs.push_back(input);
    }
    unnamed_ = next;
  }

  bool inputsAreGood() const {
    if (!channels_.empty() && channels_.size() != unnamed_)
      return refuse("--channel: give one for each input that has none of its own");
    std::set<unsigned> channels;
    size_t standardInputs = 0;
    bool endless = false;
    for (const tool::InputRequest& input : request_.inputs) {
      if (!channels.insert(input.channel).second)
        return refuse("channel " + std::to_string(input.channel) + " is given to two inputs");
      if (input.input == "-") ++standardInputs;
      endless = endless || input.input == "-" || MediaInput::isAddress(input.input);
    }
    if (standardInputs > 1) return refuse("standard input can be recorded on one channel only");
    if (request_.inputs.size() > 128) return refuse("there are 128 channels");
    if (request_.loop > 1 && endless) return refuse("--loop: only files can be read again");
    return true;
  }

  int tellConfig() const {
    for (const tool::InputRequest& input : request_.inputs)
      fmt::print("channel {}: {}\n", input.channel, asUserSees(input.input));
    return kExitGood;
  }

  static bool refuse(const std::string& text) {
    complain(text);
    return false;
  }

  tool::RecordRequest request_;
  std::vector<std::string> inputs_;
  std::vector<unsigned> channels_;
  size_t unnamed_ = 0;  // inputs without a channel of their own
  std::string times_;
  std::string config_ = tool::kRecordConfig;
  bool checkConfig_ = false;
  std::string start_;
  bool wait_ = false;
  std::vector<std::string> events_;
};

}  // namespace

std::unique_ptr<Command> makeRecordCommand() { return std::make_unique<CommandRecord>(); }

}  // namespace tarn
