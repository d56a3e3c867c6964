#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "GoodStates.h"
#include "Scene.h"
#include "Workplace.h"

namespace faults {

// What becomes of a card after a case, without faults (Judge, in a process of its own). What comes
// of it follows from what lies there: the card's bytes, the RAM disk's where they stay, the
// promises and what is asked. So what was judged good once is not judged again.
class Verdicts {
 public:
  explicit Verdicts(const Workplace& workplace) : workplace_(workplace) {}

  // `memory`: the RAM disk stays as the program left it; otherwise power is lost first. `strict`:
  // changes of rows were promised, too. "", or what is wrong.
  // `scene`: that the card was in.
  std::string judge(const Scene& scene, bool memory, bool strict);

  // Pictures of the oldest session, by channel, that may be gone.
  std::array<uint32_t, 2> mayLose() const { return mayLose_; }
  void setMayLose(const std::array<uint32_t, 2>& most) { mayLose_ = most; }
  // How many were gone in the newest case.
  std::array<uint32_t, 2> lost() const { return lost_; }
  // How many different states have been judged.
  uint32_t judged() const { return judged_; }

 private:
  uint64_t question(const Scene& scene, bool memory, bool strict) const;
  std::string ask(bool memory, bool strict);

  const Workplace& workplace_;
  std::array<uint32_t, 2> mayLose_ = {};
  std::array<uint32_t, 2> lost_ = {};
  uint32_t judged_ = 0;
  GoodStates good_;
};

}  // namespace faults
