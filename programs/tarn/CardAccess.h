#pragma once

#include <memory>
#include <string>

#include "original/CardOriginal.h"

namespace tarn {

class Command;

// How a command gets at its card: as it is, or, where nothing of it may change, through an overlay
// in memory.
class CardAccess {
 public:
  // Asked for on the command line.
  bool readOnly = false;
  int partition = 0;  // of a whole device; 0: the one that holds a card

  // Decides it for `command`, called `name`, and opens what is to be overlaid. Tells on standard
  // error what was not asked for. False with the reason in *error: a command that changes cards on
  // one that is only read, or one that cannot be opened.
  bool decide(const std::string& card, const Command& command, const std::string& name,
              std::string* error);
  // What is shown through an overlay; null for a card that is used as it is.
  CardOriginal* original() const { return original_.get(); }

 private:
  static bool isNoOther(const std::string& card, std::string* error);

  std::unique_ptr<CardOriginal> original_;
};

}  // namespace tarn
