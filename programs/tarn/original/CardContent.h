#pragma once

#include <string>

#include "CardOriginal.h"

namespace tarn {

// What an original holds, by its first bytes: a card of the recorder, or something else that can be
// named to whoever took it for one.
class CardContent {
 public:
  static CardContent look(CardOriginal* original);

  // A volume of the recorder, damaged or not: what is wrong with it is for a check to say.
  bool isCard() const { return isCard_; }
  // Something else for sure.
  bool isForeign() const { return !isCard_ && known_; }
  // "an NTFS volume"
  const std::string& words() const { return words_; }
  // The first bytes of an Expert Witness image.
  static bool isExpertWitness(CardOriginal* original);

 private:
  bool isCard_ = false;
  bool known_ = false;
  std::string words_;
};

}  // namespace tarn
