#include <fmt/format.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>

#include "Command.h"
#include "Console.h"
#include "dblog/CDbLog.h"
#include "fat/CardWear.h"
#include "media/MediaInput.h"
#include "media/record/MediaRecorder.h"
#include "media/record/RecordConfig.h"
#include "recorder/card/CardGeometry.h"
#include "recorder/rows/ServerRetry.h"
#include "video/RecordOutput.h"
#include "video/WearText.h"

namespace tarn {
namespace {

// Reads "TRIGGER@SECONDS". Empty when the text is not of this form or out of range.
std::optional<EventRequest> parseEvent(const std::string& text) {
  const size_t at = text.find('@');
  if (at == 0 || at == std::string::npos || at + 1 == text.size()) return std::nullopt;
  if (text.find_first_not_of("0123456789") != at) return std::nullopt;
  errno = 0;
  const unsigned long trigger = std::strtoul(text.c_str(), nullptr, 10);
  char* end = nullptr;
  const double seconds = std::strtod(text.c_str() + at + 1, &end);
  if (errno != 0 || trigger > UINT16_MAX || *end != '\0' || !(seconds >= 0) || seconds > 1e9)
    return std::nullopt;
  return EventRequest{static_cast<uint16_t>(trigger), seconds};
}

bool isCard(const std::string& word) {
  std::error_code error;
  if (std::filesystem::is_block_file(word, error)) return true;
  if (!std::filesystem::is_regular_file(word, error)) return false;
  const GeometryReport geometry = CardGeometry::verify(word, GeometryDepth::kStart);
  return geometry.opened && geometry.verdict != Delivery::kBad;
}

class CommandRecord : public Command {
 public:
  CLI::App* addTo(CLI::App& tool) override {
    CLI::App* app = tool.add_subcommand(
        "record", "Record the H.264 video of files, streams and cameras, and its sound");
    app->add_option(
        "INPUT", inputs_,
        "file whose H.264 video is recorded as it is, - for a stream on standard input, "
        "or an rtsp:// address; chN=INPUT for a channel of its own; without any: what the "
        "configuration says. In front of them may stand a CARD, as with --card");
    app->add_option("--config", config_, "configuration that is used without INPUT")
        ->type_name("FILE")
        ->capture_default_str();
    app->add_flag("--check-config", checkConfig_,
                  "look at the configuration only, and say what it records");
    app->add_option("--loop", request_.loop, "record files N times, one after the other")
        ->type_name("N")
        ->check(CLI::Range(1u, 1000000u));
    addTime(app, "--start", "time of the first picture; now when not given",
            TimeInput::Edge::kStart, &request_.start);
    app->add_option("--segment", request_.segmentSeconds,
                    "begin a new recording after so many seconds; 0: only when room asks for it")
        ->type_name("SECONDS")
        ->capture_default_str();
    app->add_option("--event", events_, "event of trigger TRIGGER at SECONDS from the start")
        ->type_name("TRIGGER@SECONDS")
        ->allow_extra_args(false);
    app->add_option("--event-length", request_.eventSeconds, "how long each event lasts")
        ->type_name("SECONDS")
        ->capture_default_str();
    app->add_option("--channel", channels_,
                    "channels of the inputs, in their order; 0, 1 and so on when not given")
        ->type_name("N,...")
        ->delimiter(',')
        ->check(CLI::Range(0, 127));
    app->add_option("--times", times_,
                    "arrival: when each picture came, the default of pipes and cameras; stream: "
                    "counted from the start, that of files and with --start")
        ->check(CLI::IsMember({"arrival", "stream"}));
    app->add_option("--fps", request_.frameRate, "pictures a second of a stream without times")
        ->check(CLI::Range(0.1, 1000.0));
    app->add_option("--flush", request_.flushMs,
                    "most recorded time, in milliseconds, that a power loss can take")
        ->check(CLI::Range(1u, 60000u))
        ->capture_default_str();
    app->add_flag_callback(
        "--no-sound", [this] { request_.sound = false; },
        "leave out the inputs' sound, which is recorded as it is: AAC, G.711 and Opus");
    app->add_flag("--keep-events", request_.keeper.everyEvent,
                  "keep what each event shows from being overwritten, as \"tarn keep\" does");
    app->add_option("--keep-budget", request_.keeper.budget.budgetChunks,
                    "stream chunks that kept events may take; a tenth of the card's when not given")
        ->type_name("CHUNKS")
        ->check(CLI::Range(1u, 65535u));
    app->add_flag("--keep-strict", request_.keeper.budget.strict,
                  "keep nothing new when the budget is full, instead of giving up the oldest copy");
    app->add_flag("--realtime", request_.realtime, "no faster than the pictures' own times");
    app->add_flag("--wait", wait_,
                  "wait for the management server as long as it takes, instead of five seconds");
    app->add_flag("--wait-for-start", waitForStart_,
                  "as --wait, until the server has answered once: it is being started up");
    app->add_flag("--progress", progress_,
                  "print how many pictures are written and safe, as soon as more are safe");
    app->add_flag("--stats", stats_, "print at the end what was written to the card, by its cause");
    return app;
  }

