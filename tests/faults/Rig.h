#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Cases.h"
#include "Plan.h"
#include "Process.h"
#include "Programs.h"
#include "Scene.h"

namespace faults {

// Runs programs with faults in a view of the machine that is its own (tests/support/view).
class Rig {
 public:
  // Programs are those of `binDir`.
  explicit Rig(const std::string& binDir);
  ~Rig();
  Rig(const Rig&) = delete;
  Rig& operator=(const Rig&) = delete;

  // Makes the scenes, and counts every program's calls in a run without faults. "", or what failed.
  std::string prepare(const std::string& onlyProgram);
  const std::vector<Program>& programs() const { return programs_; }
  const uint32_t* counts(const std::string& program) const { return counts_.at(program).data(); }

  // "" when all is as it should be. `reached`: whether the call was made at all.
  std::string run(const Case& fault, uint32_t speed, bool* reached);
  // Whether what should fail does: each line is something that was not seen.
  std::vector<std::string> prove();

  void setVerbose() { verbose_ = true; }

 private:
  std::string path(const std::string& name) const;
  Launch with(const std::vector<std::string>& arguments, bool faulty) const;
  std::string must(const std::vector<std::string>& arguments);
  std::string makeScenes();
  std::string makeClip();
  void promiseWhatWasSaid();
  bool seesBrokenPromise(const std::string& promise, bool loseOldest);
  bool seesOtherByte();
  void begin(const Program& program, const Case& fault, uint32_t speed);
  pid_t startServer(bool faulty, bool* ready);
  std::string stopServer(pid_t server, bool faulty, const Case& fault);
  std::string runProgram(const Program& program, const Case& fault, Ending* ending);
  std::string runServer(const Program& program, const Case& fault, Ending* ending);
  std::string explain(const std::string& who, const Ending& ending, const Case& fault) const;
  std::string judge(const Case& fault, bool present);
  std::string judgeOutput(const Program& program, const Ending& ending);
  std::string complaints() const;
  void order(const Case& fault, uint32_t speed);
  void show(const char* what) const;

  static constexpr int kLimitMs = 8000;

  std::string bin_;
  std::string work_;
  Plan* plan_ = nullptr;   // of the program that faults are tried on
  Plan* plain_ = nullptr;  // of all others
  pid_t group_ = 0;
  bool verbose_ = false;
  int limitMs_ = kLimitMs;  // of what takes longer it is said that it hangs
  bool strict_ = true;
  int goodCode_ = 0;  // exit status of the program at hand when all is well
  std::map<std::string, Scene> scenes_;
  std::vector<Program> programs_;
  std::map<std::string, std::array<uint32_t, kOps>> counts_;
  std::set<std::string> usualLines_;            // of the log, without their numbers
  std::map<std::string, std::string> outputs_;  // without faults, by program
  std::array<uint32_t, 2> mayLose_ = {};
  std::array<uint32_t, 2> lost_ = {};
};

}  // namespace faults
