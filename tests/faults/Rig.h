#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "Cases.h"
#include "Programs.h"
#include "Stage.h"
#include "Verdicts.h"
#include "Workplace.h"

namespace faults {

// Runs programs with faults in a view of the machine that is its own (tests/support/view).
class Rig {
 public:
  // Programs are those of `binDir`.
  explicit Rig(const std::string& binDir);

  // Makes the scenes, and counts every program's calls in a run without faults. "", or what failed.
  std::string prepare(const std::string& onlyProgram);
  const std::vector<Program>& programs() const { return programs_; }
  const uint32_t* counts(const std::string& program) const { return counts_.at(program).data(); }

  // "" when all is as it should be. `reached`: whether the call was made at all.
  std::string run(const Case& fault, uint32_t speed, bool* reached);

  uint32_t judged() const { return verdicts_.judged(); }

  void setVerbose() { verbose_ = true; }

  // For what proves that the rig sees what is wrong.
  Workplace* workplace() { return &workplace_; }
  const Stage& stage() const { return stage_; }
  Verdicts* verdicts() { return &verdicts_; }
  // A program more, which prints `output` when all is well.
  void add(const Program& program, const std::string& output);

 private:
  void begin(const Program& program, const Case& fault, uint32_t speed);
  std::string runProgram(const Program& program, const Case& fault, Ending* ending);
  std::string runServer(const Case& fault, Ending* ending);
  std::string explain(const std::string& who, const Ending& ending, const Case& fault) const;
  std::string printed() const;
  std::string judgeOutput(const Program& program, const Ending& ending) const;
  std::string finish(const Program& program, const Case& fault, const Ending& ending,
                     std::string failure);
  void promiseWhatWasSaid();
  void show(const char* what) const {
    if (verbose_) workplace_.print(what);
  }

  Workplace workplace_;
  Stage stage_;
  Verdicts verdicts_;
  bool verbose_ = false;
  int goodCode_ = 0;  // exit status of the program at hand when all is well
  std::vector<Program> programs_;
  std::map<std::string, std::array<uint32_t, kOps>> counts_;
  std::map<std::string, std::string> outputs_;  // without faults, by program
};

}  // namespace faults
