#include "video/ArchiveConfig.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fstream>

#include "Console.h"
#include "media/archive/ArchiveNames.h"

namespace tarn {
namespace {

std::string trimmed(const std::string& text) {
  constexpr char kBlanks[] = " \t\r";
  const size_t begin = text.find_first_not_of(kBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kBlanks) - begin + 1);
}

bool parseSeconds(const std::string& text, uint32_t* seconds) {
  constexpr uint32_t kMost = 86400;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *seconds);
  return error == std::errc() && end == text.data() + text.size() && *seconds > 0 &&
         *seconds <= kMost;
}

class ConfigReader {
 public:
  ConfigReader(CardArchiver::Settings* settings, uint32_t* everySeconds)
      : settings_(settings), everySeconds_(everySeconds) {}

  // One line. Empty, or what is wrong with it.
  std::string take(const std::string& line) {
    const std::string text = trimmed(line);
    if (text.empty() || text[0] == '#') return "";
    if (text[0] == '[') {
      inSection_ = text == "[archive]";
      return inSection_ ? "" : text + " is no section; there is [archive]";
    }
    const size_t equals = text.find('=');
    if (equals == std::string::npos) return "expected KEY = VALUE or [archive]";
    const std::string key = trimmed(text.substr(0, equals));
    if (!inSection_) return key + " stands in no section";
    return set(key, trimmed(text.substr(equals + 1)));
  }

  std::string end() const {
    if (settings_->place.empty()) return "there is no place to archive in";
    if (settings_->seal.has_value() &&
        (settings_->seal->key.empty() || settings_->seal->certificate.empty()))
      return "to seal takes both seal and certificate";
    return "";
  }

 private:
  std::string set(const std::string& key, const std::string& value) {
    if (value.empty()) return key + ": expected a value";
    if (key == "place") {
      settings_->place = value;
    } else if (key == "recorder") {
      settings_->recorder = value;
      if (!isRecorderName(value)) return kErrRecorderName;
    } else if (key == "limit-rate") {
      if (!parseSize(value, &settings_->bytesPerSecond) || settings_->bytesPerSecond == 0)
        return "limit-rate: expected bytes in a second, or K, M, G";
    } else if (key == "timeout") {
      if (!parseSeconds(value, &settings_->patienceSeconds))
        return "timeout: expected 1 to 86400 seconds";
    } else if (key == "every") {
      if (!parseSeconds(value, everySeconds_)) return "every: expected 1 to 86400 seconds";
    } else if (key == "trust-size") {
      if (value != "yes" && value != "no") return "trust-size: expected yes or no";
      settings_->trustSize = value == "yes";
    } else {
      return setSeal(key, value);
    }
    return "";
  }

  std::string setSeal(const std::string& key, const std::string& value) {
    SealRequest request = settings_->seal.value_or(SealRequest());
    if (key == "seal") {
      request.key = value;
    } else if (key == "certificate") {
      request.certificate = value;
    } else if (key == "operator") {
      request.operatorName = value;
    } else if (key == "note") {
      request.note = value;
    } else {
      return key + " is not known in [archive]";
    }
    settings_->seal = request;
    return "";
  }

  CardArchiver::Settings* settings_;
  uint32_t* everySeconds_;
  bool inSection_ = false;
};

}  // namespace

bool readArchiveConfig(const std::string& path, CardArchiver::Settings* settings,
                       uint32_t* everySeconds, std::string* error) {
  std::ifstream file(path);
  if (!file) {
    *error = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  ConfigReader reader(settings, everySeconds);
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
