#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Plan.h"

namespace faults {

// One fault: a program's N-th call of a kind, spoiled in one way. "recorder/card-read/17/once".
struct Case {
  std::string program;
  Op op = kAny;
  uint32_t number = 0;
  Mode mode = kNone;

  std::string name() const;
  // False for a text that is none.
  static bool parse(const std::string& text, Case* out);
};

// All faults that a program's calls can suffer, `counts` of them by kind.
std::vector<Case> casesOf(const std::string& program, const uint32_t* counts);
// Evenly spread ones of each kind and mode: all of few, ever fewer of many.
std::vector<Case> sampleOf(const std::vector<Case>& all);

}  // namespace faults
