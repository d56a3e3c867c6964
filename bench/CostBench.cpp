// Processor time and memory of a recording, on this machine and, where bench/run found a build for
// it, on 32-bit ARM in an emulator.
#include <cstdlib>
#include <sstream>

#include "Machine.h"
#include "Pair.h"

namespace {

using namespace bench;

std::map<std::string, double> costOf(const std::vector<std::string>& command) {
  std::string output;
  const int status = runProgram(command, &output);
  if (status != 0) give_up(command.back() + " failed with status " + std::to_string(status));
  std::map<std::string, double> figures;
  // The library prints lines of its own in between.
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string name, rest;
    double value = 0;
    if (words >> name >> value && !(words >> rest)) figures[name] = value;
  }
  if (figures.empty()) give_up("no figures");
  return figures;
}

std::map<std::string, double> costHere() { return costOf({programPath("tarn-cost")}); }

std::map<std::string, double> costOnArm() {
  const char* setting = getenv("TARN_BENCH_ARM");
  if (setting == nullptr || *setting == '\0') give_up("no build for 32-bit ARM");
  std::vector<std::string> command;
  std::istringstream words(setting);
  std::string word;
  while (words >> word) command.push_back(word);
  return costOf(command);
}

const bool kHere = add(Figures{"cost", "cost/here", 5, costHere});
const bool kArm = add(Figures{"cost", "cost/armhf", 3, costOnArm});

}  // namespace
