#pragma once

#include <sys/types.h>

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "Cases.h"
#include "Plan.h"
#include "Process.h"
#include "Programs.h"

namespace faults {

// Waiting is shortened by this; by the second when a case is tried once more, and by the third
// where nothing fails, so that it would only take a busy machine for a program that hangs.
inline constexpr uint32_t kSpeed = 20;
inline constexpr uint32_t kSecondSpeed = 5;
inline constexpr uint32_t kCalmSpeed = 2;

// Where programs run: the rig's own files beside the card, the orders to the interposer, and the
// process group that everything of a case belongs to. Of two kinds of programs each has streams,
// log and orders of its own: the one that faults are tried on (`faulty`), and all others.
class Workplace {
 public:
  // Programs are those of `binDir`.
  explicit Workplace(const std::string& binDir);
  ~Workplace();
  Workplace(const Workplace&) = delete;
  Workplace& operator=(const Workplace&) = delete;

  std::string path(const std::string& name) const;
  const std::string& bin() const { return bin_; }
  std::string program(const std::string& name) const { return bin_ + "/" + name; }
  std::string tool() const { return bin_ + kTool; }

  // Empties what programs have written, and makes the promises those of `promises`.
  void clear(const std::string& promises);
  void addPromises(const std::string& lines);
  // What the programs that begin from now on are to suffer.
  void order(const Case& fault, uint32_t speed);
  // Calls that the program has made, and how many were spoiled.
  const Plan& plan() const { return *plan_; }

  void beginGroup() { group_ = newGroup(); }
  // Ends everything of the group.
  void endGroup();

  Launch with(const std::vector<std::string>& arguments, bool faulty) const;
  Ending run(const Launch& how) const { return await(launch(how, group_), limitMs_); }
  // "" when it ends with 0.
  std::string must(const std::vector<std::string>& arguments) const;
  pid_t startServer(bool faulty, bool* ready) const;
  Ending stop(pid_t server) const;

  // The log's lines as they are: said by programs that have no fault.
  void takeLogAsUsual();
  // What was complained of, beyond the usual lines.
  std::string complaints() const;
  // Everything that programs have written.
  void print(const char* what) const;

  // What takes longer hangs: kLimitMs, unless a proof has less patience.
  void setLimit(int ms) { limitMs_ = ms; }
  static constexpr int kLimitMs = 8000;

 private:
  std::string bin_;
  std::string work_;
  Plan* plan_ = nullptr;   // of the program that faults are tried on
  Plan* plain_ = nullptr;  // of all others
  pid_t group_ = 0;
  int limitMs_ = kLimitMs;
  std::set<std::string> usualLines_;  // of the log, without their numbers
};

}  // namespace faults
