#include "media/record/RecordConfig.h"

#include <cerrno>
#include <cstdlib>

#include "media/ConfigLines.h"

namespace tarn {
namespace {

// A number without anything behind it, within its limits.
bool parseNumber(const std::string& text, double least, double most, double* out) {
  char* end = nullptr;
  errno = 0;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || *end != '\0' || errno != 0 || !(value >= least && value <= most))
    return false;
  *out = value;
  return true;
}

class ConfigReader : public ConfigLines {
 public:
  explicit ConfigReader(RecordRequest* request) : request_(request) {}

 private:
  enum class Section { kRecording, kChannel };

  std::string set(const std::string& key, const std::string& value) override {
    return section_ == Section::kRecording ? setOption(key, value) : setInput(key, value);
  }

  std::string end() const override {
    if (request_->inputs.empty()) return "there is no [channel N] to record";
    return lacksInput() ? missingInput() : "";
  }

  bool lacksInput() const {
    return section_ == Section::kChannel && request_->inputs.back().input.empty();
  }
  std::string missingInput() const {
    return "channel " + std::to_string(request_->inputs.back().channel) + " has no input";
  }

  std::string begin(const std::string& text) override {
    if (lacksInput()) return missingInput();
    if (text == "[recording]") {
      section_ = Section::kRecording;
      return "";
    }
    constexpr char kChannel[] = "[channel ";
    constexpr size_t kLength = sizeof kChannel - 1;
    double number = 0;
    if (text.rfind(kChannel, 0) != 0 || text.back() != ']' ||
        !parseNumber(text.substr(kLength, text.size() - kLength - 1), 0, 127, &number) ||
        number != static_cast<uint8_t>(number))
      return text + " is no section; there are [recording] and [channel 0] to [channel 127]";
    InputRequest input;
    input.channel = static_cast<uint8_t>(number);
    for (const InputRequest& other : request_->inputs) {
      if (other.channel == input.channel)
        return "channel " + std::to_string(input.channel) + " is there twice";
    }
    request_->inputs.push_back(input);
    section_ = Section::kChannel;
    return "";
  }

  std::string setOption(const std::string& key, const std::string& value) {
    double number = 0;
    if (key == "segment") {
      if (!parseNumber(value, 0, 86400, &number)) return "segment: expected 0 to 86400 seconds";
      request_->segmentSeconds = static_cast<uint32_t>(number);
    } else if (key == "flush") {
      if (!parseNumber(value, 1, 60000, &number)) return "flush: expected 1 to 60000 milliseconds";
      request_->flushMs = static_cast<uint32_t>(number);
    } else if (key == "fps") {
      if (!parseNumber(value, 0.1, 1000, &request_->frameRate)) return "fps: expected 0.1 to 1000";
    } else if (key == "times") {
      if (value != "arrival" && value != "stream") return "times: expected arrival or stream";
      request_->times = value == "arrival" ? TimesFrom::kArrival : TimesFrom::kStream;
    } else if (key == "sound") {
      if (value != "yes" && value != "no") return "sound: expected yes or no";
      request_->sound = value == "yes";
    } else {
      return setKeeping(key, value);
    }
    return "";
  }

  std::string setKeeping(const std::string& key, const std::string& value) {
    KeeperOptions& keeper = request_->keeper;
    double number = 0;
    if (key == "keep-budget") {
      if (!parseNumber(value, 1, 65535, &number)) return "keep-budget: expected 1 to 65535 chunks";
      keeper.budget.budgetChunks = static_cast<uint32_t>(number);
      return "";
    }
    if (key != "keep-events" && key != "keep-strict") return key + " is not known in [recording]";
    if (value != "yes" && value != "no") return key + ": expected yes or no";
    (key == "keep-events" ? keeper.everyEvent : keeper.budget.strict) = value == "yes";
    return "";
  }

  std::string setInput(const std::string& key, const std::string& value) {
    InputRequest& input = request_->inputs.back();
    if (key != "input") return key + " is not known in [channel N]";
    if (value.empty()) return missingInput();
    if (!input.input.empty()) return "channel " + std::to_string(input.channel) + " has two inputs";
    input.input = value;
    if (value == "-" && standardInput_) return "standard input is there twice";
    standardInput_ = standardInput_ || value == "-";
    return "";
  }

  RecordRequest* request_;
  Section section_ = Section::kRecording;
  bool standardInput_ = false;
};

}  // namespace

bool readRecordConfig(const std::string& path, RecordRequest* request, std::string* error) {
  return ConfigReader(request).read(path, error);
}

}  // namespace tarn
