#include "base/Omission.h"

#include <algorithm>
#include <string>
#include <vector>

namespace tarn {
namespace {

// Changed while nothing else runs.
std::vector<std::string>& stepsLeftOut() {
  static std::vector<std::string> steps;
  return steps;
}

std::string named(const char* step) {
  std::string name = step;
  std::replace(name.begin(), name.end(), ' ', '-');
  return name;
}

}  // namespace

bool omitted(const char* step) {
  const std::vector<std::string>& steps = stepsLeftOut();
  return !steps.empty() && std::find(steps.begin(), steps.end(), named(step)) != steps.end();
}

void leaveOut(const char* step, bool out) {
  std::vector<std::string>& steps = stepsLeftOut();
  steps.erase(std::remove(steps.begin(), steps.end(), named(step)), steps.end());
  if (out) steps.push_back(named(step));
}

}  // namespace tarn
