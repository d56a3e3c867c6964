#include "CardAccess.h"

#include "Command.h"
#include "Console.h"
#include "original/FileOriginal.h"
#include "original/WriteProtection.h"

namespace tarn {

bool CardAccess::decide(const std::string& card, const Command& command, const std::string& name,
                        std::string* error) {
  const bool asked = readOnly || command.isDryRun();
  if (asked && !command.worksReadOnly()) {
    *error = name + " changes a card, and --read-only leaves it as it is";
    return false;
  }
  if (readOnly && card.empty() && command.needsRecorder()) {
    *error = "--read-only is for a card that is named: --card CARD";
    return false;
  }
  if (card.empty() || !command.needsRecorder()) return true;
  const std::string why = asked ? "" : whyNotWritable(card);
  if (!asked && why.empty()) return true;
  if (!asked && command.changesCard()) {
    *error =
        name + " changes a card, and " + card + " cannot be written to: " + why +
        (command.worksReadOnly() ? "; --read-only keeps changes in memory and drops them" : "");
    return false;
  }
  original_ = FileOriginal::open(card, error);
  if (original_ != nullptr && !asked) {
    complain(card + " cannot be written to (" + why + "): it is only read, and stays as it is");
  }
  return original_ != nullptr;
}

}  // namespace tarn