  // A card is no input, and an input no card.
  bool sortWords(const WordsAsGiven& /*given*/, std::string* /*error*/) override {
    if (inputs_.empty() || !isCard(inputs_[0])) return true;
    card_ = inputs_[0];
    inputs_.erase(inputs_.begin());
    return true;
  }

  bool beginEarly() override { return waitForStart_ = true; }

  int run() override {
    if (!takeEvents() || !takeConfig()) return kExitUsage;
    if (checkConfig_) return tellConfig();
    if (!takeTimes()) return kExitUsage;
    resolveInputs();
    if (!inputsAreGood()) return kExitUsage;
    waitForServerForever(wait_);
    if (waitForStart_) waitForServerStart();
    return record();
  }

  std::vector<std::string*> userPaths() override {
    resolveInputs();
    std::vector<std::string*> paths;
    if (inputs_.empty()) paths.push_back(&config_);
    for (InputRequest& input : request_.inputs) {
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
      InputRequest input;
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
    std::string error;
    return checkRecordRequest(request_, &error) || refuse(error);
  }

  bool takeEvents() {
    for (const std::string& text : events_) {
      const auto event = parseEvent(text);
      if (!event)
        return refuse("--event " + text + ": expected TRIGGER@SECONDS, with a trigger up to 65535");
      request_.events.push_back(*event);
    }
    return true;
  }

  bool takeConfig() {
    if (checkConfig_ && !inputs_.empty())
      return refuse("--check-config: an INPUT is not the configuration's");
    std::string error;
    if (!inputs_.empty() || readRecordConfig(config_, &request_, &error)) return true;
    return refuse(checkConfig_ ? error : "no INPUT, and " + error);
  }

  bool takeTimes() {
    if (times_ == "arrival") request_.times = TimesFrom::kArrival;
    if (times_ == "stream") request_.times = TimesFrom::kStream;
    return times_ != "arrival" || !request_.start ||
           refuse("--start: what comes is recorded with the time at which it comes");
  }

  int record() const {
    RecordOutput output(request_.inputs.size() == 1, progress_);
    MediaRecorder recorder(request_, &output);
    const CardWear before = cardWear();
    const bool good = recorder.run();
    if (*recorder.error() != '\0') complain(recorder.error());
    CDbLog::getInstance()->finish();
    const std::vector<ChannelRecording> recordings = recorder.recordings();
    for (const ChannelRecording& recording : recordings) output.report(recording);
    if (stats_) fputs(wearText(cardWear().since(before), recordings).c_str(), stdout);
    return good ? kExitGood : kExitFailed;
  }

  int tellConfig() const {
    for (const InputRequest& input : request_.inputs)
      fmt::print("channel {}: {}\n", input.channel, asUserSees(input.input));
    return kExitGood;
  }

  static bool refuse(const std::string& text) {
    complain(text);
    return false;
  }

  RecordRequest request_;
  std::vector<std::string> inputs_;
  std::vector<unsigned> channels_;
  size_t unnamed_ = 0;  // inputs without a channel of their own
  std::string times_;
  std::string config_ = kRecordConfig;
  bool checkConfig_ = false;
  bool wait_ = false;
  bool waitForStart_ = false;
  bool progress_ = false;
  bool stats_ = false;
  std::vector<std::string> events_;
};

}  // namespace

std::unique_ptr<Command> makeRecordCommand() { return std::make_unique<CommandRecord>(); }

}  // namespace tarn
