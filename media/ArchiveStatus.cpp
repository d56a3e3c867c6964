#include "media/ArchiveStatus.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

namespace tarn {
namespace {

using Json = nlohmann::ordered_json;

uint64_t numberIn(const Json& json, const char* name) {
  const auto found = json.find(name);
  return found != json.end() && found->is_number_unsigned() ? found->get<uint64_t>() : 0;
}

}  // namespace

bool ArchiveStatus::read() {
  std::ostringstream text;
  text << std::ifstream(kPath).rdbuf();
  const Json json = Json::parse(text.str(), nullptr, false);
  if (!json.is_object()) return false;
  endedMs = static_cast<int64_t>(numberIn(json, "endedMs"));
  goodMs = static_cast<int64_t>(numberIn(json, "goodMs"));
  missing = numberIn(json, "missing");
  endangered = numberIn(json, "endangered");
  known = json.value("known", Json()) == Json(true);
  return true;
}

bool ArchiveStatus::write() const {
  const Json json = {{"endedMs", endedMs},
                     {"goodMs", goodMs},
                     {"missing", missing},
                     {"endangered", endangered},
                     {"known", known}};
  const std::string part = kPath + std::string(".") + std::to_string(getpid());
  std::ofstream file(part);
  file << json.dump() << "\n";
  file.close();
  if (file.good() && rename(part.c_str(), kPath) == 0) return true;
  unlink(part.c_str());
  return false;
}

}  // namespace tarn
