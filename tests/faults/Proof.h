#pragma once

#include <string>
#include <vector>

#include "Rig.h"

namespace faults {

// Shows a rig what it must not overlook.
class Proof {
 public:
  explicit Proof(Rig* rig) : rig_(*rig) {}

  // Each line is something that was not seen.
  std::vector<std::string> run();

 private:
  void expect(bool seen, const std::string& what);
  bool seesBrokenPromise(const std::string& promise, bool loseOldest);
  bool seesOtherByte();
  bool seesBadProgram(const std::string& how);

  Rig& rig_;
  std::vector<std::string> unseen_;
};

}  // namespace faults
