#include "media/ConfigLines.h"

#include <cerrno>
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

}  // namespace

std::string ConfigLines::take(const std::string& line) {
  // Whoever opens what a value names stops at such a byte, and would open something else.
  if (line.find('\0') != std::string::npos) return "this line has a byte 0 in it";
  const std::string text = trimmed(line);
  if (text.empty() || text[0] == '#') return "";
  if (text[0] == '[') {
    inSection_ = true;
    return begin(text);
  }
  const size_t equals = text.find('=');
  if (equals == std::string::npos) return "expected KEY = VALUE or [SECTION]";
  const std::string key = trimmed(text.substr(0, equals));
  return inSection_ ? set(key, trimmed(text.substr(equals + 1))) : key + " stands in no section";
}

bool ConfigLines::read(const std::string& path, std::string* error) {
  std::ifstream file(path);
  if (!file) {
    *error = "cannot open " + path + ": " + strerror(errno);
    return false;
  }
  std::string line;
  for (unsigned number = 1; std::getline(file, line); ++number) {
    const std::string wrong = take(line);
    if (wrong.empty()) continue;
    *error = path;
    error->append(":").append(std::to_string(number)).append(": ").append(wrong);
    return false;
  }
  const std::string wrong = file.bad() ? "cannot be read" : end();
  if (!wrong.empty()) *error = path + ": " + wrong;
  return wrong.empty();
}

}  // namespace tarn
