#include "video/ArchiveConfig.h"

#include <charconv>

#include "Console.h"
#include "media/ConfigLines.h"
#include "media/archive/ArchiveNames.h"

namespace tarn {
namespace {

bool parseSeconds(const std::string& text, uint32_t* seconds) {
  constexpr uint32_t kMost = 86400;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *seconds);
  return error == std::errc() && end == text.data() + text.size() && *seconds > 0 &&
         *seconds <= kMost;
}

class ConfigReader : public ConfigLines {
 public:
  ConfigReader(CardArchiver::Settings* settings, uint32_t* everySeconds)
      : settings_(settings), everySeconds_(everySeconds) {}

 private:
  std::string begin(const std::string& section) override {
    return section == "[archive]" ? "" : section + " is no section; there is [archive]";
  }

  std::string end() const override {
    if (settings_->place.empty()) return "there is no place to archive in";
    if (settings_->seal.has_value() &&
        (settings_->seal->key.empty() || settings_->seal->certificate.empty()))
      return "to seal takes both seal and certificate";
    return "";
  }

  std::string set(const std::string& key, const std::string& value) override {
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
};

}  // namespace

bool readArchiveConfig(const std::string& path, CardArchiver::Settings* settings,
                       uint32_t* everySeconds, std::string* error) {
  return ConfigReader(settings, everySeconds).read(path, error);
}

}  // namespace tarn
