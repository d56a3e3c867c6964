#pragma once

#include <string>

#include "base/Export.h"
#include "recorder/card/CardFormatter.h"

namespace tarn {

// For FormatOptions::look. Looks at a card of the recorder that was formatted once, by its journal
// and management files, and changes nothing of it. What cannot be read counts as something: it may
// be all there is.
TARN_API CardHoldings cardHoldings(const std::string& path);

}  // namespace tarn
