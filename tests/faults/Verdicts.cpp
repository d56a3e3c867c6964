#include "Verdicts.h"

#include <unistd.h>

#include <cstdio>
#include <sstream>

#include "Scene.h"
#include "Sum.h"

namespace faults {
uint64_t Verdicts::question(const Scene& scene, bool memory, bool strict) const {
  Sum sum;
  sum.add(scene.cardSum()).add(readFile(workplace_.path("promises")));
  sum.add(mayLose_[0]).add(mayLose_[1]).add(memory ? 1 : 0).add(strict ? 1 : 0);
  if (memory) sum.add(memorySum());
  return sum.value();
}

std::string Verdicts::ask(bool memory, bool strict) {
  writeFile(workplace_.path("verdict"), "");
  Launch how =
      workplace_.with({workplace_.program("faults_recorder"), "judge", workplace_.path("promises"),
                       std::to_string(mayLose_[0]), std::to_string(mayLose_[1]), strict ? "1" : "0",
                       memory ? "1" : "0"},
                      false);
  how.output = workplace_.path("verdict");
  const Ending ending = workplace_.run(how);
  std::istringstream lines(readFile(workplace_.path("verdict")));
  for (std::string line; std::getline(lines, line);) {
    sscanf(line.c_str(), "lost %u %u", &lost_[0], &lost_[1]);
    if (line.rfind("FAIL ", 0) == 0) return line.substr(5);
  }
  if (ending.hung) return "what comes after it hangs";
  if (ending.signalled) return "what comes after it ends by signal " + std::to_string(ending.code);
  if (ending.code == 0) return "";
  return "what comes after it ends with " + std::to_string(ending.code) + ": " +
         readFile(workplace_.path("other-errors"));
}

std::string Verdicts::judge(const Scene& scene, bool memory, bool strict) {
  if (memory) {
    unlink("/tmp/sd_err_mem_write");
  } else {
    loseMemory();
  }
  const uint64_t asked = question(scene, memory, strict);
  if (good_.find(asked, &lost_)) return "";
  ++judged_;
  std::string failure = ask(memory, strict);
  if (failure.empty()) good_.add(asked, lost_);
  return failure;
}

}  // namespace faults
