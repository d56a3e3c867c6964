#include "media/record/RecordConfig.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace tarn {
namespace {

std::string trimmed(const std::string& text) {
  constexpr char kBlanks[] = " \t\r";
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

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

class ConfigReader {
 public:
  explicit ConfigReader(RecordRequest* request) : request_(request) {}

  // One line. Empty, or what is wrong with it.
  std::string take(const std::string& line) {
    // Whoever opens an input stops at such a byte, and would open another one.
    if (line.find('\0') != std::string::npos) return "this line has a byte 0 in it";
    const std::string text = trimmed(line);
    if (text.empty() || text[0] == '#') return "";
    if (text[0] == '[') return beginSection(text);
    const size_t equals = text.find('=');
    if (equals == std::string::npos) return "expected KEY = VALUE or [SECTION]";
    const std::string key = trimmed(text.substr(0, equals));
    const std::string value = trimmed(text.substr(equals + 1));
    if (section_ == Section::kRecording) return setOption(key, value);
    if (section_ == Section::kChannel) return setInput(key, value);
    return key + " stands in no section";
  }

  std::string end() const {
    if (request_->inputs.empty()) return "there is no [channel N] to record";
    return lacksInput() ? missingInput() : "";
  }

 private:
  enum class Section { kNone, kRecording, kChannel };

  bool lacksInput() const {
    return section_ == Section::kChannel && request_->inputs.back().input.empty();
  }
  std::string missingInput() const {
    return "channel " + std::to_string(request_->inputs.back().channel) + " has no input";
  }

  std::string beginSection(const std::string& text) {
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
  Section section_ = Section::kNone;
  bool standardInput_ = false;
};

}  // namespace

bool readRecordConfig(const std::string& path, RecordRequest* request, std::string* error) {
  std::ifstream file(path);
  if (!file) {
    *error = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  ConfigReader reader(request);
  std::string line;
  for (unsigned number = 1; std::getline(file, line); ++number) {
    const std::string wrong = reader.take(line);
    if (wrong.empty()) continue;
    *error = path;
    error->append(":").append(std::to_string(number)).append(": ").append(wrong);
    return false;
  }
  const std::string wrong = file.bad() ? "cannot be read" : reader.end();
  if (!wrong.empty()) *error = path + ": " + wrong;
  return wrong.empty();
}

}  // namespace tarn
