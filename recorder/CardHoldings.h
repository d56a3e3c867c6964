#pragma once

#include <string>

namespace tarn {

// What a format would take from a card. Not part of the interface.
struct CardHoldings {
  bool any = false;  // there are recordings, or whether there are cannot be told
  std::string text;  // "CARD holds 12 recordings ...", for a person; empty without any
};

// Looks at a card of the recorder that was formatted once, by its journal and management files, and
// changes nothing of it. What cannot be read counts as something: it may be all there is.
CardHoldings cardHoldings(const std::string& path);

}  // namespace tarn
