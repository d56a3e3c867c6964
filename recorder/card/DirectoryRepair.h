#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "recorder/card/CardMap.h"

namespace tarn {

// Sectors of the root directory whose entries are lost, as our formatter would write them: which
// file has which entry follows from the numbers and sizes of the families. `map` is what the info
// file says. Empty when nothing is lost, when the card was laid out otherwise than we do, when less
// than half of the directory confirms it, or when the card does not give it. Entries for something
// else behind ours stay, but for those in a sector that is made anew. Nothing is written.
std::map<uint64_t, std::vector<uint8_t>> lostDirectorySectors(const CardBytes& card,
                                                              const CardMap& map);

}  // namespace tarn
