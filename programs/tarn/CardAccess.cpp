#include "CardAccess.h"

#include "Command.h"
#include "Console.h"
#include "original/OriginalCard.h"
#include "original/WriteProtection.h"

namespace tarn {

bool CardAccess::decide(const std::string& card, const Command& command, const std::string& name,
                        std::string* error) {
  const bool asked = readOnly || command.isDryRun();
  if (asked && !command.worksReadOnly()) {
    *error = name + " changes a card, and --read-only leaves it as it is";
    return false;
  }
  if ((readOnly || partition != 0) && card.empty() && command.needsRecorder()) {
    *error = "--read-only and --partition are for a card that is named: --card CARD";
    return false;
  }
  if (card.empty()) return true;
  const std::string kind = OriginalCard::whyOverlaid(card);
  // What only looks at a card of the plain kind opens it for reading by itself.
  if (!command.needsRecorder() && (kind.empty() || command.changesCard()))
    return command.makesCard() || isNoOther(card, error);
  const std::string protection = kind.empty() ? whyNotWritable(card) : "";
  const bool chosen = asked || partition != 0;
  if (!chosen && kind.empty() && protection.empty()) return isNoOther(card, error);
  if (!asked && command.changesCard()) {
    *error =
        name + " changes a card, and " + card +
        (kind.empty() ? " cannot be written to: " + protection : " is only read: " + kind) +
        (command.worksReadOnly() ? "; --read-only keeps changes in memory and drops them" : "");
    return false;
  }
  OriginalCard opened;
  if (!opened.open(card, partition, error)) return false;
  if (!asked && !protection.empty()) {
    warn(card + " cannot be written to (" + protection + "): it is only read, and stays as it is");
  } else if (!asked && !kind.empty()) {
    warn(card + " is only read, and stays as it is: " + kind);
  }
  if (!opened.note().empty()) warn(opened.note());
  original_ = opened.take();
  return true;
}

// Where something else is named for sure, nobody needs a recovery to find out.
bool CardAccess::isNoOther(const std::string& card, std::string* error) {
  const std::string other = OriginalCard::foreignContent(card);
  if (!other.empty()) *error = card + " is no card of the recorder: it holds " + other;
  return other.empty();
}

}  // namespace tarn
