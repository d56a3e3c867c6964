#pragma once

#include <string>

#include "base/UniqueFd.h"

namespace tarn {

// A recovery of a card that changes nothing of it: it runs in a private view where all that it
// writes is kept in memory. Needs FUSE. Used by one thread, while the process has no other.
class RecoveryRehearsal {
 public:
  // What it prints, as text or as JSON. With a name in `undoFile` its warnings are left out, and
  // what it writes is saved there with what the card has in those places, in a new file, unless
  // that is nothing. False with the reason in *error when it could not be run, or nothing be saved;
  // a recovery that stops has run.
  bool run(const std::string& card, bool json, const std::string& undoFile, std::string* error);
  const std::string& output() const { return output_; }

 private:
  std::string output_;
};

}  // namespace tarn
