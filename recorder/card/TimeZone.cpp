#include "recorder/card/TimeZone.h"

#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

namespace tarn {
namespace {

constexpr char kDatabase[] = "/usr/share/zoneinfo";
constexpr char kMark[] = "TZif";

bool fail(std::string* error, const std::string& text) {
  *error = text;
  return false;
}

// "+05:30" for the C library, which counts the other way round; "" for what is no such offset.
std::string fixedZone(const std::string& name) {
  constexpr char kShape[] = "sdd:dd";
  if (name.size() != sizeof kShape - 1 || (name[0] != '+' && name[0] != '-')) return "";
  for (size_t i = 1; i < name.size(); ++i) {
    const bool digit = isdigit(static_cast<unsigned char>(name[i])) != 0;
    if (kShape[i] == 'd' ? !digit : name[i] != kShape[i]) return "";
  }
  if (name.compare(1, 2, "15") > 0 || name[4] > '5') return "";
  const std::string digits = name.substr(1);
  return "<" + name.substr(0, 3) + name.substr(4) + ">" + (name[0] == '+' ? "-" : "+") + digits;
}

// A name, and no way to some other file. Those of right/ count leap seconds, as no card does.
bool isName(const std::string& name) {
  for (const char c : name) {
    if (isalnum(static_cast<unsigned char>(c)) == 0 && strchr("_+-/", c) == nullptr) return false;
  }
  return !name.empty() && name[0] != '/' && name.compare(0, 6, "right/") != 0;
}

bool isInDatabase(const std::string& name) {
  const std::string path = std::string(kDatabase) + "/" + name;
  struct stat file = {};
  if (stat(path.c_str(), &file) != 0 || !S_ISREG(file.st_mode)) return false;
  const std::unique_ptr<FILE, int (*)(FILE*)> opened(fopen(path.c_str(), "re"), fclose);
  char mark[sizeof kMark - 1] = {};
  return opened != nullptr && fread(mark, 1, sizeof mark, opened.get()) == sizeof mark &&
         memcmp(mark, kMark, sizeof mark) == 0;
}

void use(const std::string& zone) {
  setenv("TZ", zone.c_str(), 1);
  tzset();
}

}  // namespace

bool TimeZone::choose(const std::string& name, std::string* error) {
  const std::string fixed = name == "UTC" || name == "Z" ? "UTC0" : fixedZone(name);
  if (!fixed.empty()) {
    use(fixed);
    return true;
  }
  struct stat folder = {};
  if (stat(kDatabase, &folder) != 0)
    return fail(error, std::string("there is no zone database (") + kDatabase +
                           "); give the offset instead, as +02:00");
  if (!isName(name) || !isInDatabase(name))
    return fail(error, "there is no zone \"" + name + "\" in " + kDatabase +
                           "; write it as Europe/Berlin, or an offset as +02:00");
  use(name);
  return true;
}

}  // namespace tarn
